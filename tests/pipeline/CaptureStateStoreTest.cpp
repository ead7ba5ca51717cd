#include "quillet_capture/pipeline/CaptureStateStore.hpp"

#include "quillet_capture/pipeline/CaptureStateMigration.hpp"
#include "quillet_capture/util/Iso8601.hpp"
#include "tests/support/FakeClock.hpp"
#include "tests/support/LogLines.hpp"
#include "tests/support/Scratch.hpp"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <sys/stat.h>

#include <algorithm>
#include <random>
#include <filesystem>
#include <thread>

namespace quillet {
namespace {

namespace fs = std::filesystem;
using State = CaptureStateStore::State;
using Entry = State::SeenEntry;
using TimePoint = CaptureStateStore::TimePoint;

TimePoint at(const char* text)
{
    return *Iso8601::parse(text);
}

// A scratch home (so that the log lands in it) with the store's two files inside.
struct StoreFixture {
    test::ScratchHome home;
    fs::path storePath = home.path() / "support/quillet/state.json";
    fs::path legacyPath = home.path() / ".voice_memo_watcher_state.json";
    test::FakeClock clock{at("2024-05-01T09:30:00Z")};

    std::unique_ptr<CaptureStateStore> open()
    {
        return std::make_unique<CaptureStateStore>(storePath, legacyPath, clock);
    }

    void writeStateFile(const std::string& text)
    {
        fs::create_directories(storePath.parent_path());
        test::writeFile(storePath, text);
    }

    // The file decoded; its text must also be exactly the encoding of what it holds.
    State onDisk()
    {
        auto text = test::readFile(storePath);
        auto state = CaptureStateStore::decode(text).value();
        EXPECT_EQ(text, CaptureStateStore::encode(state));
        return state;
    }
};

// --- the operations, and that each change is on disk when it returns ------------------------

TEST(CaptureStateStore, EveryChangeIsOnDiskWhenTheCallReturns)
{
    StoreFixture f;
    auto store = f.open();

    store->markSeen("240131 142530.m4a", "240131-142530");
    EXPECT_TRUE(f.onDisk().seenByFolder.at("voice-memos").contains("240131 142530.m4a"));

    store->markSeen("b.wav", "", "phone", at("2024-06-01T10:00:00Z"));
    auto disk = f.onDisk();
    EXPECT_EQ(disk.seenByFolder.at("phone").at("b.wav"), (Entry{at("2024-06-01T10:00:00Z"), ""}));
    EXPECT_EQ(disk, store->state());

    EXPECT_EQ(store->forget({"240131 142530.m4a"}), 1u);
    disk = f.onDisk();
    EXPECT_FALSE(disk.seenByFolder.at("voice-memos").contains("240131 142530.m4a"));
    EXPECT_EQ(disk, store->state());

    // A second store on the same file sees exactly what the first one had.
    auto reopened = f.open();
    EXPECT_EQ(reopened->state(), store->state());
}

TEST(CaptureStateStore, LookupsCountsAndReplacementArePerFolder)
{
    StoreFixture f;
    f.clock.advance(std::chrono::milliseconds(1500));
    auto store = f.open();
    // Fresh: empty, and nothing is written until a change.
    EXPECT_EQ(store->state(), State{});
    EXPECT_EQ(store->state().version, 2);
    EXPECT_EQ(store->seenCount(), 0u);
    EXPECT_FALSE(store->hasSeen("a.m4a"));
    EXPECT_FALSE(fs::exists(f.storePath));
    EXPECT_TRUE(test::logMessages().empty());

    store->markSeen("a.m4a", "id-a");
    store->markSeen("a.m4a", "id-a2", "phone");
    store->markSeen("b.m4a", "id-b", "phone");
    EXPECT_TRUE(store->hasSeen("a.m4a"));
    EXPECT_TRUE(store->hasSeen("a.m4a", "voice-memos"));
    EXPECT_FALSE(store->hasSeen("b.m4a"));
    EXPECT_TRUE(store->hasSeen("b.m4a", "phone"));
    EXPECT_FALSE(store->hasSeen("a.m4a", "nowhere"));
    EXPECT_EQ(store->seenCount("voice-memos"), 1u);
    EXPECT_EQ(store->seenCount("phone"), 2u);
    EXPECT_EQ(store->seenCount("nowhere"), 0u);
    EXPECT_EQ(store->seenCount(), 3u);
    // Without a time the clock's, in whole seconds.
    EXPECT_EQ(store->state().seenByFolder.at("voice-memos").at("a.m4a").firstSeen, at("2024-05-01T09:30:01Z"));

    // Marking again replaces the entry.
    store->markSeen("a.m4a", "new", "voice-memos", at("2024-02-02T00:00:00Z"));
    EXPECT_EQ(f.onDisk().seenByFolder.at("voice-memos").at("a.m4a"), (Entry{at("2024-02-02T00:00:00Z"), "new"}));
    EXPECT_EQ(store->seenCount(), 3u);
}

TEST(CaptureStateStore, ForgetAlwaysLeavesTheFolderIndexed)
{
    StoreFixture f;
    auto store = f.open();
    store->markSeen("a.m4a", "a", "phone");

    EXPECT_EQ(store->forget({"not-there.m4a"}, "phone"), 0u);
    auto set = f.onDisk().seenByFolder.at("phone");
    EXPECT_EQ(set.at(".quillet-index-done"), (Entry{f.clock.now(), ""}));
    EXPECT_TRUE(set.contains("a.m4a"));

    // A folder it never knew gets only the marker.
    EXPECT_EQ(store->forget({"x.m4a"}, "fresh"), 0u);
    EXPECT_EQ(store->seenCount("fresh"), 1u);
    EXPECT_TRUE(store->hasSeen(".quillet-index-done", "fresh"));

    // Names listed twice count once.
    EXPECT_EQ(store->forget({"a.m4a", "a.m4a"}, "phone"), 1u);
    EXPECT_EQ(store->seenCount("phone"), 1u);
}

TEST(CaptureStateStore, FirstIndexMarksEveryFileAndTheMarkerInOneWrite)
{
    StoreFixture f;
    auto store = f.open();
    store->markIndexed({{"1.m4a", "240101-000001"}, {"2.m4a", "240101-000002"}, {"odd name.m4a", ""}}, "phone",
                       at("2024-03-03T03:03:03Z"));
    EXPECT_EQ(store->seenCount("phone"), 4u);
    auto set = f.onDisk().seenByFolder.at("phone");
    EXPECT_EQ(set.size(), 4u);
    EXPECT_EQ(set.at("2.m4a"), (Entry{at("2024-03-03T03:03:03Z"), "240101-000002"}));
    EXPECT_EQ(set.at(".quillet-index-done"), (Entry{at("2024-03-03T03:03:03Z"), ""}));

    // An empty folder still counts as indexed afterwards.
    store->markIndexed({}, "empty");
    EXPECT_EQ(store->seenCount("empty"), 1u);
}

TEST(CaptureStateStore, ConcurrentCallersLoseNothing)
{
    StoreFixture f;
    auto store = f.open();
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&store, t] {
            for (int i = 0; i < 8; ++i) {
                store->markSeen("t" + std::to_string(t) + "-" + std::to_string(i) + ".m4a", "id",
                                t % 2 ? "voice-memos" : "phone");
                EXPECT_TRUE(store->hasSeen("t" + std::to_string(t) + "-0.m4a", t % 2 ? "voice-memos" : "phone"));
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(store->seenCount(), 32u);
    EXPECT_EQ(f.onDisk(), store->state());
}

// --- the file's text -------------------------------------------------------------------------

TEST(CaptureStateStoreFile, PrettySortedAndIso8601)
{
    State state;
    state.seenByFolder["voice-memos"]["b.m4a"] = {at("2024-05-01T09:30:00Z"), "240501-093000"};
    state.seenByFolder["voice-memos"]["a.m4a"] = {at("2024-05-01T09:31:00Z"), ""};
    state.seenByFolder["empty"];
    EXPECT_EQ(CaptureStateStore::encode(state),
              "{\n"
              "  \"seenByFolder\": {\n"
              "    \"empty\": {},\n"
              "    \"voice-memos\": {\n"
              "      \"a.m4a\": {\n"
              "        \"canonicalId\": \"\",\n"
              "        \"firstSeen\": \"2024-05-01T09:31:00Z\"\n"
              "      },\n"
              "      \"b.m4a\": {\n"
              "        \"canonicalId\": \"240501-093000\",\n"
              "        \"firstSeen\": \"2024-05-01T09:30:00Z\"\n"
              "      }\n"
              "    }\n"
              "  },\n"
              "  \"version\": 2,\n"
              "  \"voiceMemosSeen\": {}\n"
              "}");
}

TEST(CaptureStateStoreFile, TextIsWhatTheJsonLibraryWouldPrintAndReadsBack)
{
    State state;
    state.version = 1;
    auto& set = state.seenByFolder["f\"o\\lder"];
    set["quote\" back\\slash"] = {at("1999-12-31T23:59:59Z"), "tab\there"};
    set["ctl \x01\x1f\x7f \b\f\n\r"] = {at("2000-02-29T12:00:00Z"), ""};
    set["unicode \xC3\xA5\xE2\x80\xA8\xF0\x9F\x8E\x99"] = {at("2038-01-19T03:14:08Z"), "\xE6\x97\xA5"};
    // What the captured file was, kept to tell another file under its name apart.
    set["captured.m4a"] = {at("2024-03-01T08:00:00Z"), "240301-080000", "592044:1709280000123456789:4242"};
    // What a file skipped as too short was when judged, to judge it again once it changes.
    set["short.wav"] = {at("2024-03-01T08:00:01Z"), "", "", "4844:1709280000123456789:4243:1709280001000000000:2049"};
    state.voiceMemosSeen["old.m4a"] = {at("1970-01-01T00:00:00Z"), "z"};

    auto text = CaptureStateStore::encode(state);
    EXPECT_EQ(text, nlohmann::json::parse(text).dump(2));
    EXPECT_EQ(CaptureStateStore::decode(text), state);
}

TEST(CaptureStateStoreFile, EveryAsciiCharacterAnywhereInANameIsWrittenRight)
{
    // Names are scanned eight bytes at a time; a character that needs an escape must be seen
    // in every lane of that scan and in the tail after it.
    for (int c = 0; c < 0x80; ++c) {
        for (size_t pos = 0; pos < 20; ++pos) {
            std::string name(20, 'a');
            name[pos] = static_cast<char>(c);
            State state;
            state.seenByFolder["f"][name] = {at("2024-01-01T00:00:00Z"), name.substr(pos)};
            auto text = CaptureStateStore::encode(state);
            auto parsed = nlohmann::json::parse(text, nullptr, false);
            ASSERT_FALSE(parsed.is_discarded()) << c << " at " << pos;
            ASSERT_EQ(text, parsed.dump(2)) << c << " at " << pos;
            ASSERT_TRUE(parsed["seenByFolder"]["f"].contains(name)) << c << " at " << pos;
        }
    }
}

TEST(CaptureStateStoreFile, NamesThatAreNotUtf8StillGiveAReadableFile)
{
    State state;
    // A lone continuation byte, a truncated sequence, an overlong form, a surrogate, and a
    // code point above U+10FFFF.
    for (const char* name : {"a\x80.m4a", "b\xE2\x82.m4a", "c\xC0\xAF.m4a", "d\xED\xA0\x80.m4a", "e\xF4\x90\x80\x80.m4a"}) {
        state.seenByFolder["voice-memos"][name] = {at("2024-01-01T00:00:00Z"), ""};
    }
    auto decoded = CaptureStateStore::decode(CaptureStateStore::encode(state));
    ASSERT_TRUE(decoded.has_value());
    EXPECT_EQ(decoded->seenByFolder.at("voice-memos").size(), 5u);
    EXPECT_TRUE(decoded->seenByFolder.at("voice-memos").contains("a\xEF\xBF\xBD.m4a"));
}

TEST(CaptureStateStoreFile, TextKeptInStepChangeByChangeEqualsAFreshEncoding)
{
    // Random sets and removals over a small pool of names (so that entries are replaced and
    // removed often), with names that sort first and last, need escapes, are not UTF-8, or
    // are prefixes of each other.
    const std::vector<std::string> pool = {
        "a.m4a", "a.m4a.m4a", "b \"quoted\".m4a", "back\\slash", "\xC3\xA5ngstr\xC3\xB6m.m4a", "z-last",
        "!first", "bad \x80 byte", "bad \x81 byte", "", ".quillet-index-done", "tab\there"};
    const std::vector<std::string> folders = {"voice-memos", "phone", "f\"x"};
    std::mt19937 random(12345);
    State state;
    CaptureStateStore::EncodedState encoded;
    encoded.reset(state);
    for (int step = 0; step < 3000; ++step) {
        const auto& folder = folders[random() % folders.size()];
        const auto& name = pool[random() % pool.size()];
        switch (random() % 5) {
        case 0:
        case 1:
        case 2:
            state.seenByFolder[folder][name] = {TimePoint(std::chrono::seconds(1'700'000'000 + random() % 1000)),
                                                std::to_string(random() % 3),
                                                random() % 2 ? "" : std::to_string(random() % 1000) + ":1:2",
                                                random() % 3 ? "" : std::to_string(random() % 1000) + ":1:2:3:4"};
            encoded.entrySet(state, folder, name);
            break;
        case 3:
            if (auto set = state.seenByFolder.find(folder); set != state.seenByFolder.end() && set->second.erase(name)) {
                encoded.entryRemoved(state, folder, name);
            }
            break;
        default:
            if (random() % 50 == 0) {
                state.seenByFolder[folder].clear();
                encoded.folderChanged(state, folder);
            }
            break;
        }
        ASSERT_EQ(encoded.text(state), CaptureStateStore::encode(state)) << "step " << step;
    }
}

TEST(CaptureStateStoreFile, TimesAreWrittenAsIso8601Formats)
{
    // The store formats dates itself, for speed; it must agree with the shared formatter.
    for (long long seconds : {0LL, 951782400LL, 1709210096LL, 4102444799LL, -86401LL, 7258118400LL}) {
        State state;
        auto time = std::chrono::system_clock::from_time_t(seconds);
        state.seenByFolder["f"]["n"] = {time, ""};
        auto text = CaptureStateStore::encode(state);
        EXPECT_NE(text.find("\"firstSeen\": \"" + Iso8601::format(time) + "\""), std::string::npos) << text;
    }
}

TEST(CaptureStateStoreFile, DecodingAcceptsTheOptionalKeysAndRejectsWrongShapes)
{
    auto decode = [](const std::string& text) { return CaptureStateStore::decode(text); };
    EXPECT_EQ(decode("{}")->version, 1);
    EXPECT_EQ(decode(R"({"version": null, "seenByFolder": null, "voiceMemosSeen": null, "extra": [1]})")->version, 1);
    EXPECT_EQ(decode(R"({"version": 7})")->version, 7);
    auto entry = decode(R"({"seenByFolder": {"f": {"n": {"firstSeen": "2024-05-01T11:30:00.75+02:00",
                                                        "canonicalId": "x", "more": true}}}})");
    ASSERT_TRUE(entry.has_value());
    EXPECT_EQ(entry->seenByFolder.at("f").at("n"), (Entry{at("2024-05-01T09:30:00Z"), "x"}));
    // Files written before skipped files were kept as judged load as they were, and "judged" loads.
    auto judged = decode(R"({"seenByFolder": {"f": {"n": {"firstSeen": "2024-05-01T09:30:00Z", "canonicalId": "",
                                                         "judged": "12:3:4:5:6"}}}})");
    ASSERT_TRUE(judged.has_value());
    EXPECT_EQ(judged->seenByFolder.at("f").at("n"), (Entry{at("2024-05-01T09:30:00Z"), "", "", "12:3:4:5:6"}));

    for (const char* bad : {
             "", "   ", "null", "[]", "\"state\"", "{", "{\"version\": 2,", "\xff\xfe{}",
             R"({"version": "2"})", R"({"version": 2.5})", R"({"version": 18446744073709551615})",
             R"({"seenByFolder": []})", R"({"seenByFolder": {"f": []}})", R"({"seenByFolder": {"f": null}})",
             R"({"seenByFolder": {"f": {"n": {"canonicalId": "x"}}}})",
             R"({"seenByFolder": {"f": {"n": {"firstSeen": "2024-05-01T09:30:00Z"}}}})",
             R"({"seenByFolder": {"f": {"n": {"firstSeen": "yesterday", "canonicalId": "x"}}}})",
             R"({"seenByFolder": {"f": {"n": {"firstSeen": 1714555800, "canonicalId": "x"}}}})",
             R"({"seenByFolder": {"f": {"n": {"firstSeen": "2024-05-01T09:30:00Z", "canonicalId": 5}}}})",
             R"({"voiceMemosSeen": {"n": "2024-05-01T09:30:00Z"}})",
             "{\"seenByFolder\": {\"f\xff\": {}}}",
         }) {
        EXPECT_FALSE(decode(bad).has_value()) << bad;
    }
}

TEST(CaptureStateStoreFile, DatesBeyondTheClockArePinnedNotOverflowed)
{
    auto decoded = CaptureStateStore::decode(R"({"seenByFolder": {"f": {
        "old": {"firstSeen": "0001-01-01T00:00:00Z", "canonicalId": ""},
        "far": {"firstSeen": "9999-12-31T23:59:59Z", "canonicalId": ""},
        "bad": {"firstSeen": "0001-13-01T00:00:00Z", "canonicalId": ""}}}})");
    EXPECT_FALSE(decoded.has_value()) << "month 13 is no date in any year";

    decoded = CaptureStateStore::decode(R"({"seenByFolder": {"f": {
        "old": {"firstSeen": "0001-01-01T00:00:00Z", "canonicalId": ""},
        "far": {"firstSeen": "9999-12-31T23:59:59Z", "canonicalId": ""}}}})");
    ASSERT_TRUE(decoded.has_value());
    auto& set = decoded->seenByFolder.at("f");
    EXPECT_EQ(Iso8601::format(set.at("old").firstSeen), "1678-01-01T00:00:00Z");
    EXPECT_EQ(Iso8601::format(set.at("far").firstSeen), "2261-12-31T23:59:59Z");
    EXPECT_EQ(CaptureStateStore::decode(CaptureStateStore::encode(*decoded)), decoded);
}

// --- loading: broken files, migration, the legacy watcher ------------------------------------

// A state file that cannot be read is never overwritten: it is kept beside, under a name of
// its own even when another was kept in the same second, and the log says where.
TEST(CaptureStateStoreLoad, BrokenFileIsKeptAsideAndTheStoreStartsFresh)
{
    for (const char* broken : {"{\"seenByFolder\": {\"voice-memos\": {\"a.m4a\": {\"firstS", "garbage\x01\x02",
                               R"({"seenByFolder": {"voice-memos": {"a.m4a": {"firstSeen": 3}}}})", ""}) {
        StoreFixture f;
        auto aside = f.storePath.string() + ".unreadable-2024-05-01T093000Z";
        std::size_t logged = 0;
        for (const auto& kept : {aside, aside + "-2"}) {
            f.writeStateFile(broken);
            auto store = f.open();
            EXPECT_EQ(store->state(), State{}) << broken;
            EXPECT_FALSE(fs::exists(f.storePath)) << "nothing is written before a change";
            EXPECT_EQ(test::readFile(kept), broken);
            auto lines = test::logMessages();
            ASSERT_EQ(lines.size(), ++logged);
            EXPECT_EQ(lines.back(), "[quillet] capture: state file " + f.storePath.string() + " cannot be read; kept it as " +
                                    kept +
                                    " and started afresh (recordings that arrived since their folder was first "
                                    "watched are captured unless the vault has them)");

            store->markSeen("b.m4a", "b");
            EXPECT_EQ(f.onDisk(), store->state());
        }
        EXPECT_EQ(test::readFile(aside), broken) << "a kept file is never overwritten";
    }
}

TEST(CaptureStateStoreLoad, AStateFolderThatIsAFileMakesWritesFailWithALogLine)
{
    StoreFixture f;
    test::writeFile(f.home.path() / "support", "not a folder");
    auto store = f.open();
    store->markSeen("a.m4a", "a");
    EXPECT_TRUE(store->hasSeen("a.m4a")) << "memory stays the truth";
    auto lines = test::logMessages();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_TRUE(lines[0].starts_with("[quillet] capture: state persist failed: ")) << lines[0];
}

TEST(CaptureStateStoreLoad, VersionOneIsMigratedLoggedAndRewritten)
{
    StoreFixture f;
    f.writeStateFile(R"({
        "version": 1,
        "voiceMemosSeen": {
            "A.m4a": {"firstSeen": "2023-01-01T00:00:00Z", "canonicalId": "a"},
            "B.m4a": {"firstSeen": "2023-01-02T00:00:00Z", "canonicalId": "b-old-set"}
        },
        "seenByFolder": {
            "voice-memos": {"B.m4a": {"firstSeen": "2023-06-01T00:00:00Z", "canonicalId": "b"}},
            "phone": {"C.m4a": {"firstSeen": "2023-06-02T00:00:00Z", "canonicalId": "c"}}
        }
    })");
    auto store = f.open();
    auto state = store->state();
    EXPECT_EQ(state.version, 2);
    EXPECT_TRUE(state.voiceMemosSeen.empty());
    const auto& memos = state.seenByFolder.at("voice-memos");
    EXPECT_EQ(memos.size(), 2u);
    EXPECT_EQ(memos.at("A.m4a"), (Entry{at("2023-01-01T00:00:00Z"), "a"}));
    EXPECT_EQ(memos.at("B.m4a"), (Entry{at("2023-06-01T00:00:00Z"), "b"}));
    EXPECT_EQ(state.seenByFolder.at("phone").size(), 1u);
    EXPECT_EQ(test::logMessages(), std::vector<std::string>{"[quillet] capture: migrated state v1 -> v2 (3 entries)"});
    EXPECT_EQ(f.onDisk(), state);
}

TEST(CaptureStateStoreLoad, AFileWithoutVersionIsVersionOne)
{
    StoreFixture f;
    f.writeStateFile(R"({"voiceMemosSeen": {"A.m4a": {"firstSeen": "2023-01-01T00:00:00Z", "canonicalId": ""}}})");
    EXPECT_TRUE(f.open()->hasSeen("A.m4a"));
    EXPECT_EQ(test::logMessages(), std::vector<std::string>{"[quillet] capture: migrated state v1 -> v2 (1 entries)"});
    EXPECT_EQ(f.onDisk().version, 2);
}

TEST(CaptureStateStoreLoad, VersionTwoIsLoadedWithoutWritingOrLogging)
{
    StoreFixture f;
    // Compact, unsorted text: any write would change it.
    std::string text = R"({"version":2,"voiceMemosSeen":{},"seenByFolder":{"voice-memos":{"a.m4a":{"canonicalId":"a","firstSeen":"2024-01-01T00:00:00Z"}}}})";
    f.writeStateFile(text);
    struct stat before {};
    ASSERT_EQ(::stat(f.storePath.c_str(), &before), 0);
    test::writeFile(f.legacyPath, R"({"processed": ["never-read.m4a"]})");
    auto store = f.open();
    EXPECT_TRUE(store->hasSeen("a.m4a"));
    EXPECT_FALSE(store->hasSeen("never-read.m4a"));
    struct stat after {};
    ASSERT_EQ(::stat(f.storePath.c_str(), &after), 0);
    EXPECT_EQ(before.st_ino, after.st_ino);
    EXPECT_EQ(test::readFile(f.storePath), text);
    EXPECT_TRUE(test::logMessages().empty());
}

TEST(CaptureStateStoreLoad, LegacyWatcherListIsImported)
{
    StoreFixture f;
    test::writeFile(f.legacyPath, R"({"processed": ["240101 101010.m4a", "240102 101010.m4a"], "other": 1})");
    auto store = f.open();
    auto state = store->state();
    EXPECT_EQ(state.version, 2);
    const auto& memos = state.seenByFolder.at("voice-memos");
    EXPECT_EQ(memos.size(), 2u);
    EXPECT_EQ(memos.at("240101 101010.m4a"), (Entry{f.clock.now(), ""}));
    EXPECT_EQ(test::logMessages(), std::vector<std::string>{"[quillet] capture: migrating 2 entries from voice-memo-watcher state"});
    EXPECT_EQ(f.onDisk(), state);
    EXPECT_EQ(test::readFile(f.legacyPath), R"({"processed": ["240101 101010.m4a", "240102 101010.m4a"], "other": 1})");
}

TEST(CaptureStateStoreLoad, LegacyFileIsImportedWhenTheStateFileIsBroken)
{
    StoreFixture f;
    f.writeStateFile("{broken");
    test::writeFile(f.legacyPath, R"({"processed": ["x.m4a"]})");
    auto store = f.open();
    EXPECT_TRUE(store->hasSeen("x.m4a"));
    EXPECT_EQ(f.onDisk(), store->state());
}

TEST(CaptureStateStoreLoad, UnusableLegacyFilesAreIgnoredWhole)
{
    for (const char* legacy : {R"({"processed": ["a.m4a", 3, "b.m4a"]})", R"({"processed": "a.m4a"})",
                               R"({"done": ["a.m4a"]})", R"(["a.m4a"])", "{\"processed\": [\"a.m4a\"", ""}) {
        StoreFixture f;
        test::writeFile(f.legacyPath, legacy);
        auto store = f.open();
        EXPECT_EQ(store->state(), State{}) << legacy;
        EXPECT_FALSE(fs::exists(f.storePath)) << legacy;
        EXPECT_TRUE(test::logMessages().empty()) << legacy;
    }
}

// --- migration as pure functions -------------------------------------------------------------

TEST(CaptureStateMigration, LaterVersionsAreLeftAloneAndRepeatsKeepOneEntry)
{
    State state;
    state.version = 3;
    state.voiceMemosSeen["a"] = {at("2024-01-01T00:00:00Z"), ""};
    EXPECT_EQ(CaptureStateMigration::migrate(state), state);

    State empty;
    empty.version = 1;
    empty.seenByFolder["phone"]["p"] = {at("2024-01-01T00:00:00Z"), "p"};
    auto migrated = CaptureStateMigration::migrate(empty);
    EXPECT_EQ(migrated.version, 2);
    EXPECT_EQ(migrated.seenByFolder, empty.seenByFolder);
    EXPECT_FALSE(migrated.seenByFolder.contains("voice-memos"));

    auto legacy = CaptureStateMigration::fromLegacyPythonState({"a", "b", "a"}, at("2024-01-01T00:00:00Z"));
    EXPECT_EQ(legacy.version, 2);
    EXPECT_EQ(legacy.seenByFolder.at("voice-memos").size(), 2u);
    EXPECT_TRUE(legacy.voiceMemosSeen.empty());
}

// The file keeps a name that is not UTF-8 with U+FFFD for each stray byte. The store looks
// names up in that same form, so a store read back at the next start still knows the file
// (which would otherwise be captured again after every restart).
TEST(CaptureStateStoreNames, ANameThatIsNotUtf8IsStillSeenAfterARestart)
{
    StoreFixture f;
    const std::string name = "memo \xff\xfe.m4a";
    {
        auto store = f.open();
        store->markSeen(name, "240131-142530", "phone");
        store->markIndexed({{"old \x80.m4a", ""}}, "phone");
        EXPECT_TRUE(store->hasSeen(name, "phone"));
    }
    auto again = f.open();
    EXPECT_TRUE(again->hasSeen(name, "phone"));
    EXPECT_TRUE(again->hasSeen("old \x80.m4a", "phone"));
    EXPECT_TRUE(again->holdsCanonicalId("240131-142530"));
    EXPECT_FALSE(again->hasSeen("memo .m4a", "phone"));
    EXPECT_EQ(again->forget({name}, "phone"), 1u);
    EXPECT_FALSE(again->hasSeen(name, "phone"));
    EXPECT_TRUE(again->state().seenByFolder.at("phone").contains("old \xEF\xBF\xBD" "80.m4a"))
        << "the stray byte is kept as U+FFFD and its hex digits";
}

} // namespace
} // namespace quillet
