#include "quillet_capture/recording/RecordingSidecar.hpp"

#include "quillet_capture/recording/RecordingConstants.hpp"
#include "quillet_capture/recording/StrictJson.hpp"
#include "quillet_capture/util/Iso8601.hpp"

namespace quillet {

namespace {

using nlohmann::json;
using TimePoint = RecordingSidecar::TimePoint;

// Time stamps travel as ISO 8601 text; wrapping them lets the strict reader handle them like
// any other value.
struct Stamp {
    TimePoint time;
};

void from_json(const json& value, Stamp& stamp)
{
    auto text = strictJson::decode<std::string>(value, "time stamp");
    auto parsed = Iso8601::parse(text);
    if (!parsed) {
        throw JsonDecodeError("not an ISO 8601 time stamp: \"" + text + "\"");
    }
    stamp.time = *parsed;
}

TimePoint requiredTime(const json& object, const std::string& key)
{
    return strictJson::required<Stamp>(object, key).time;
}

std::optional<TimePoint> optionalTime(const json& object, const std::string& key)
{
    auto stamp = strictJson::optional<Stamp>(object, key);
    return stamp ? std::optional(stamp->time) : std::nullopt;
}

void putTime(json& object, const std::string& key, const std::optional<TimePoint>& time)
{
    if (time) {
        object[key] = Iso8601::format(*time);
    }
}

template <typename T>
T valueOr(const json& object, const std::string& key, T fallback)
{
    return strictJson::optional<T>(object, key).value_or(std::move(fallback));
}

void requireObject(const json& value, const char* what)
{
    if (!value.is_object()) {
        throw JsonDecodeError(std::string(what) + " must be an object");
    }
}

} // namespace

RecordingSidecar::RecordingSidecar() : channelLayout(RecordingChannelLayout::stereoMicrophoneAndSystem) {}

void to_json(json& out, const RecordingSidecar::Segment& segment)
{
    out = {{"file", segment.file},
           {"startedAt", Iso8601::format(segment.startedAt)},
           {"sampleRate", segment.sampleRate},
           {"reason", segment.reason}};
    putTime(out, "endedAt", segment.endedAt);
    strictJson::putIfPresent(out, "micDeviceName", segment.micDeviceName);
    strictJson::putIfPresent(out, "source", segment.source);
    strictJson::putIfPresent(out, "channelLayout", segment.channelLayout);
    strictJson::putIfPresent(out, "echoCancelled", segment.echoCancelled);
    strictJson::putIfPresent(out, "echoReferenceDelay", segment.echoReferenceDelay);
}

void from_json(const json& in, RecordingSidecar::Segment& segment)
{
    requireObject(in, "a segment");
    segment.file = strictJson::required<std::string>(in, "file");
    segment.startedAt = requiredTime(in, "startedAt");
    segment.endedAt = optionalTime(in, "endedAt");
    segment.sampleRate = valueOr<double>(in, "sampleRate", 0);
    segment.micDeviceName = strictJson::optional<std::string>(in, "micDeviceName");
    segment.reason = valueOr<std::string>(in, "reason", "");
    segment.source = strictJson::optional<RecordingSource>(in, "source");
    segment.channelLayout = strictJson::optional<std::string>(in, "channelLayout");
    segment.echoCancelled = strictJson::optional<bool>(in, "echoCancelled");
    segment.echoReferenceDelay = strictJson::optional<double>(in, "echoReferenceDelay");
}

void to_json(json& out, const RecordingSidecar::LevelsSummary& levels)
{
    out = {{"micPeak", levels.micPeak},
           {"micRMS", levels.micRMS},
           {"systemPeak", levels.systemPeak},
           {"systemRMS", levels.systemRMS}};
}

void from_json(const json& in, RecordingSidecar::LevelsSummary& levels)
{
    requireObject(in, "levels");
    levels.micPeak = strictJson::required<float>(in, "micPeak");
    levels.micRMS = strictJson::required<float>(in, "micRMS");
    levels.systemPeak = strictJson::required<float>(in, "systemPeak");
    levels.systemRMS = strictJson::required<float>(in, "systemRMS");
}

void to_json(json& out, const RecordingSidecar& sidecar)
{
    out = {{"id", sidecar.id},
           {"startedAt", Iso8601::format(sidecar.startedAt)},
           {"source", sidecar.source},
           {"channelLayout", sidecar.channelLayout},
           {"segments", sidecar.segments},
           {"status", sidecar.status},
           {"systemSideSilent", sidecar.systemSideSilent},
           {"micSideSilent", sidecar.micSideSilent},
           {"appVersion", sidecar.appVersion}};
    putTime(out, "endedAt", sidecar.endedAt);
    strictJson::putIfPresent(out, "microphoneName", sidecar.microphoneName);
    strictJson::putIfPresent(out, "levels", sidecar.levels);
    strictJson::putIfPresent(out, "submittedParts", sidecar.submittedParts);
    strictJson::putIfPresent(out, "reconstructed", sidecar.reconstructed);
    strictJson::putIfPresent(out, "echoCancellation", sidecar.echoCancellation);
    strictJson::putIfPresent(out, "outputKind", sidecar.outputKind);
}

void from_json(const json& in, RecordingSidecar& sidecar)
{
    requireObject(in, "a recording sidecar");
    sidecar.id = strictJson::required<std::string>(in, "id");
    sidecar.startedAt = requiredTime(in, "startedAt");
    sidecar.endedAt = optionalTime(in, "endedAt");
    sidecar.source = strictJson::required<RecordingSource>(in, "source");
    sidecar.microphoneName = strictJson::optional<std::string>(in, "microphoneName");
    sidecar.channelLayout =
        valueOr<std::string>(in, "channelLayout", std::string(RecordingChannelLayout::stereoMicrophoneAndSystem));
    sidecar.segments = valueOr<std::vector<RecordingSidecar::Segment>>(in, "segments", {});
    sidecar.status = valueOr<std::string>(in, "status", "");
    sidecar.systemSideSilent = valueOr<bool>(in, "systemSideSilent", false);
    sidecar.micSideSilent = valueOr<bool>(in, "micSideSilent", false);
    sidecar.levels = strictJson::optional<RecordingSidecar::LevelsSummary>(in, "levels");
    sidecar.submittedParts = strictJson::optional<std::vector<std::string>>(in, "submittedParts");
    sidecar.reconstructed = strictJson::optional<bool>(in, "reconstructed");
    sidecar.echoCancellation = strictJson::optional<std::string>(in, "echoCancellation");
    sidecar.outputKind = strictJson::optional<std::string>(in, "outputKind");
    sidecar.appVersion = valueOr<std::string>(in, "appVersion", "");
}

RecordingSidecar RecordingSidecar::decode(std::string_view text)
{
    json document;
    try {
        document = json::parse(text);
    } catch (const json::exception& error) {
        throw JsonDecodeError(std::string("a recording sidecar must be JSON: ") + error.what());
    }
    return strictJson::decode<RecordingSidecar>(document, "sidecar");
}

std::string RecordingSidecar::encode() const
{
    return json(*this).dump(2, ' ', false, json::error_handler_t::replace) + "\n";
}

} // namespace quillet
