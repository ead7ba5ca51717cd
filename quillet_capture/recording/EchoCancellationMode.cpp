#include "quillet_capture/recording/EchoCancellationMode.hpp"

#include "quillet_capture/recording/StrictJson.hpp"

namespace quillet {

std::string rawValue(EchoCancellationMode mode)
{
    switch (mode) {
    case EchoCancellationMode::automatic:
        return "automatic";
    case EchoCancellationMode::on:
        return "on";
    case EchoCancellationMode::off:
        return "off";
    }
    return "automatic";
}

std::optional<EchoCancellationMode> echoCancellationModeFrom(std::string_view text)
{
    for (auto mode : {EchoCancellationMode::automatic, EchoCancellationMode::on, EchoCancellationMode::off}) {
        if (rawValue(mode) == text) {
            return mode;
        }
    }
    return std::nullopt;
}

std::string displayName(EchoCancellationMode mode)
{
    switch (mode) {
    case EchoCancellationMode::automatic:
        return "Automatic (when the sound comes out of speakers)";
    case EchoCancellationMode::on:
        return "On";
    case EchoCancellationMode::off:
        return "Off";
    }
    return "";
}

void to_json(nlohmann::json& json, EchoCancellationMode mode)
{
    json = rawValue(mode);
}

void from_json(const nlohmann::json& json, EchoCancellationMode& mode)
{
    auto text = strictJson::decode<std::string>(json, "echo cancellation mode");
    auto found = echoCancellationModeFrom(text);
    if (!found) {
        throw JsonDecodeError("unknown echo cancellation mode \"" + text + "\"");
    }
    mode = *found;
}

} // namespace quillet
