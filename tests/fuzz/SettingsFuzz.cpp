// Fuzzes the settings file's reader and writer, as the settings store uses them.
//
// Properties checked besides "no crash, no sanitizer report":
// - reading a text fails only with JsonDecodeError, or with nlohmann::json's exception when
//   the text is not JSON: whatever the file holds, the store ignores it rather than stopping;
// - a record read from a file saves to a text that reads back as the same record, and saving
//   that again gives the same text (loading and saving never drifts or loses a key);
// - any record, strings that are not UTF-8 included, saves to a text that reads back, and
//   that text is stable: a save can never make the next start ignore the whole file;
// - the derived values keep their documented bounds and fallbacks for every record;
// - trimming is idempotent and gives a part of its input.
#include "quillet_capture/config/Settings.hpp"

#include <fuzzer/FuzzedDataProvider.h>
#include <nlohmann/json.hpp>

#include <cstdint>
#include <cstdio>
#include <cstdlib>

using namespace quillet;
using nlohmann::json;

namespace {

void check(bool condition, const char* what)
{
    if (!condition) {
        std::fprintf(stderr, "property failed: %s\n", what);
        std::abort();
    }
}

std::optional<AppSettings> readChecked(std::string_view text)
{
    bool isJSON = !json::parse(text.begin(), text.end(), nullptr, false).is_discarded();
    try {
        return AppSettings::decode(text);
    } catch (const JsonDecodeError&) {
        check(isJSON, "text that is not JSON fails in the parser");
    } catch (const json::exception& error) {
        if (isJSON) {
            std::fprintf(stderr, "nlohmann::json exception from valid JSON: %s\n", error.what());
            std::abort();
        }
    } catch (const std::exception& error) {
        std::fprintf(stderr, "undocumented exception: %s\n", error.what());
        std::abort();
    }
    return std::nullopt;
}

void checkSaved(const AppSettings& settings, bool exact)
{
    auto saved = settings.encode();
    auto again = readChecked(saved);
    check(again.has_value(), "a saved record reads back");
    check(!exact || *again == settings, "a saved record reads back unchanged");
    check(again->encode() == saved, "saving is stable");
}

void checkDerived(const AppSettings& record)
{
    auto& store = Settings::shared();
    store.settings = record;
    for (auto threshold : {store.inboxGroupThreshold(), store.outboxGroupThreshold(), store.handoffGroupThreshold(),
                           store.todayGroupThreshold(), store.menuDayLimit()}) {
        check(threshold >= 1, "thresholds are at least 1");
    }
    check(store.recordingAutoStopMinutes() >= 0, "the automatic stop is never negative");
    check(store.searchDays() == record.searchDays.value_or(std::max<std::int64_t>(record.recentDays, 30)),
          "searchDays falls back to the larger of recentDays and 30");
    if (auto command = store.afterTranscriptCommand()) {
        check(!command->empty() && Settings::trimmed(*command) == *command, "the command is trimmed and not empty");
    }
    for (const auto& extension : store.includeExtensions()) {
        for (unsigned char c : extension) {
            check(!(c >= 'A' && c <= 'Z'), "extensions are lower-cased");
        }
    }
    check(store.recordingDefaultOptions().has_value() == record.recordingSource.has_value(),
          "recorder options exactly when a source is stored");
    if (record.veldaneBaseURL) {
        auto valid = Settings::validBaseURL(*record.veldaneBaseURL);
        check(!valid || *valid == *record.veldaneBaseURL, "a valid base URL is kept as written");
    }
    bool none = record.excludeFilePatterns && record.excludeFilePatterns->empty();
    for (const char* name : {"README.md", "readme.md", "note.md", ".hidden", "a/b"}) {
        check(!(none && store.isExcludedFile(name)), "an empty pattern list excludes nothing");
    }
    if (record.watchedFoldersRaw && !record.watchedFoldersRaw->empty()) {
        check(store.watchedFolders() == *record.watchedFoldersRaw, "stored folders are the watched folders");
        for (const auto& folder : *record.watchedFoldersRaw) {
            folder.effectiveExtensions();
            WatchedFolder::lastPathComponent(folder.path);
        }
    }
    store.settings = AppSettings::defaults();
}

std::optional<std::string> maybeString(FuzzedDataProvider& input)
{
    return input.ConsumeBool() ? std::optional(input.ConsumeRandomLengthString(24)) : std::nullopt;
}

template <typename T>
std::optional<T> maybe(FuzzedDataProvider& input)
{
    if (!input.ConsumeBool()) {
        return std::nullopt;
    }
    if constexpr (std::is_same_v<T, bool>) {
        return input.ConsumeBool();
    } else {
        return input.ConsumeIntegral<T>();
    }
}

std::vector<std::string> strings(FuzzedDataProvider& input)
{
    std::vector<std::string> result(input.ConsumeIntegralInRange(0, 3));
    for (auto& text : result) {
        text = input.ConsumeRandomLengthString(16);
    }
    return result;
}

// A record of arbitrary values, as setup or the menu-bar app could store them; strings may
// hold any bytes. The interval is finite: no reader or command makes another.
AppSettings arbitraryRecord(FuzzedDataProvider& input)
{
    AppSettings s;
    s.vaultPath = input.ConsumeRandomLengthString(24);
    s.vaultName = input.ConsumeRandomLengthString(16);
    s.additionalPaths = strings(input);
    s.remotesPath = maybeString(input);
    s.refreshInterval = input.ConsumeFloatingPoint<double>();
    s.recentDays = input.ConsumeIntegral<std::int64_t>();
    s.searchDays = maybe<std::int64_t>(input);
    if (input.ConsumeBool()) {
        s.timeBasis = input.PickValueInArray({TimeBasis::modification, TimeBasis::creation, TimeBasis::either});
    }
    s.maxFiles = input.ConsumeIntegral<std::int64_t>();
    s.includeExtensions = strings(input);
    s.excludeDirs = strings(input);
    if (input.ConsumeBool()) {
        s.excludeFilePatterns = strings(input);
    }
    s.captureVoiceMemosEnabled = maybe<bool>(input);
    s.captureVeldaneEnabled = maybe<bool>(input);
    s.veldaneBaseURL = maybeString(input);
    s.keepVoiceMemosRunning = maybe<bool>(input);
    if (input.ConsumeBool()) {
        s.watchedFoldersRaw.emplace(input.ConsumeIntegralInRange(0, 2));
        for (auto& folder : *s.watchedFoldersRaw) {
            folder.id = input.ConsumeRandomLengthString(12);
            folder.path = input.ConsumeRandomLengthString(24);
            folder.displayName = input.ConsumeRandomLengthString(12);
            folder.enabled = input.ConsumeBool();
            folder.extensions = strings(input);
            folder.normaliser = input.ConsumeBool() ? WatchedFolder::Normaliser::voiceMemos : WatchedFolder::Normaliser::none;
        }
    }
    s.inboxGroupThreshold = maybe<std::int64_t>(input);
    s.outboxGroupThreshold = maybe<std::int64_t>(input);
    s.handoffGroupThreshold = maybe<std::int64_t>(input);
    s.todayGroupThreshold = maybe<std::int64_t>(input);
    s.menuDayLimit = maybe<std::int64_t>(input);
    if (input.ConsumeBool()) {
        s.recordingSource = input.ConsumeBool()
                                ? RecordingSource::allAudio()
                                : RecordingSource::app(input.ConsumeRandomLengthString(16), input.ConsumeRandomLengthString(16));
    }
    s.recordingIncludeMicrophone = maybe<bool>(input);
    s.recordingMicrophoneUID = maybeString(input);
    s.recordingConsentReminder = maybe<bool>(input);
    s.recordingConsentText = maybeString(input);
    s.recordingAutoStopMinutes = maybe<std::int64_t>(input);
    s.recordingShowWindow = maybe<bool>(input);
    s.notifyTranscriptReady = maybe<bool>(input);
    s.notifyTranscriptFailed = maybe<bool>(input);
    s.notifyVoiceMemoSent = maybe<bool>(input);
    s.recordingQuickKey = maybe<bool>(input);
    if (input.ConsumeBool()) {
        s.recordingEchoCancellation = input.PickValueInArray(
            {EchoCancellationMode::automatic, EchoCancellationMode::on, EchoCancellationMode::off});
    }
    s.afterTranscriptCommand = maybeString(input);
    s.notifications = maybe<bool>(input);
    return s;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    // The store reads its file once, on first use: there is none in this home.
    setenv("HOME", "/nonexistent/quillet-settings-fuzz", 1);
    for (const char* name : {"XDG_CONFIG_HOME", "XDG_STATE_HOME", "XDG_DATA_HOME"}) {
        unsetenv(name);
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    std::string_view text(reinterpret_cast<const char*>(data), size);
    if (auto settings = readChecked(text)) {
        checkSaved(*settings, true);
        checkDerived(*settings);
    }

    auto trimmed = Settings::trimmed(text);
    check(text.find(trimmed) != std::string_view::npos, "trimming gives a part of the text");
    check(Settings::trimmed(trimmed) == trimmed, "trimming is idempotent");

    FuzzedDataProvider input(data, size);
    auto record = arbitraryRecord(input);
    checkSaved(record, false);
    checkDerived(record);
    return 0;
}
