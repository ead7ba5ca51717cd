#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace quillet {

/// Live levels of the two channels while recording (0...1). Not stored.
struct RecordingLevels {
    float micPeak = 0;
    float micRMS = 0;
    float systemPeak = 0;
    float systemRMS = 0;

    bool operator==(const RecordingLevels&) const = default;
};

/// Where the companion recorder is in its work. `failed` carries a message.
struct RecordingState {
    enum class Kind { idle, starting, recording, paused, finishing, failed };

    Kind kind = Kind::idle;
    std::string message; // only for `failed`

    static RecordingState failed(std::string message) { return {Kind::failed, std::move(message)}; }

    bool operator==(const RecordingState&) const = default;
};

/// A running application that plays audio, as the recorder offers it for choice. Not stored.
struct AudioApp {
    std::string bundleID;
    std::string name;
    std::vector<std::uint32_t> processObjectIDs; // the system's audio object ids of its processes
    bool isPlaying = false;

    bool operator==(const AudioApp&) const = default;
};

/// A microphone the recorder can use. Not stored.
struct AudioInputDevice {
    std::string uid;
    std::string name;
    bool isDefault = false;

    bool operator==(const AudioInputDevice&) const = default;
};

} // namespace quillet
