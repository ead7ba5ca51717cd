#pragma once

#include <nlohmann/json_fwd.hpp>

#include <optional>
#include <string>
#include <string_view>

namespace quillet {

/// Whether the recorder removes the speakers' sound from the microphone channel. Stored as
/// its raw value: "automatic", "on", "off". `automatic` comes first and is the default.
enum class EchoCancellationMode { automatic, on, off };

/// The raw value ("automatic", "on", "off").
std::string rawValue(EchoCancellationMode mode);

/// The mode whose raw value is `text` (exact, case-sensitive); absent for anything else.
std::optional<EchoCancellationMode> echoCancellationModeFrom(std::string_view text);

/// The name shown to the user, e.g. "Automatic (when the sound comes out of speakers)".
std::string displayName(EchoCancellationMode mode);

void to_json(nlohmann::json& json, EchoCancellationMode mode);
/// Throws JsonDecodeError unless `json` is one of the three raw values.
void from_json(const nlohmann::json& json, EchoCancellationMode& mode);

} // namespace quillet
