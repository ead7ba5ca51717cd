#pragma once

#include <string_view>

namespace quillet {

/// How the two channels of a recording are laid out (the sidecar's "channelLayout").
namespace RecordingChannelLayout {

/// Left the microphone, right the system audio; the default.
inline constexpr std::string_view stereoMicrophoneAndSystem = "L=microphone,R=system";
/// Both channels system audio.
inline constexpr std::string_view stereoSystemOnly = "L=system-left,R=system-right";
/// Segments differ; each segment names its own layout.
inline constexpr std::string_view mixed = "mixed (see segments)";

} // namespace RecordingChannelLayout

namespace RecordingConstants {

/// Prefix of the unique ids of the aggregate audio devices the recorder creates.
inline constexpr std::string_view aggregateUIDPrefix = "se.Brannick.quillet.recorder.";

/// Content classification with which recorder captures are uploaded.
inline constexpr std::string_view meetingRecordingClassification = "meeting_recording";
/// Content origin of recordings made by this product's recorder.
inline constexpr std::string_view recorderOrigin = "quillet_recorder";
/// Content origin of recordings made by the predecessor's recorder; still a recording origin.
inline constexpr std::string_view legacyRecorderOrigin = "pellam_recorder";

/// True for both recorder origins (the current one and the predecessor's).
constexpr bool isRecorderOrigin(std::string_view origin)
{
    return origin == recorderOrigin || origin == legacyRecorderOrigin;
}

} // namespace RecordingConstants
} // namespace quillet
