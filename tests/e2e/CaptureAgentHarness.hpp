#pragma once

#include "quillet_capture/config/AppSettings.hpp"
#include "quillet_capture/pipeline/CapturePipeline.hpp"

#include "tests/support/FakeVeldane.hpp"
#include "tests/support/LibraryFixture.hpp"
#include "tests/support/Scratch.hpp"

#include <atomic>
#include <csignal>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace quillet::test {

/// A scratch user of the capture agent, for the end-to-end tests that crash it or feed it
/// faults: a scratch home with a Voice Memos folder, a vault, settings with uploads on, a
/// token in the credentials file, and a fake Veldane service that plays a whole capture's
/// life (upload, a few "processing" answers, "completed", a transcript). Recordings are the
/// fixture with a unique free box appended, so every copy can be told apart. The built
/// `quillet-capture run` is started and stopped as a child process whose output goes to a
/// file in the home folder. The fixture runs on the test's thread; the service answers on
/// its own threads.
class CaptureAgentHarness {
public:
    using Answer = FakeVeldane::Answer;
    using Request = FakeVeldane::Request;

    /// One recording dropped into the Voice Memos folder.
    struct Recording {
        std::string name;   // "20240301 080000.m4a"
        std::string id;     // "240301-080000"
        std::string bytes;
    };

    /// Service timing, in seconds; each answer draws from its range.
    struct Pace {
        double uploadMin = 0, uploadMax = 0;
        double statusMin = 0, statusMax = 0;
        double sourceMin = 0, sourceMax = 0;
        int processingPolls = 2;  // "processing" answers before "completed"
    };

    /// A fault to play instead of the normal answer, or nothing. Called under no lock, on the
    /// service's threads.
    using Fault = std::function<std::optional<Answer>(const Request&)>;

    /// A fresh user; `seed` drives every random choice of the service.
    explicit CaptureAgentHarness(unsigned seed);
    ~CaptureAgentHarness();

    CaptureAgentHarness(const CaptureAgentHarness&) = delete;
    CaptureAgentHarness& operator=(const CaptureAgentHarness&) = delete;

    const std::filesystem::path& home() const { return home_.path(); }
    std::filesystem::path vault() const { return home_.path() / "vault"; }
    std::filesystem::path inbox() const { return vault() / "_inbox"; }
    const std::filesystem::path& memos() const { return memos_; }
    std::filesystem::path stateFolder() const;
    FakeVeldane& service() { return service_; }

    /// Rewrites the settings: the harness's own, changed by `edit`. Takes effect at the next
    /// start of the agent.
    void editSettings(const std::function<void(AppSettings&)>& edit);

    /// Makes the folder "Synced" in the home and has the agent watch it beside the Voice
    /// Memos folder (`edit` changes the settings further), polling every second, with every
    /// transcript ready at the first status poll. Returns the folder.
    std::filesystem::path watchSyncedFolder(const std::function<void(AppSettings&)>& edit = {});

    void setPace(const Pace& pace);
    void setFault(Fault fault);
    /// Sets the agent's poll interval (the test-only variable of `run`); 0 keeps the default.
    void setPollInterval(double seconds) { pollInterval_ = seconds; }
    /// Sets how many seconds a minute of the agent's schedule for trying failed captures again
    /// lasts (the test-only variable of `run`); 0 keeps real minutes.
    void setRetryMinute(int seconds) { retryMinute_ = seconds; }
    /// Sets (or, with nothing, removes) a variable of the agent's environment from its next
    /// start on.
    void setEnvironment(const std::string& name, std::optional<std::string> value) { environment_[name] = value; }

    /// The fixture recording's bytes.
    const std::string& fixture() const { return fixture_; }
    /// Writes `bytes` under a hidden name beside `file`, gives it the modification time
    /// `modified` when one is given, and renames it to `file`, so that it appears whole.
    static void place(const std::filesystem::path& file, const std::string& bytes,
                      std::optional<std::filesystem::file_time_type> modified = std::nullopt);

    /// Places a recording in the Voice Memos folder. `padding` bytes more in its free box make
    /// it larger.
    Recording drop(int index, std::size_t padding = 0);
    /// The recording that `drop(index)` would place, without placing it.
    Recording recordingFor(int index) const { return filled(index, 0); }
    /// The same into another folder (one that will become the Voice Memos folder).
    Recording dropInto(const std::filesystem::path& folder, int index, std::size_t padding = 0);
    /// Writes a recording in small pieces over about `seconds`, on a thread of its own (the
    /// guards must wait for it). `waitForWriters` joins these threads.
    Recording dropSlowly(int index, double seconds, std::size_t padding = 0);
    void waitForWriters();
    /// A recording that is already there when the agent first starts (history, never captured).
    Recording dropHistory(int index);
    /// Appends `extra` bytes to a recording that has its note already and was placed whole
    /// (a sync that had not finished it): the same recording, grown. Each grows once. False
    /// when no recording is left to grow.
    bool growCaptured(std::size_t extra);

    /// The Voice Memos library beside the recordings, made on first use.
    LibraryFixture& library();
    /// Places a recording as a current iPhone keeps it: a ".qta" file that the library lists
    /// as "REC-<index>" with `title`, in the Voice Memos folder `folder` (a Z_PK) when given
    /// (the row first, as iCloud brings it before the audio).
    Recording dropListed(int index, const std::string& title, std::size_t padding = 0,
                         std::optional<int> folder = std::nullopt);
    /// Places the ".m4a" form of a listed recording that has its note already, as Voice
    /// Memos does when it converts one: the same recording, never a capture of its own.
    /// False when none is left.
    bool joinTwin();
    /// Renames in the library a listed recording that has its note already. False when none.
    bool renameListed(const std::string& title);

    /// Starts `quillet-capture run`. At most one agent runs at a time. The first start fixes,
    /// as `setup` does, the moment each enabled folder was first watched.
    void start();
    /// Starts it and waits until its coordinator has started (its first index done), at most
    /// `seconds`; false when it did not.
    bool startAndWait(double seconds = 20);
    /// The process id of the running agent (-1 when none runs).
    int pid() const { return pid_; }
    /// SIGKILL, and waits for the end.
    void kill();
    /// SIGTERM (or `signo`: SIGINT is Ctrl-C), and waits for the end (killed after 20 s).
    /// Returns the exit status.
    int stop(int signo = SIGTERM);
    /// Everything the agents wrote to standard output and error.
    std::string agentOutput() const;

    /// True once the Voice Memos folder's first index is in the state file.
    bool indexed() const;

    /// The recordings dropped so far (history excluded), in drop order.
    std::vector<Recording> recordings() const;
    /// The ids of the notes in the inbox.
    std::set<std::string> noteIds() const;

    /// The job status of each recording's note ("" when the note is missing or unreadable).
    std::map<std::string, std::string> statuses() const;
    /// Waits until every recording is done, at most `seconds`: its copy has the recording's
    /// size (a grown recording's copy is replaced), and its note is "done" with the transcript
    /// of the recording as it is now.
    bool waitUntilAllDone(double seconds) const;

    /// The leftover temporary files anywhere under `folder`.
    static std::vector<std::filesystem::path> leftovers(const std::filesystem::path& folder);

    /// The transcript the service hands out for `id`, for the `take`th audio uploaded under
    /// it (a recording that grew is uploaded again).
    static std::string transcriptOf(const std::string& id, int take = 1);

    /// How many uploads are being answered right now, and how many were answered in all.
    int uploadsInFlight() const { return uploadsInFlight_.load(); }
    int uploadCount() const;

    /// Checks, with gtest expectations, the promise of the agent: every recording has exactly
    /// one note, which parses, and one audio copy equal to the recording; no other notes or
    /// copies exist (history is never captured, no id gets a suffix); the state file and the
    /// intake journal parse and hold every recording as seen; no temporary file is left in the
    /// vault or the state folder. With `requireDone`, every note is "done" and holds its
    /// transcript.
    void expectConsistent(bool requireDone) const;

private:
    Recording filled(int index, std::size_t padding) const;
    /// Which take of its id the service has of `recording` as it is now (0: none).
    int takeOf(const Recording& recording) const;
    Answer answer(const Request& request);
    Answer upload(const Request& request, const Pace& pace);
    double draw(double low, double high);

    ScratchHome home_;
    std::filesystem::path memos_;
    std::string fixture_;
    double pollInterval_ = 0;
    int retryMinute_ = 0;
    std::map<std::string, std::optional<std::string>> environment_;

    mutable std::mutex lock_;
    std::mt19937 random_;
    Pace pace_;
    Fault fault_;
    std::map<std::string, std::string> keyOfId_;
    std::map<std::string, int> statusPolls_;
    std::map<std::string, int> uploadsOfId_;
    std::map<std::string, std::vector<std::size_t>> takesOfId_;  // hashes of the audio uploaded
    std::set<std::string> slow_;   // recordings written slowly, by a thread
    std::set<std::string> grown_;  // recordings grown after their capture
    std::unique_ptr<LibraryFixture> library_;
    std::map<std::string, std::string> listed_;  // recordings the library lists, with their ids
    std::set<std::string> twinned_;  // listed recordings joined by their ".m4a"
    std::vector<Recording> recordings_;
    std::vector<Recording> history_;
    std::atomic<int> uploadsInFlight_{0};

    std::vector<std::thread> writers_;
    int pid_ = -1;
    long runsBefore_ = 0;  // how many starts of `run` the log held when the agent was last started

    // Last, so that it is stopped first: a request of a killed agent may still be answered,
    // and its answer reads the maps above. Connections wait up to 2 s for their request: the
    // default, about 10 ms, makes a loaded machine's slow request an empty reply, a fault the
    // tests did not ask for.
    FakeVeldane service_{FakeVeldane::Options{.keepAliveSeconds = 2}};
    bool setUp_ = false;
};

/// The environment of a capture pipeline run in the test's process, as `retry` builds it:
/// notes in `vault`, the service at `baseURL`, waits on `clock`, the Voice Memos folder watched.
CapturePipeline::Environment pipelineEnvironment(const std::filesystem::path& vault, const std::string& baseURL,
                                                 runtime::Clock& clock, VeldaneClient::Timeouts timeouts = {});

/// Runs `task` on the utility pool and waits for it, and then for the capture tasks it started.
void runToEnd(CapturePipeline& pipeline, asio::awaitable<void> task);

} // namespace quillet::test
