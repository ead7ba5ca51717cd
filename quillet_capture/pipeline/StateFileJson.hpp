#pragma once

#include <nlohmann/json.hpp>

#include <filesystem>
#include <optional>

namespace quillet::StateFileJson {

/// The JSON object kept in `file`, one of the agent's files beside its state file; nothing
/// when the file is missing, cannot be read or holds no JSON object. Any thread.
std::optional<nlohmann::json> read(const std::filesystem::path& file);

/// Replaces `file` with `document`, owner-only, atomically and durably, making its folder when
/// needed. A failure is logged in one line and leaves the file as it was; text that is not
/// UTF-8 is written with replacement characters. Any thread.
void write(const std::filesystem::path& file, const nlohmann::json& document);

} // namespace quillet::StateFileJson
