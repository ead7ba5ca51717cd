#include "tests/e2e/CaptureAgentHarness.hpp"

#include "quillet_capture/capture/FilenameNormaliser.hpp"
#include "quillet_capture/pipeline/CaptureStateStore.hpp"
#include "quillet_capture/platform/Paths.hpp"
#include "quillet_capture/util/AtomicFile.hpp"
#include "quillet_capture/vault/InboxWriter.hpp"

#include "tests/support/LogLines.hpp"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <mutex>
#include <random>
#include <set>
#include <string>
#include <thread>

namespace quillet {
namespace {

namespace fs = std::filesystem;
using test::CaptureAgentHarness;

int environmentNumber(const char* name, int fallback)
{
    const char* value = std::getenv(name);
    return value != nullptr && *value != '\0' ? std::atoi(value) : fallback;
}

// Where the agent was when it was killed, judged by its last log message of that run.
std::string phaseOf(const std::string& message)
{
    static const std::pair<const char*, const char*> kPhases[] = {
        {"transcript written", "after a transcript"},
        {"is done in VD", "fetching a transcript"},
        {"uploaded; cache_key", "polling"},
        {"already in VD library", "polling"},
        {"resumed (polling", "polling"},
        {"resumed (uploading again)", "uploading"},
        {"new file --", "handing over / copying / uploading"},
        {"replacing its audio and transcribing it again", "replacing a grown recording's copy"},
        {"grew after its capture --", "handing over a grown recording"},
        {"changed after it was captured", "waiting for a grown recording to settle"},
        {"has no note yet", "recovering the intake"},
        {"will be tried again", "waiting to try a failed capture again"},
        {"again (", "trying a failed capture again"},
        {"was edited in Voice Memos", "handing over an edited recording"},
        {"is the Voice Memos recording", "meeting a recording's other file"},
        {"renamed in Voice Memos", "giving a note its new title"},
        {"Voice Memos library", "reading the Voice Memos library"},
        {"deferring", "guarding"},
        {"resuming", "resuming"},
        {"coordinator started", "waiting for the first tick / guarding"},
        {"access ->", "listing the folder at the first tick"},
        {"initial index complete", "indexing"},
        {"capture pipeline: started", "starting"},
        {"run ", "starting"},
    };
    for (const auto& [text, phase] : kPhases) {
        if (message.find(text) != std::string::npos) {
            return phase;
        }
    }
    return "other";
}

// Kills the agent with SIGKILL at random moments while recordings arrive, restarts it each
// time, and then lets a last run finish everything. Whatever the moments, every recording must
// end with exactly one note and one identical audio copy, transcribed, with no temporary file
// left and every file of the program still readable. The number of kills is
// QUILLET_CRASH_KILLS (a handful in the ordinary suite; scripts/crash-test runs 200), the
// random seed QUILLET_CRASH_SEED (printed, so a failing run can be repeated).
// The person's edit of a random note of the inbox, made as an editor saves (truncate and
// write): a key of their own after the opening "---" and a line at the end; what was added is
// kept in `edits` to be found again at the end.
void personEdits(CaptureAgentHarness& agent, std::mt19937& random, std::map<std::string, std::vector<std::string>>& edits)
{
    std::vector<fs::path> notes;
    std::error_code error;
    for (const auto& entry : fs::directory_iterator(agent.inbox(), error)) {
        auto name = entry.path().filename().string();
        if (name.ends_with(".md") && !name.ends_with(".transcript.md") && !name.starts_with(".")) {
            notes.push_back(entry.path());
        }
    }
    if (notes.empty()) {
        return;
    }
    const auto note = notes[random() % notes.size()];
    auto text = test::readFile(note);
    if (!text.starts_with("---\n")) {
        return;
    }
    const std::string id = note.stem().string();
    const std::string key = "reviewed_" + std::to_string(edits[id].size()) + ": by me\n";
    const std::string line = "Words typed during kill " + std::to_string(random() % 100000) + ".";
    text.insert(4, key);
    text += "\n" + line + "\n";
    int fd = ::open(note.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC);
    if (fd < 0) {
        return;
    }
    bool written = ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    ::close(fd);
    if (written) {
        edits[id].push_back(key.substr(0, key.size() - 1));
        edits[id].push_back(line);
    }
}

TEST(CrashConsistency, EveryRecordingIsCapturedOnceWhereverTheAgentIsKilled)
{
    const int kills = environmentNumber("QUILLET_CRASH_KILLS", 6);
    const unsigned seed = static_cast<unsigned>(environmentNumber("QUILLET_CRASH_SEED", std::random_device{}()));
    std::printf("[ crash    ] %d kills, seed %u\n", kills, seed);
    std::mt19937 random(seed);
    auto chance = [&](double p) { return std::uniform_real_distribution<double>(0, 1)(random) < p; };
    auto uniform = [&](double low, double high) { return std::uniform_real_distribution<double>(low, high)(random); };

    CaptureAgentHarness agent(seed);
    // Slow answers, so that kills land while an upload or a transcript is on the wire.
    agent.setPace({.uploadMin = 0.2, .uploadMax = 1.5, .statusMin = 0, .statusMax = 0.3, .sourceMin = 0,
                   .sourceMax = 0.8, .processingPolls = 2});
    agent.setPollInterval(3);
    // Some uploads are refused, so that kills also land while the agent tries failed captures
    // again by itself (a minute of its schedule lasts a second here).
    agent.setRetryMinute(1);
    std::atomic<bool> refusing{true};
    std::mt19937 refusals(seed + 1);
    std::mutex refusalsLock;
    agent.setFault([&](const CaptureAgentHarness::Request& request) -> std::optional<CaptureAgentHarness::Answer> {
        std::lock_guard guard(refusalsLock);
        if (refusing && request.method == "POST" && request.endpoint == "sources" && refusals() % 4 == 0) {
            return CaptureAgentHarness::Answer::json("storage full", 507);
        }
        return std::nullopt;
    });
    for (int i = 0; i < 3; ++i) {
        agent.dropHistory(i);
    }
    agent.library();

    int next = 100;
    std::map<std::string, std::vector<std::string>> edits;  // note id -> lines the person added
    std::map<std::string, int> phases;
    int midUpload = 0;
    int leftoverKills = 0;
    std::size_t logSeen = 0;
    const auto started = std::chrono::steady_clock::now();

    for (int kill = 0; kill < kills; ++kill) {
        // New recordings arrive from the first start on, before the first index has ended too
        // (only what was there before the first start is history). The guards take 2 s per
        // new file and an agent lives about 4 s here, so recordings arrive about as fast as a
        // killed agent can take them in.
        bool indexed = agent.indexed();
        if (kill > 0 && (chance(0.25) || kill == 1 || kill == 3)) {
            int batch = 1 + static_cast<int>(random() % 2);
            for (int i = 0; i < batch; ++i) {
                // Some are large, so that copies take long enough for kills to land in them.
                std::size_t padding = chance(0.3) ? 2u << 20 : 0;
                if (chance(0.25)) {
                    agent.dropSlowly(next++, uniform(1, 4), padding);
                } else if (chance(0.35)) {
                    // As a current iPhone keeps it: a .qta that the Voice Memos library lists.
                    agent.dropListed(next, "Memo " + std::to_string(next), padding);
                    ++next;
                } else {
                    agent.drop(next++, padding);
                }
            }
        }
        // A recording captured before the kill grows (a sync that had not finished it): the
        // kills then also land while its copy is replaced and it is transcribed again.
        if (kill > 1 && chance(0.3)) {
            agent.growCaptured(chance(0.3) ? 1u << 20 : 4096);
        }
        // The library changes under it too: a listed recording gets its .m4a beside its
        // .qta (never a second capture) or a new title.
        if (kill > 1 && chance(0.3)) {
            agent.joinTwin();
        }
        if (kill > 1 && chance(0.2)) {
            agent.renameListed("Renamed before kill " + std::to_string(kill));
        }
        agent.start();
        // Early kills hit the start (index, intake recovery, resume); later ones anything,
        // up to a first tick with its guards, uploads and a few status polls.
        double delay = !indexed || chance(0.2) ? uniform(0, 0.25) : uniform(0.25, 9);
        if (chance(0.2)) {
            // A recording that arrives while the agent runs, perhaps while it indexes.
            double first = uniform(0, delay);
            std::this_thread::sleep_for(std::chrono::duration<double>(first));
            agent.drop(next++);
            delay -= first;
        }
        if (chance(0.5)) {
            // The person edits a note while the agent may be writing its status or transcript:
            // a key of their own at the top of the block and a line under the text.
            double first = uniform(0, delay);
            std::this_thread::sleep_for(std::chrono::duration<double>(first));
            delay -= first;
            personEdits(agent, random, edits);
        }
        std::this_thread::sleep_for(std::chrono::duration<double>(delay));
        bool uploading = agent.uploadsInFlight() > 0;
        agent.kill();
        midUpload += uploading ? 1 : 0;

        auto messages = test::logMessages();
        std::string last = messages.size() > logSeen ? messages.back() : "";
        logSeen = messages.size();
        std::string phase = uploading      ? "uploading (request on the wire)"
                            : last.empty() ? "starting, before its first log line"
                                           : phaseOf(last);
        ++phases[phase == "other" ? "other <" + last.substr(0, 100) + ">" : phase];
        // The recorded upload bodies are not needed and would pile up.
        agent.service().reset();
        if (!CaptureAgentHarness::leftovers(agent.vault()).empty() ||
            !CaptureAgentHarness::leftovers(agent.stateFolder()).empty()) {
            ++leftoverKills;
        }
    }
    agent.waitForWriters();
    if (agent.recordings().empty()) {
        agent.drop(next++);
    }
    const double killing = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();

    // The last run is left alone until everything is done. Waiting for its start keeps the
    // final stop from landing while the process is still being loaded, before it can handle it.
    refusing = false;
    ASSERT_TRUE(agent.startAndWait());
    const double budget = 60 + 3.0 * static_cast<double>(agent.recordings().size());
    bool done = agent.waitUntilAllDone(budget);
    EXPECT_EQ(agent.stop(), 0);
    const double total = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();

    std::printf("[ crash    ] %d kills in %.0f s, %zu recordings, %d uploads, %.0f s in all\n", kills, killing,
                agent.recordings().size(), agent.uploadCount(), total);
    std::printf("[ crash    ] kills with an upload on the wire: %d; kills that left a temporary file: %d\n", midUpload,
                leftoverKills);
    for (const auto& [phase, count] : phases) {
        std::printf("[ crash    ]   killed while %s: %d\n", phase.c_str(), count);
    }
    // Which captures are not done, expectConsistent names.
    auto output = agent.agentOutput();
    EXPECT_TRUE(done) << "not every capture was done after " << budget << " s; agent output:\n"
                      << output.substr(output.size() > 20000 ? output.size() - 20000 : 0);
    agent.expectConsistent(true);
    for (const auto& [id, lines] : edits) {
        auto text = test::readFile(agent.inbox() / (id + ".md"));
        for (const auto& line : lines) {
            EXPECT_NE(text.find(line), std::string::npos) << "the person's \"" << line << "\" is gone from\n" << text;
        }
    }
}

// Two recordings that begin in the same second get one canonical id: Voice Memos names the
// second with a hex suffix, and a sync that dates files by their arrival gives a whole batch
// one second. Each must still be captured on its own, with its own copy, note and transcript.
TEST(CrashConsistency, RecordingsOfTheSameSecondAreEachCapturedOnce)
{
    CaptureAgentHarness agent(7);
    auto synced = agent.watchSyncedFolder();
    agent.dropHistory(0);
    ASSERT_TRUE(agent.startAndWait());

    std::set<std::string> contents;
    auto put = [&](const fs::path& file, std::optional<fs::file_time_type> modified = std::nullopt) {
        std::string bytes = agent.fixture() + "recording " + file.filename().string();
        contents.insert(bytes);
        CaptureAgentHarness::place(file, bytes, modified);
    };
    put(agent.memos() / "20240301 090000.m4a");
    put(agent.memos() / "20240301 090000-3F2A9C1B.m4a");
    auto arrival = std::chrono::time_point_cast<std::chrono::seconds>(fs::file_time_type::clock::now()) -
                   std::chrono::hours(1);
    put(synced / "talk one.m4a", arrival);
    put(synced / "talk two.m4a", arrival);
    put(synced / "talk three.wav", arrival);

    auto allDone = [&] {
        auto ids = agent.noteIds();
        return ids.size() == 5 && std::all_of(ids.begin(), ids.end(), [&](const std::string& id) {
                   try {
                       return InboxWriter::readFrontmatter(agent.inbox() / (id + ".md")).vdJobStatus == "done";
                   } catch (const std::exception&) {
                       return false;
                   }
               });
    };
    bool done = test::eventually(allDone, 60);
    EXPECT_EQ(agent.stop(), 0);
    ASSERT_TRUE(done) << agent.agentOutput();

    auto ids = agent.noteIds();
    EXPECT_TRUE(ids.contains("240301-090000") && ids.contains("240301-090000_2")) << ::testing::PrintToString(ids);
    std::set<std::string> copies;
    for (const auto& id : ids) {
        copies.insert(test::readFile(agent.inbox() / ".audio" / (id + ".m4a")));
        EXPECT_NE(InboxWriter::readBody(agent.inbox() / (id + ".md")).find(CaptureAgentHarness::transcriptOf(id)),
                  std::string::npos);
    }
    EXPECT_EQ(copies, contents) << "every recording has its own copy";
    auto state = CaptureStateStore::decode(*readWholeFile(Paths::stateFile()));
    ASSERT_TRUE(state);
    std::set<std::string> seenIds;
    for (const auto& [folder, entries] : state->seenByFolder) {
        for (const auto& [name, entry] : entries) {
            if (!name.starts_with('.') && name != "20240301 080000.m4a") {
                EXPECT_TRUE(seenIds.insert(entry.canonicalId).second) << name << " shares " << entry.canonicalId;
            }
        }
    }
    EXPECT_EQ(seenIds, ids);
}

} // namespace
} // namespace quillet
