#include "quillet_capture/recording/AudioOutputKind.hpp"

namespace quillet {

std::string rawValue(AudioOutputKind kind)
{
    switch (kind) {
    case AudioOutputKind::builtInSpeakers:
        return "builtInSpeakers";
    case AudioOutputKind::externalSpeakers:
        return "externalSpeakers";
    case AudioOutputKind::headphones:
        return "headphones";
    case AudioOutputKind::unknown:
        return "unknown";
    }
    return "unknown";
}

std::optional<AudioOutputKind> audioOutputKindFrom(std::string_view text)
{
    for (auto kind : {AudioOutputKind::builtInSpeakers, AudioOutputKind::externalSpeakers,
                      AudioOutputKind::headphones, AudioOutputKind::unknown}) {
        if (rawValue(kind) == text) {
            return kind;
        }
    }
    return std::nullopt;
}

} // namespace quillet
