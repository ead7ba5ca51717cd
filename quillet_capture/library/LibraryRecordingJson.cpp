#include "quillet_capture/library/LibraryRecordingJson.hpp"

#include "quillet_capture/util/Iso8601.hpp"
#include "quillet_capture/util/Utf8.hpp"

#include <nlohmann/json.hpp>

#include <cmath>

namespace quillet {

nlohmann::json toJson(const LibraryRecording& recording)
{
    nlohmann::json value = {{"id", Utf8::lossless(recording.uniqueId)}};
    auto text = [&](const char* key, const std::string& field) {
        if (!field.empty()) {
            value[key] = Utf8::lossless(field);
        }
    };
    text("file", recording.fileName);
    text("title", recording.title);
    text("folder", recording.folder);
    text("digest", recording.digest);
    if (recording.date) {
        value["date"] = Iso8601::format(*recording.date);
    }
    if (recording.duration) {
        value["duration"] = *recording.duration;
    }
    if (recording.deleted) {
        value["deleted"] = true;
    }
    return value;
}

std::optional<LibraryRecording> libraryRecordingFromJson(const nlohmann::json& value)
{
    if (!value.is_object()) {
        return std::nullopt;
    }
    auto text = [&](const char* key) -> std::string {
        auto found = value.find(key);
        return found != value.end() && found->is_string() ? Utf8::bytesOf(found->get<std::string>()) : std::string();
    };
    LibraryRecording recording;
    recording.uniqueId = text("id");
    if (recording.uniqueId.empty()) {
        return std::nullopt;
    }
    recording.fileName = text("file");
    recording.title = text("title");
    recording.folder = text("folder");
    recording.digest = text("digest");
    if (auto date = text("date"); !date.empty()) {
        recording.date = Iso8601::parse(date);
    }
    if (auto duration = value.find("duration"); duration != value.end() && duration->is_number()) {
        double seconds = duration->get<double>();
        if (std::isfinite(seconds) && seconds >= 0) {
            recording.duration = seconds;
        }
    }
    auto deleted = value.find("deleted");
    recording.deleted = deleted != value.end() && deleted->is_boolean() && deleted->get<bool>();
    return recording;
}

} // namespace quillet
