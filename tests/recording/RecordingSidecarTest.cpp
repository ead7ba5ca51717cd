#include "quillet_capture/platform/Paths.hpp"
#include "quillet_capture/recording/AudioOutputKind.hpp"
#include "quillet_capture/recording/EchoCancellationMode.hpp"
#include "quillet_capture/recording/RecordingConstants.hpp"
#include "quillet_capture/recording/RecordingPaths.hpp"
#include "quillet_capture/recording/RecordingSidecar.hpp"
#include "quillet_capture/util/Iso8601.hpp"

#include "tests/support/Scratch.hpp"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <functional>

namespace quillet {
namespace {

using nlohmann::json;

TEST(RecordingSource, JsonHasExactlyOneKey)
{
    EXPECT_EQ(json(RecordingSource::allAudio()).dump(), R"({"allAudio":{}})");
    EXPECT_EQ(json(RecordingSource::app("us.zoom.xos", "zoom.us")).dump(),
              R"({"app":{"bundleID":"us.zoom.xos","name":"zoom.us"}})");

    EXPECT_EQ(json::parse(R"({"allAudio":{}})").get<RecordingSource>(), RecordingSource::allAudio());
    EXPECT_EQ(json::parse(R"({"app":{"name":"Teams","bundleID":"com.microsoft.teams2"}})").get<RecordingSource>(),
              RecordingSource::app("com.microsoft.teams2", "Teams"));

    for (const char* bad : {R"({})", R"({"allAudio":{},"app":{"bundleID":"a","name":"b"}})", R"({"window":{}})",
                            R"({"app":{"bundleID":"a"}})", R"({"app":{"bundleID":1,"name":"b"}})", R"({"allAudio":true})",
                            R"("allAudio")", R"([])"}) {
        EXPECT_THROW(json::parse(bad).get<RecordingSource>(), JsonDecodeError) << bad;
    }
}

TEST(RecordingOptions, RoundTripsAndLeavesOutAbsentMicrophone)
{
    RecordingOptions options{RecordingSource::allAudio(), false, std::nullopt};
    json encoded = options;
    EXPECT_FALSE(encoded.contains("microphoneUID"));
    EXPECT_EQ(encoded.get<RecordingOptions>(), options);

    options = {RecordingSource::app("com.apple.FaceTime", "FaceTime"), true, "BuiltInMicrophoneDevice"};
    EXPECT_EQ(json(options).get<RecordingOptions>(), options);
    EXPECT_THROW(json::parse(R"({"source":{"allAudio":{}}})").get<RecordingOptions>(), JsonDecodeError);
}

TEST(RecordingEnums, RawValuesAndNames)
{
    EXPECT_EQ(echoCancellationModeFrom("automatic"), EchoCancellationMode::automatic);
    EXPECT_EQ(echoCancellationModeFrom("off"), EchoCancellationMode::off);
    EXPECT_EQ(echoCancellationModeFrom("Off"), std::nullopt);
    EXPECT_EQ(displayName(EchoCancellationMode::automatic), "Automatic (when the sound comes out of speakers)");
    EXPECT_THROW(json("sometimes").get<EchoCancellationMode>(), JsonDecodeError);

    for (auto kind : {AudioOutputKind::builtInSpeakers, AudioOutputKind::externalSpeakers, AudioOutputKind::headphones,
                      AudioOutputKind::unknown}) {
        EXPECT_EQ(audioOutputKindFrom(rawValue(kind)), kind);
    }
    EXPECT_EQ(rawValue(AudioOutputKind::builtInSpeakers), "builtInSpeakers");
    EXPECT_EQ(audioOutputKindFrom("airpods"), std::nullopt);
}

TEST(RecordingPaths, LiveUnderTheRecordingsRoot)
{
    test::ScratchHome home;
    const std::filesystem::path root = Paths::current() == Platform::macOS
                              ? home.path() / "Library/Application Support/quillet/Recordings"
                              : home.path() / ".local/share/quillet/Recordings";
    EXPECT_EQ(RecordingPaths::root(), root);
    EXPECT_EQ(RecordingPaths::workFolder("240501-093000"), root / "240501-093000");
    EXPECT_EQ(RecordingPaths::sidecarFile("240501-093000").parent_path(), RecordingPaths::workFolder("240501-093000"));
}

RecordingSidecar fullSidecar()
{
    RecordingSidecar sidecar;
    sidecar.id = "240501-093000";
    sidecar.startedAt = *Iso8601::parse("2024-05-01T09:30:00Z");
    sidecar.endedAt = *Iso8601::parse("2024-05-01T10:15:42Z");
    sidecar.source = RecordingSource::app("us.zoom.xos", "zoom.us");
    sidecar.microphoneName = "MacBook Pro Microphone";
    sidecar.channelLayout = std::string(RecordingChannelLayout::mixed);
    RecordingSidecar::Segment first;
    first.file = "part-1.m4a";
    first.startedAt = sidecar.startedAt;
    first.endedAt = *Iso8601::parse("2024-05-01T09:50:00Z");
    first.sampleRate = 48000;
    first.micDeviceName = "MacBook Pro Microphone";
    first.reason = "start";
    first.source = sidecar.source;
    first.channelLayout = std::string(RecordingChannelLayout::stereoMicrophoneAndSystem);
    first.echoCancelled = true;
    first.echoReferenceDelay = 0.042;
    RecordingSidecar::Segment second;
    second.file = "part-2.m4a";
    second.startedAt = *first.endedAt;
    second.sampleRate = 44100;
    second.reason = "deviceChanged";
    sidecar.segments = {first, second};
    sidecar.status = "finished";
    sidecar.systemSideSilent = false;
    sidecar.micSideSilent = true;
    sidecar.levels = RecordingSidecar::LevelsSummary{0.5f, 0.125f, 0.75f, 0.25f};
    sidecar.submittedParts = std::vector<std::string>{"part-1.m4a"};
    sidecar.reconstructed = false;
    sidecar.echoCancellation = "automatic";
    sidecar.outputKind = "headphones";
    sidecar.appVersion = "1.7.3";
    return sidecar;
}

TEST(RecordingSidecar, RoundTripsEveryField)
{
    auto sidecar = fullSidecar();
    auto text = sidecar.encode();
    EXPECT_EQ(RecordingSidecar::decode(text), sidecar);

    auto document = json::parse(text);
    EXPECT_EQ(document["startedAt"], "2024-05-01T09:30:00Z");
    EXPECT_EQ(document["segments"][1]["startedAt"], "2024-05-01T09:50:00Z");
    EXPECT_FALSE(document["segments"][1].contains("endedAt"));
    EXPECT_FALSE(document["segments"][1].contains("echoCancelled"));
    // Pretty-printed with sorted keys.
    EXPECT_LT(text.find("\"appVersion\""), text.find("\"channelLayout\""));
    EXPECT_NE(text.find("\n  \"id\": \"240501-093000\""), std::string::npos);
}

TEST(RecordingSidecar, MinimalSidecarGetsDefaultsAndKeepsUnknownWords)
{
    auto sidecar = RecordingSidecar::decode(R"({
        "id": "240501-093000", "startedAt": "2024-05-01T09:30:00.250+02:00", "source": {"allAudio": {}},
        "segments": [], "status": "recording", "systemSideSilent": false, "micSideSilent": false,
        "appVersion": "2.0", "echoCancellation": "adaptive", "outputKind": "hearingAid", "futureKey": 1})");
    EXPECT_EQ(sidecar.channelLayout, "L=microphone,R=system");
    EXPECT_EQ(Iso8601::format(sidecar.startedAt), "2024-05-01T07:30:00Z");
    EXPECT_EQ(sidecar.endedAt, std::nullopt);
    EXPECT_EQ(sidecar.echoCancellation, "adaptive");
    EXPECT_EQ(sidecar.outputKind, "hearingAid");
    EXPECT_EQ(echoCancellationModeFrom(*sidecar.echoCancellation), std::nullopt);

    // Written back in whole seconds, everything else unchanged.
    auto again = RecordingSidecar::decode(sidecar.encode());
    EXPECT_EQ(again.startedAt, std::chrono::floor<std::chrono::seconds>(sidecar.startedAt));
    again.startedAt = sidecar.startedAt;
    EXPECT_EQ(again, sidecar);
    EXPECT_EQ(json::parse(sidecar.encode()).count("levels"), 0u);
}

TEST(RecordingSidecar, RejectsDamagedSidecars)
{
    const std::string valid = fullSidecar().encode();
    EXPECT_THROW(RecordingSidecar::decode(valid.substr(0, valid.size() / 2)), JsonDecodeError);
    EXPECT_THROW(RecordingSidecar::decode(""), JsonDecodeError);
    EXPECT_THROW(RecordingSidecar::decode("[]"), JsonDecodeError);
    auto damaged = [&](const std::function<void(json&)>& change) {
        auto document = json::parse(valid);
        change(document);
        return document.dump();
    };
    EXPECT_THROW(RecordingSidecar::decode(damaged([](json& d) { d.erase("id"); })), JsonDecodeError);
    EXPECT_THROW(RecordingSidecar::decode(damaged([](json& d) { d["startedAt"] = "yesterday"; })), JsonDecodeError);
    EXPECT_THROW(RecordingSidecar::decode(damaged([](json& d) { d["startedAt"] = 1714555800; })), JsonDecodeError);
    EXPECT_THROW(RecordingSidecar::decode(damaged([](json& d) { d["micSideSilent"] = 1; })), JsonDecodeError);
    EXPECT_THROW(RecordingSidecar::decode(damaged([](json& d) { d["segments"][0]["sampleRate"] = "48k"; })),
                 JsonDecodeError);
    EXPECT_THROW(RecordingSidecar::decode(damaged([](json& d) { d["levels"].erase("micRMS"); })), JsonDecodeError);
    EXPECT_THROW(RecordingSidecar::decode(damaged([](json& d) { d["source"] = {{"tab", json::object()}}; })),
                 JsonDecodeError);
}

} // namespace
} // namespace quillet
