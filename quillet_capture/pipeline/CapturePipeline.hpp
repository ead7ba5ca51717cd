#pragma once

#include "quillet_capture/capture/FolderWatcher.hpp"
#include "quillet_capture/runtime/Clock.hpp"
#include "quillet_capture/runtime/Timer.hpp"
#include "quillet_capture/service/VeldaneClient.hpp"
#include "quillet_capture/vault/InboxWriter.hpp"

#include <asio/awaitable.hpp>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace quillet {

class CaptureCoordinator;
class CaptureIdentities;
class CaptureIntake;
class CaptureRecovery;
class CaptureStateStore;
class CaptureVaults;

/// Carries each new recording from the watched folder to a transcribed note: settles its id,
/// claims it, copies the audio into the vault, writes the stub note, uploads the audio, follows
/// the service until the transcript exists and writes it into the note. Each capture runs as
/// its own asynchronous task; the claim set is the one guard against handling an id twice,
/// whichever of watcher, resume or retry offers it.
class CapturePipeline {
public:
    /// What the host is told about a capture's progress.
    struct CaptureEvent {
        enum class Kind { sent, transcriptReady, failed };
        Kind kind;
        std::string id;
        std::string status;  // the job status word of a failure; empty otherwise
    };

    /// Everything the pipeline reads from outside. The agent's comes from the settings, the
    /// token store and the after-transcript command; tests supply their own.
    struct Environment {
        std::function<std::filesystem::path()> vaultRoot;
        std::function<bool()> uploadsEnabled;
        std::function<std::vector<WatchedFolder>()> watchedFolders;
        std::function<std::string()> baseURL;
        /// Called after each transcript written, with the id and the note's file.
        std::function<void(const std::string& id, const std::filesystem::path& note)> transcriptWritten;
        runtime::Clock* clock = &runtime::systemClock();
        VeldaneClient::Timeouts timeouts = {};
        /// The journal of handed-over captures without a note yet, and the seen-set they
        /// belong to; none: no recovery.
        CaptureIntake* intake = nullptr;
        CaptureStateStore* store = nullptr;
        /// Where failed captures wait for the agent to try them again; none: they wait for
        /// `retry` or the next start.
        CaptureRecovery* recovery = nullptr;
        /// Which capture each Voice Memos recording became; none: a recovered capture's
        /// identity is not recorded again.
        CaptureIdentities* identities = nullptr;
        /// The vault of each unfinished capture, across runs; none: kept for this pipeline's
        /// life only.
        CaptureVaults* vaults = nullptr;
    };

    /// The upload profile of a capture sent again.
    struct UploadProfile {
        std::string contentSource;
        std::vector<std::string> tags;
        std::map<std::string, std::string> sourceMetadata;
    };

    static constexpr double pollTimeout = 21600;
    /// The job status of a capture waiting for the person to pair again: the service refused
    /// the device token (401).
    static constexpr const char* needsPairingStatus = "needs_pairing";
    /// Seconds between two looks, while a capture waits for a new pair, at the token store.
    static constexpr double pairCheckSeconds = 10;
    static constexpr int maxNotFoundPolls = 10;
    static constexpr const char* recordingClassification = "meeting_recording";
    static constexpr const char* recordingOrigin = "quillet_recorder";
    static constexpr const char* legacyRecordingOrigin = "pellam_recorder";
    static const std::set<std::string>& resumableStates();

    /// The agent's pipeline, fed by the shared coordinator.
    static CapturePipeline& shared();

    /// A pipeline with `environment`, fed by `coordinator` (none: only direct calls).
    CapturePipeline(Environment environment, CaptureCoordinator* coordinator);

    /// Sets the host's progress callback (called on the capture's task). Set before start.
    void setOnCaptureEvent(std::function<void(const CaptureEvent&)> callback);

    /// Hands over again the captures of the intake journal (a crash came between their
    /// hand-over and their note), subscribes to the coordinator, starts it, logs "started",
    /// resumes unfinished captures when uploads are on (but for those whose next attempt is
    /// later), and from then on tries failed captures again when their time comes. From then
    /// on too, a capture whose device token the service refuses (401) waits as
    /// `needsPairingStatus` for a new pair instead of failing. Main thread.
    void start();

    /// Tries again the failed captures whose attempt is due: hands over again those without a
    /// note, polls those with a cache key, uploads the others again one at a time.
    asio::awaitable<void> recoverDue();

    /// The recovery step of `start`: each journal entry whose file is still there is marked
    /// seen and handled again; the others are dropped.
    void recoverIntake();
    /// Stops the coordinator. Main thread.
    void stop();

    /// Handles one new recording to its end (copy, stub, upload, polling). Any executor.
    asio::awaitable<void> handle(FolderWatcher::NewCapture capture);

    /// Uploads the audio of a capture already in the vault again and starts polling it in a
    /// task of its own. True when the service accepted the upload.
    asio::awaitable<bool> uploadExisting(std::string id, std::optional<std::string> contentSource,
                                         std::optional<std::vector<std::string>> tags,
                                         std::optional<std::map<std::string, std::string>> sourceMetadata);

    /// Picks up the captures an earlier run left unfinished: polls those with a cache key and
    /// uploads the others again.
    asio::awaitable<void> resumeUnfinished();

    /// The source metadata of a recording made by the companion recorder.
    static std::map<std::string, std::string> recordingMetadata(const std::string& id, const std::string& source,
                                                                const std::string& microphone,
                                                                const std::string& channelLayout,
                                                                std::chrono::system_clock::time_point startedAt);

    /// True when `origin` names the companion recorder (current or predecessor).
    static bool isRecordingOrigin(const std::optional<std::string>& origin);

    /// The profile used to upload the capture `id` again, from its note.
    UploadProfile uploadProfile(const std::string& id) const;

    /// True when the vault holds a capture of `file` under `canonicalId` or one of the ids a
    /// twin of the same second gets ("_2" on): a note whose audio copy, if it has one, has the
    /// file's size.
    bool holdsCaptureOf(const std::string& canonicalId, const std::filesystem::path& file) const;

    /// Gives the note of `id` the title `to` that the person gave its recording in Voice
    /// Memos, if the note still holds `from`, the title this program wrote. True when settled
    /// (written, left as the person's, or the note is gone); false while the capture is not
    /// at rest (not yet written, under way, failed) or its note cannot be read, to be asked
    /// again. Any thread.
    bool retitle(const std::string& id, const std::string& from, const std::string& to);

    /// Fills in what the Voice Memos library knows of a new capture: its id and folder under
    /// "source", its title, the date it was recorded and its duration.
    static void describe(InboxWriter::Frontmatter& frontmatter, const LibraryRecording& recording);

    /// True while `id` is being handled.
    bool isClaimed(const std::string& id) const;

    /// The vault that holds the note of the capture `id`: the one its capture began in, for an
    /// unfinished capture this pipeline (or, with `Environment::vaults`, an earlier run) began,
    /// else the vault in effect now. A capture finishes where its note is, whatever vault the
    /// settings name meanwhile. Any thread.
    std::filesystem::path vaultOf(const std::string& id) const;

    /// The number of capture tasks under way (handle, resume, retry polling).
    int tasksInFlight() const { return inFlight_.load(); }

    /// Blocks until no capture task is under way or `timeout` passes; true when idle.
    bool waitUntilIdle(std::chrono::milliseconds timeout);

private:
    class Claim;
    class TaskCount;

    /// The writer of the vault in effect now, where new captures go.
    InboxWriter writer() const;
    /// The writer of the vault of the capture `id` (`vaultOf`).
    InboxWriter writer(const std::string& id) const;
    /// Records that the capture `id` began in `vault` / that it is finished.
    void keepVault(const std::string& id, const std::filesystem::path& vault);
    void forgetVault(const std::string& id);
    /// Returns once something is at the path of the inbox of the vault of `id`. While nothing
    /// is (the vault was moved away or its volume is not mounted) it waits, said in one log
    /// line, and looks again every `vaultWaitInterval`: a note is never written into a vault
    /// made anew. An inbox that is there but cannot be written is left to the write to fail.
    asio::awaitable<void> vaultPresent(std::string id);
    static constexpr std::chrono::seconds vaultWaitInterval{5};
    VeldaneClient client() const;
    bool claim(const std::string& id);
    void release(const std::string& id);
    void send(CaptureEvent::Kind kind, const std::string& id, const std::string& status = "");
    void setStatus(const std::string& id, const std::string& status);
    void recordKey(const std::string& id, const std::string& key);
    void spawnPolling(std::string id, std::string key);
    /// Records a failure of `id` for the agent to try again, and when.
    void noteFailure(const std::string& id, const std::string& reason);
    /// Arms the timer for the earliest attempt due (the agent only, after `start`).
    void scheduleRecovery();
    void forgetIntake(const FolderWatcher::NewCapture& capture);

    enum class Reopened { reopened, noNote, failed, unparseable };
    /// Makes the note of `id`, a recording that grew, pending again for its new transcript:
    /// its transcript goes, what the user wrote stays. `noNote` when there is none (a stub is
    /// written instead), `unparseable` when the note still does not parse after a few
    /// seconds (the person must fix it), `failed` when it cannot be read or written.
    asio::awaitable<Reopened> reopenNote(std::string id, bool uploadsOn);
    asio::awaitable<std::optional<std::string>> resolvedCacheKey(const VeldaneClient::UploadResult& result,
                                                                 VeldaneClient& client, const std::string& id);
    asio::awaitable<void> pollUntilDone(VeldaneClient& client, std::string id, std::string cacheKey);
    /// Marks `id` as waiting for a new pair and returns once the token store holds a token
    /// that the service has not refused, looking every `pairCheckSeconds`.
    asio::awaitable<void> waitForNewToken(std::string id);
    /// Uploads `audio`, the copy of `id`; when the service refuses the device token (and this
    /// pipeline waits for a pair), waits for a new token and uploads again. The service's
    /// answer, or the failure's text.
    struct Upload {
        std::optional<VeldaneClient::UploadResult> result;
        std::string failure;
    };
    asio::awaitable<Upload> uploadUntilRefusedForGood(VeldaneClient& service, std::string id,
                                                      std::filesystem::path audio, std::string contentSource,
                                                      std::vector<std::string> tags,
                                                      std::map<std::string, std::string> metadata);
    asio::awaitable<void> fetchTranscriptAndWrite(VeldaneClient& client, std::string id, std::string cacheKey);
    asio::awaitable<std::optional<std::string>> currentCacheKey(VeldaneClient& client, std::string id,
                                                                std::string deadKey);

    Environment environment_;
    CaptureCoordinator* coordinator_;
    std::function<void(const CaptureEvent&)> onCaptureEvent_;

    mutable std::mutex claimLock_;
    std::set<std::string> claimed_;

    mutable std::mutex vaultsLock_;
    std::map<std::string, std::filesystem::path> vaults_;

    std::mutex recoveryLock_;
    bool recoveryArmed_ = false;
    std::unique_ptr<runtime::Timer> recoveryTimer_;

    std::atomic<int> inFlight_{0};
    // Set by `start`: in the agent a capture whose token the service refused waits for the
    // next pair; a batch command (`retry`) has no one to wait for and counts it as failed.
    std::atomic<bool> waitsForPair_{false};
    std::mutex idleLock_;
    std::condition_variable idle_;
};

} // namespace quillet
