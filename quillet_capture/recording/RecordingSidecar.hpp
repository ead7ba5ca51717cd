#pragma once

#include "quillet_capture/recording/RecordingSource.hpp"

#include <nlohmann/json_fwd.hpp>

#include <chrono>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quillet {

/// The JSON file that the companion recorder leaves beside each recording, describing how it
/// was made. Keys are the field names; optional fields are left out when absent; time stamps
/// are ISO 8601 in UTC ("2024-05-01T09:30:00Z"; fractions are accepted when reading).
struct RecordingSidecar {
    using TimePoint = std::chrono::system_clock::time_point;

    /// One audio file of the recording.
    struct Segment {
        std::string file; // file name
        TimePoint startedAt;
        std::optional<TimePoint> endedAt;
        double sampleRate = 0; // Hz
        std::optional<std::string> micDeviceName;
        std::string reason; // why the segment began
        std::optional<RecordingSource> source;
        std::optional<std::string> channelLayout;
        std::optional<bool> echoCancelled;
        std::optional<double> echoReferenceDelay; // seconds

        bool operator==(const Segment&) const = default;
    };

    /// Levels measured over the whole recording.
    struct LevelsSummary {
        float micPeak = 0;
        float micRMS = 0;
        float systemPeak = 0;
        float systemRMS = 0;

        bool operator==(const LevelsSummary&) const = default;
    };

    std::string id; // the recording's canonical id
    TimePoint startedAt;
    std::optional<TimePoint> endedAt; // absent while recording
    RecordingSource source;
    std::optional<std::string> microphoneName;
    std::string channelLayout; // a RecordingChannelLayout text
    std::vector<Segment> segments;
    std::string status; // the recorder's status word
    bool systemSideSilent = false;
    bool micSideSilent = false;
    std::optional<LevelsSummary> levels;
    std::optional<std::vector<std::string>> submittedParts;
    std::optional<bool> reconstructed;
    std::optional<std::string> echoCancellation; // an EchoCancellationMode raw value, kept as text
    std::optional<std::string> outputKind;       // an AudioOutputKind raw value, kept as text
    std::string appVersion;

    RecordingSidecar();

    /// Reads a sidecar. "id", "startedAt" and "source" are required; a missing "channelLayout"
    /// reads as "L=microphone,R=system", missing "segments" as none, missing "status" and
    /// "appVersion" as empty and missing silence flags as false, so a sidecar reconstructed
    /// by hand stays readable. Throws JsonDecodeError when the text is not JSON, a required
    /// value is missing, or any value has the wrong type or is not a valid time stamp.
    static RecordingSidecar decode(std::string_view json);

    /// The sidecar as pretty-printed JSON with sorted keys.
    std::string encode() const;

    bool operator==(const RecordingSidecar&) const = default;
};

void to_json(nlohmann::json& json, const RecordingSidecar::Segment& segment);
void from_json(const nlohmann::json& json, RecordingSidecar::Segment& segment);
void to_json(nlohmann::json& json, const RecordingSidecar::LevelsSummary& levels);
void from_json(const nlohmann::json& json, RecordingSidecar::LevelsSummary& levels);
void to_json(nlohmann::json& json, const RecordingSidecar& sidecar);
void from_json(const nlohmann::json& json, RecordingSidecar& sidecar);

} // namespace quillet
