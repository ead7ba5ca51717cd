#include "quillet_capture/service/BackfillSync.hpp"

#include "quillet_capture/capture/FilenameNormaliser.hpp"
#include "quillet_capture/runtime/MainLoop.hpp"

#include "tests/service/ServiceTestSupport.hpp"
#include "tests/support/LogLines.hpp"

#include <nlohmann/json.hpp>


#include <thread>

namespace quillet {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using Progress = BackfillSync::Progress;

// A library on the fake service: listing pages of the given items and a detail answer for
// each key (an answer queued for "sources/<key>" wins over the generated one).
struct BackfillSyncTest : test::ServiceFixture {
    fs::path vault = home.path() / "vault";
    fs::path inbox = vault / "_inbox";
    json library = json::array();
    std::map<std::string, json> results;  // key -> "result" object of its detail
    std::thread::id testThread = std::this_thread::get_id();
    bool reportsOffThread = false;

    BackfillSyncTest()
    {
        fake.route("GET", "sources", [this](const test::FakeVeldane::Request& request) {
            // Pages of two items, so that the listing is read page by page.
            std::size_t page = request.queryItem("before") ? std::stoul(*request.queryItem("before")) : 0;
            json files = json::array();
            for (std::size_t i = page * 2; i < library.size() && i < page * 2 + 2; ++i) {
                files.push_back(library[i]);
            }
            bool more = (page + 1) * 2 < library.size();
            json body = {{"files", files}, {"count", files.size()}, {"has_more", more}};
            if (more) {
                body["next_cursor"] = std::to_string(page + 1);
            }
            return Answer::json(body.dump());
        });
        fake.fallback([this](const test::FakeVeldane::Request& request) {
            std::string key = request.endpoint.substr(std::string("sources/").size());
            auto found = results.find(key);
            if (request.method != "GET" || !request.endpoint.starts_with("sources/") || found == results.end()) {
                return Answer::json(R"({"detail":"not found"})", 404);
            }
            return Answer::json(json{{"success", true}, {"cache_key", key}, {"result", found->second}}.dump());
        });
    }

    enum class Text { generated, none };

    void add(const std::string& key, json item = json::object(), json result = json::object(),
             Text text = Text::generated)
    {
        item["cache_key"] = key;
        library.push_back(item);
        if (text == Text::generated && !result.contains("text")) {
            result["text"] = "Transcript of " + key;
        }
        results[key] = result;
    }

    // A note that carries the cache key `key`.
    void writeKeyedNote(const std::string& name, const std::string& key)
    {
        writeNote(name, "---\nid: " + name + "\nsource:\n  external_id: " + key + "\n---\n\nkept\n");
    }

    BackfillSync makeSync() { return BackfillSync(client, InboxWriter(vault), clock); }

    // Runs the sync to its end and returns its reports, delivered on this thread's main loop.
    std::vector<Progress> run(BackfillSync& sync)
    {
        std::vector<Progress> reports;
        auto record = [this, &reports](const Progress& progress) {
            if (std::this_thread::get_id() != testThread) {
                reportsOffThread = true;
            }
            reports.push_back(progress);
        };
        test::await(sync.run(record));
        auto& loop = runtime::mainContext();
        loop.restart();
        loop.poll();
        EXPECT_FALSE(reportsOffThread);
        return reports;
    }

    std::vector<Progress> run()
    {
        auto sync = makeSync();
        return run(sync);
    }

    std::vector<std::string> detailRequests() const
    {
        std::vector<std::string> keys;
        for (const auto& request : fake.requests()) {
            if (request.endpoint.starts_with("sources/")) {
                keys.push_back(request.endpoint.substr(8));
            }
        }
        return keys;
    }

    std::vector<std::string> notes() const
    {
        std::vector<std::string> names;
        std::error_code error;
        for (fs::directory_iterator it(inbox, error); !error && it != fs::directory_iterator(); it.increment(error)) {
            if (it->is_regular_file()) {
                names.push_back(it->path().filename().string());
            }
        }
        std::sort(names.begin(), names.end());
        return names;
    }

    static std::string idOf(double seconds)
    {
        return recordingCanonicalID(std::chrono::system_clock::time_point(std::chrono::seconds(long(seconds))));
    }

    void writeNote(const std::string& name, const std::string& text) { test::writeFile(inbox / name, text); }
};

TEST_F(BackfillSyncTest, BringsDownWhatTheVaultLacksAndReportsEachStep)
{
    add("k1", {{"created_at", 1714555800.0}}, {{"text", "First transcript"}, {"llm_title", "Standup: notes"},
                                               {"duration", 61.9}});
    add("k2", {{"created_at", 1714555900.0}, {"is_deleted", true}});
    add("k3", {{"created_at", 1714556000.0}});
    add("k4", {{"created_at", 1714556100.0}});
    add("k5", {{"created_at", 1714556200.0}, {"is_deleted", false}});
    // k3 is in the vault already; so is a note for the deleted k2.
    writeKeyedNote("old.md", "k3");
    writeKeyedNote("gone.md", "k2");

    auto reports = run();
    EXPECT_EQ(reports, (std::vector<Progress>{
                           Progress::listing(),
                           Progress::syncing(0, 3),
                           Progress::syncing(1, 3),
                           Progress::syncing(2, 3),
                           Progress::syncing(3, 3),
                           Progress::finished(3, 1, 0),
                       }));
    // Deleted items are never fetched; items are fetched one after another, in listing order.
    EXPECT_EQ(detailRequests(), (std::vector<std::string>{"k1", "k4", "k5"}));
    for (const auto& listing : fake.requests("GET", "sources")) {
        EXPECT_FALSE(listing.queryItem("include_deleted"));
    }

    std::string id = idOf(1714555800.0);
    EXPECT_EQ(test::readFile(inbox / (id + ".md")),
              "---\n"
              "id: " + id + "\n"
              "created: 2024-05-01T09:30:00Z\n"
              "classification: voice_memo\n"
              "status: pending\n"
              "confidence: high\n"
              "source:\n"
              "  type: audio\n"
              "  origin: veldane_backfill\n"
              "  audio_path: _inbox/.audio/" + id + ".m4a\n"
              "  audio_duration_sec: 61\n"
              "  ingestion_tool: quillet-mac\n"
              "  external_id: k1\n"
              "  vd_job_status: done\n"
              "target_skill: /transcript\n"
              "title: \"Standup: notes\"\n"
              "tags: [voice-memo, quillet-backfill]\n"
              "---\n"
              "\n"
              "First transcript");
    EXPECT_FALSE(fs::exists(inbox / ".audio" / (id + ".m4a")));  // no audio is downloaded
    EXPECT_EQ(notes(), (std::vector<std::string>{idOf(1714555800.0) + ".md", idOf(1714556100.0) + ".md",
                                                 idOf(1714556200.0) + ".md", "gone.md", "old.md"}));

    auto log = test::logMessages();
    EXPECT_EQ(std::count(log.begin(), log.end(), "[quillet] BackfillSync: total_remote=5 already_local=1 to_fetch=3"),
              1)
        << ::testing::PrintToString(log);

    // A second run finds every note through its cache key and writes nothing.
    fake.reset();
    EXPECT_EQ(run(), (std::vector<Progress>{Progress::listing(), Progress::syncing(0, 0), Progress::finished(0, 4, 0)}));
    EXPECT_TRUE(detailRequests().empty());
    EXPECT_EQ(notes().size(), 5u);
}

TEST_F(BackfillSyncTest, DatesAndBodiesFollowWhatTheSourceCarries)
{
    const double second = 1714555800.0;
    add("same-a", {{"created_at", second}});
    add("same-b", {{"created_at", second + 0.4}});  // the same second: base, then base_2
    add("by-stamp", {{"created_at", 0}, {"timestamp", second + 60}}, {{"llm_summary", "Summary"}}, Text::none);
    add("undated", json::object(), json::object(), Text::none);
    add("empty-text", {{"timestamp", second + 120}}, {{"text", ""}, {"llm_summary", "not used"}});
    add("far-future", {{"created_at", 1e300}, {"timestamp", second + 180}});

    auto reports = run();
    ASSERT_EQ(reports.back(), Progress::finished(6, 0, 0));

    std::string base = idOf(second);
    EXPECT_EQ(InboxWriter::readFrontmatter(inbox / (base + ".md")).externalId, "same-a");
    EXPECT_EQ(InboxWriter::readFrontmatter(inbox / (base + "_2.md")).externalId, "same-b");
    EXPECT_EQ(InboxWriter::readFrontmatter(inbox / (base + "_2.md")).id, base + "_2");
    EXPECT_EQ(InboxWriter::readFrontmatter(inbox / (base + "_2.md")).audioPath, "_inbox/.audio/" + base + "_2.m4a");

    auto stamped = inbox / (idOf(second + 60) + ".md");
    EXPECT_EQ(InboxWriter::readFrontmatter(stamped).externalId, "by-stamp");
    EXPECT_EQ(InboxWriter::readBody(stamped), "Summary");

    // Neither time: dated now, on the sync's clock; neither text nor summary.
    auto undated = inbox / (recordingCanonicalID(clock.now()) + ".md");
    ASSERT_TRUE(fs::exists(undated));
    EXPECT_EQ(InboxWriter::readFrontmatter(undated).created, clock.now());
    EXPECT_EQ(InboxWriter::readBody(undated), "(no transcript content available)");
    EXPECT_FALSE(InboxWriter::readFrontmatter(undated).title);
    EXPECT_FALSE(InboxWriter::readFrontmatter(undated).audioDurationSec);

    // Presence decides, not emptiness.
    EXPECT_EQ(InboxWriter::readBody(inbox / (idOf(second + 120) + ".md")), "");
    // A creation time beyond any date falls back to the time stamp.
    EXPECT_EQ(InboxWriter::readFrontmatter(inbox / (idOf(second + 180) + ".md")).externalId, "far-future");
}

TEST_F(BackfillSyncTest, PresentKeysComeOnlyFromReadableMarkdownNotes)
{
    writeKeyedNote("a.md", "key-a");
    writeKeyedNote("b.MD", "key-b");
    writeNote("c.md", "no frontmatter at all\n  external_id: key-c\n");
    writeKeyedNote("d.md", "\"\"");
    writeKeyedNote("e.txt", "key-e");
    writeKeyedNote("f.md", "key-f");
    fs::create_directories(inbox / "g.md");
    auto sync = makeSync();
    EXPECT_EQ(sync.readExistingExternalIDs(), (std::set<std::string>{"key-a", "key-f"}));

    EXPECT_EQ(BackfillSync(client, InboxWriter(home.path() / "nowhere"), clock).readExistingExternalIDs(),
              std::set<std::string>{});
    EXPECT_EQ(sync.uniqueID("a"), "a_2");
    // b.MD is another file where names differ by case; on a volume that ignores case (macOS's
    // default) it is b.md, and the id moves on.
    const bool caseSensitive = !fs::exists(inbox / "b.md");
    EXPECT_EQ(sync.uniqueID("b"), caseSensitive ? "b" : "b_2");
    writeNote("a_2.md", "");
    writeNote("a_3.md", "");
    EXPECT_EQ(sync.uniqueID("a"), "a_4");

    // A note without frontmatter does not stop the sync; its key is fetched again.
    add("key-c", {{"created_at", 1714555800.0}});
    EXPECT_EQ(run().back(), Progress::finished(1, 0, 0));
}

TEST_F(BackfillSyncTest, AFailedItemIsCountedAndTheOthersGoOn)
{
    add("k1", {{"created_at", 1714555800.0}});
    add("k2", {{"created_at", 1714555900.0}});
    add("k3", {{"created_at", 1714556000.0}});
    add("k4", {{"created_at", 1714556100.0}});
    fake.enqueue("GET", "sources/k2", Answer::json("upstream down", 500));
    fake.enqueue("GET", "sources/k3", Answer::json(R"({"success":true,"result":{}})"));

    auto reports = run();
    EXPECT_EQ(reports.back(), Progress::finished(2, 0, 2));
    EXPECT_EQ(reports[reports.size() - 2], Progress::syncing(4, 4));
    EXPECT_EQ(detailRequests(), (std::vector<std::string>{"k1", "k2", "k3", "k4"}));
    EXPECT_EQ(notes(), (std::vector<std::string>{idOf(1714555800.0) + ".md", idOf(1714556100.0) + ".md"}));
    EXPECT_EQ(test::countLogLines("[quillet] BackfillSync: failed cache_key=k2 err=VD request failed (500): upstream down"),
              1);
    EXPECT_EQ(test::countLogLines("[quillet] BackfillSync: failed cache_key=k3 err=VD response malformed: source: "), 1);

    // The failed ones are fetched again by the next run.
    fake.reset();
    EXPECT_EQ(run().back(), Progress::finished(2, 2, 0));
}

TEST_F(BackfillSyncTest, AnInboxThatCannotBeWrittenFailsEveryItem)
{
    add("k1", {{"created_at", 1714555800.0}});
    add("k2", {{"created_at", 1714555900.0}});
    // A file where the inbox folder should be: nothing can be listed or written there.
    test::writeFile(inbox, "not a folder");
    auto reports = run();
    EXPECT_EQ(reports.back(), Progress::finished(0, 0, 2));
    EXPECT_EQ(test::countLogLines("[quillet] BackfillSync: failed cache_key=k1 err="), 1);
    EXPECT_EQ(test::countLogLines("[quillet] BackfillSync: failed cache_key=k2 err="), 1);
    EXPECT_EQ(test::readFile(inbox), "not a folder");
}

TEST_F(BackfillSyncTest, CancellingStopsBeforeTheNextItem)
{
    for (int i = 0; i < 4; ++i) {
        add("k" + std::to_string(i), {{"created_at", 1714555800.0 + i * 100}});
    }
    auto sync = makeSync();
    // The cancel arrives while the second item is being fetched: that item is still finished.
    fake.route("GET", "sources/k1", [this, &sync](const test::FakeVeldane::Request&) {
        sync.isCancelled = true;
        return Answer::json(json{{"success", true}, {"cache_key", "k1"}, {"result", results["k1"]}}.dump());
    });
    auto reports = run(sync);
    EXPECT_EQ(reports.back(), Progress::finished(2, 0, 0));
    EXPECT_EQ(reports[reports.size() - 2], Progress::syncing(2, 4));
    EXPECT_EQ(detailRequests(), (std::vector<std::string>{"k0", "k1"}));
    EXPECT_EQ(test::countLogLines("[quillet] BackfillSync: cancelled at 2/4"), 1);
}

} // namespace
} // namespace quillet
