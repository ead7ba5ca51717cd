#pragma once

#include "quillet_capture/library/VoiceMemosLibrary.hpp"

#include <nlohmann/json_fwd.hpp>

#include <optional>

namespace quillet {

/// A library recording as the program's own state files keep it: an object with "id",
/// "file", "title", "folder", "digest" (texts, left out when empty), "date" (ISO 8601 UTC),
/// "duration" (seconds) and "deleted" (only when true).
nlohmann::json toJson(const LibraryRecording& recording);

/// The recording of an object written by `toJson`; nothing when it is not one (no "id").
std::optional<LibraryRecording> libraryRecordingFromJson(const nlohmann::json& value);

} // namespace quillet
