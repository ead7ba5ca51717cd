#pragma once

#include "quillet_capture/recording/StrictJson.hpp"

#include <optional>
#include <string>

namespace quillet {

/// What the companion recorder records: one application's audio, or all system audio.
/// In JSON an object with exactly one key: {"app": {"bundleID": ..., "name": ...}} or
/// {"allAudio": {}}.
struct RecordingSource {
    enum class Kind { app, allAudio };

    Kind kind = Kind::allAudio;
    std::string bundleID; // only for `app`
    std::string name;     // only for `app`

    static RecordingSource app(std::string bundleID, std::string name);
    static RecordingSource allAudio();

    bool operator==(const RecordingSource&) const = default;
};

/// Writes the one-key object form.
void to_json(nlohmann::json& json, const RecordingSource& source);
/// Reads the one-key object form. Throws JsonDecodeError for anything else (not an
/// object, no key or several keys, an unknown key, an "app" without string bundleID and name).
void from_json(const nlohmann::json& json, RecordingSource& source);

/// The recorder's choice of source and microphone. JSON keys "source", "includeMicrophone",
/// "microphoneUID" (left out when absent).
struct RecordingOptions {
    RecordingSource source;
    bool includeMicrophone = true;
    std::optional<std::string> microphoneUID;

    bool operator==(const RecordingOptions&) const = default;
};

void to_json(nlohmann::json& json, const RecordingOptions& options);
/// Throws JsonDecodeError when "source" or "includeMicrophone" is missing or a value has
/// the wrong type.
void from_json(const nlohmann::json& json, RecordingOptions& options);

} // namespace quillet
