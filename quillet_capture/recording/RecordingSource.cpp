#include "quillet_capture/recording/RecordingSource.hpp"

#include "quillet_capture/recording/StrictJson.hpp"

#include <nlohmann/json.hpp>

namespace quillet {

RecordingSource RecordingSource::app(std::string bundleID, std::string name)
{
    return {Kind::app, std::move(bundleID), std::move(name)};
}

RecordingSource RecordingSource::allAudio()
{
    return {Kind::allAudio, {}, {}};
}

void to_json(nlohmann::json& json, const RecordingSource& source)
{
    if (source.kind == RecordingSource::Kind::app) {
        json = {{"app", {{"bundleID", source.bundleID}, {"name", source.name}}}};
    } else {
        json = {{"allAudio", nlohmann::json::object()}};
    }
}

void from_json(const nlohmann::json& json, RecordingSource& source)
{
    if (!json.is_object() || json.size() != 1) {
        throw JsonDecodeError("a recording source must be an object with exactly one key");
    }
    const std::string& key = json.begin().key();
    const auto& value = json.begin().value();
    if (!value.is_object()) {
        throw JsonDecodeError("the value of recording source \"" + key + "\" must be an object");
    }
    if (key == "allAudio") {
        source = RecordingSource::allAudio();
    } else if (key == "app") {
        source = RecordingSource::app(strictJson::required<std::string>(value, "bundleID"),
                                      strictJson::required<std::string>(value, "name"));
    } else {
        throw JsonDecodeError("unknown recording source \"" + key + "\"");
    }
}

void to_json(nlohmann::json& json, const RecordingOptions& options)
{
    json = {{"source", options.source}, {"includeMicrophone", options.includeMicrophone}};
    if (options.microphoneUID) {
        json["microphoneUID"] = *options.microphoneUID;
    }
}

void from_json(const nlohmann::json& json, RecordingOptions& options)
{
    if (!json.is_object()) {
        throw JsonDecodeError("recording options must be an object");
    }
    options.source = strictJson::required<RecordingSource>(json, "source");
    options.includeMicrophone = strictJson::required<bool>(json, "includeMicrophone");
    options.microphoneUID = strictJson::optional<std::string>(json, "microphoneUID");
}

} // namespace quillet
