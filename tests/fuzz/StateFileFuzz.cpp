// Fuzzes the state file's reader and writer.
//
// Properties checked besides "no crash, no sanitizer report":
// - any text that decodes encodes to a text that decodes to the same state, and encoding that
//   again gives the same text (so loading and persisting never drifts or loses entries);
// - migration keeps every entry and always gives version 2 from version 1;
// - a state made of arbitrary bytes (names that are not UTF-8, control characters) always
//   encodes to a text that decodes again, since an undecodable file would lose the whole state;
// - the text the store keeps in step change by change always equals a fresh encoding;
// - the legacy watcher list reader never fails on any text.

#include "quillet_capture/pipeline/CaptureStateMigration.hpp"
#include "quillet_capture/pipeline/CaptureStateStore.hpp"

#include <fuzzer/FuzzedDataProvider.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

using namespace quillet;
using State = CaptureStateStore::State;

namespace {

void check(bool condition, const char* what)
{
    if (!condition) {
        std::fprintf(stderr, "property failed: %s\n", what);
        std::abort();
    }
}

void checkDecodedText(std::string_view text)
{
    auto state = CaptureStateStore::decode(text);
    if (!state) {
        return;
    }
    auto encoded = CaptureStateStore::encode(*state);
    auto again = CaptureStateStore::decode(encoded);
    check(again.has_value(), "an encoded state decodes");
    check(*again == *state, "decode(encode(state)) == state");
    check(CaptureStateStore::encode(*again) == encoded, "encoding is stable");

    auto migrated = CaptureStateMigration::migrate(*state);
    if (state->version <= 1) {
        check(migrated.version == 2, "version 1 becomes 2");
        check(migrated.voiceMemosSeen.empty(), "the old set is emptied");
        for (const auto& [name, entry] : state->voiceMemosSeen) {
            check(migrated.seenByFolder.at("voice-memos").contains(name), "no old entry is lost");
        }
    } else {
        check(migrated == *state, "later versions are left alone");
    }
    for (const auto& [folder, set] : state->seenByFolder) {
        for (const auto& [name, entry] : set) {
            check(migrated.seenByFolder.at(folder).at(name) == entry, "entries of the new sets are kept");
        }
    }
}

void checkArbitraryState(const uint8_t* data, size_t size)
{
    FuzzedDataProvider input(data, size);
    State state;
    state.version = input.ConsumeIntegral<int64_t>();
    int entries = input.ConsumeIntegralInRange(0, 12);
    for (int i = 0; i < entries && input.remaining_bytes() > 0; ++i) {
        auto folder = input.ConsumeRandomLengthString(16);
        auto name = input.ConsumeRandomLengthString(24);
        auto id = input.ConsumeRandomLengthString(16);
        // Dates as the store keeps them: whole seconds within the years it can write.
        auto seconds = input.ConsumeIntegralInRange<int64_t>(-9'000'000'000LL, 9'000'000'000LL);
        State::SeenEntry entry{CaptureStateStore::TimePoint(std::chrono::seconds(seconds)), id};
        if (input.ConsumeBool()) {
            state.voiceMemosSeen[name] = entry;
        } else {
            state.seenByFolder[folder][name] = entry;
        }
    }
    auto decoded = CaptureStateStore::decode(CaptureStateStore::encode(state));
    check(decoded.has_value(), "any state encodes to a decodable text");
    check(decoded->version == state.version, "the version survives");
    check(decoded->totalEntries() <= state.totalEntries(), "no entries appear from nowhere");
}

void checkTextKeptInStep(const uint8_t* data, size_t size)
{
    FuzzedDataProvider input(data, size);
    // A few names and folders, so that the changes meet the same entries again.
    std::vector<std::string> names, folders;
    for (int i = 0; i < 6; ++i) {
        names.push_back(input.ConsumeRandomLengthString(12));
    }
    for (int i = 0; i < 2; ++i) {
        folders.push_back(input.ConsumeRandomLengthString(6));
    }
    State state;
    CaptureStateStore::EncodedState encoded;
    encoded.reset(state);
    while (input.remaining_bytes() > 0) {
        const auto& folder = folders[input.ConsumeIntegralInRange<size_t>(0, folders.size() - 1)];
        const auto& name = names[input.ConsumeIntegralInRange<size_t>(0, names.size() - 1)];
        switch (input.ConsumeIntegralInRange(0, 2)) {
        case 0: {
            auto seconds = input.ConsumeIntegralInRange<int64_t>(-9'000'000'000LL, 9'000'000'000LL);
            state.seenByFolder[folder][name] = {CaptureStateStore::TimePoint(std::chrono::seconds(seconds)),
                                                input.ConsumeRandomLengthString(8)};
            encoded.entrySet(state, folder, name);
            break;
        }
        case 1:
            if (auto set = state.seenByFolder.find(folder); set != state.seenByFolder.end() && set->second.erase(name)) {
                encoded.entryRemoved(state, folder, name);
            }
            break;
        default:
            state.seenByFolder[folder].clear();
            encoded.folderChanged(state, folder);
            break;
        }
        check(encoded.text(state) == CaptureStateStore::encode(state), "the kept text equals a fresh encoding");
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    std::string_view text(reinterpret_cast<const char*>(data), size);
    checkDecodedText(text);
    CaptureStateMigration::legacyProcessedNames(text);
    checkArbitraryState(data, size);
    checkTextKeptInStep(data, size);
    return 0;
}
