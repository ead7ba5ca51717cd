#include "quillet_capture/pipeline/CapturePipeline.hpp"

#include "quillet_capture/capture/CaptureCoordinator.hpp"
#include "quillet_capture/capture/CollisionResolver.hpp"
#include "quillet_capture/config/Log.hpp"
#include "quillet_capture/config/Settings.hpp"
#include "quillet_capture/pipeline/AfterTranscriptCommand.hpp"
#include "quillet_capture/pipeline/CaptureIdentities.hpp"
#include "quillet_capture/pipeline/CaptureIntake.hpp"
#include "quillet_capture/pipeline/CaptureRecovery.hpp"
#include "quillet_capture/pipeline/CaptureStateStore.hpp"
#include "quillet_capture/platform/FileTimes.hpp"
#include "quillet_capture/runtime/Tasks.hpp"
#include "quillet_capture/util/Iso8601.hpp"

#include <cmath>
#include <sstream>

namespace quillet {

namespace fs = std::filesystem;

namespace {

const std::set<std::string> kFinishedDocumentStates = {"success", "completed", "done"};

// The wait before the next status question, growing with the time the capture has waited.
double backoff(double elapsedSeconds)
{
    if (elapsedSeconds < 60) {
        return 5;
    }
    if (elapsedSeconds < 600) {
        return 30;
    }
    if (elapsedSeconds < 3600) {
        return 120;
    }
    return 300;
}

bool isNotFound(const VeldaneClient::ClientError& error)
{
    return error.kind() == VeldaneClient::ClientError::Kind::requestFailed && error.status() == 404;
}

// The service declines to hand a transcript over when the account's plan does not cover it
// (402) or the key's owner is not this device (401, 403); asking again will not help, so the
// capture ends as "failed" for the retry batch. Everything else (network, 5xx, a garbled
// answer) may pass, and the note keeps its status for the next resume.
bool isRetrievalRefused(const VeldaneClient::ClientError& error)
{
    using Kind = VeldaneClient::ClientError::Kind;
    if (error.kind() == Kind::planRequired || error.kind() == Kind::missingCredentials) {
        return true;
    }
    return error.kind() == Kind::requestFailed && (error.status() == 401 || error.status() == 403);
}

int countWords(const std::string& text)
{
    std::istringstream words(text);
    int count = 0;
    for (std::string word; words >> word;) {
        ++count;
    }
    return count;
}

double secondsBetween(runtime::Clock::TimePoint from, runtime::Clock::TimePoint to)
{
    return std::chrono::duration<double>(to - from).count();
}

} // namespace

// Holds an id in the claim set for as long as it lives.
class CapturePipeline::Claim {
public:
    Claim(CapturePipeline& pipeline, std::string id)
        : pipeline_(&pipeline)
        , id_(std::move(id))
    {
    }
    Claim(Claim&& other) noexcept
        : pipeline_(std::exchange(other.pipeline_, nullptr))
        , id_(std::move(other.id_))
    {
    }
    Claim(const Claim&) = delete;
    /// Leaves the id claimed for whoever takes it over.
    void handOver() { pipeline_ = nullptr; }
    ~Claim()
    {
        if (pipeline_ != nullptr) {
            pipeline_->release(id_);
        }
    }

private:
    CapturePipeline* pipeline_;
    std::string id_;
};

// Counts a capture task for `waitUntilIdle`.
class CapturePipeline::TaskCount {
public:
    explicit TaskCount(CapturePipeline& pipeline)
        : pipeline_(pipeline)
    {
        ++pipeline_.inFlight_;
    }
    TaskCount(const TaskCount&) = delete;
    ~TaskCount()
    {
        if (--pipeline_.inFlight_ == 0) {
            std::lock_guard guard(pipeline_.idleLock_);
            pipeline_.idle_.notify_all();
        }
    }

private:
    CapturePipeline& pipeline_;
};

const std::set<std::string>& CapturePipeline::resumableStates()
{
    static const std::set<std::string> states = {"queued", "pending", "processing",
                                                 "completed", "upload_failed", "poll_timeout"};
    return states;
}

CapturePipeline& CapturePipeline::shared()
{
    static auto* pipeline = new CapturePipeline(
        Environment{
            [] { return Settings::shared().vaultURL(); },
            [] { return Settings::shared().captureVeldaneEnabled(); },
            [] { return Settings::shared().watchedFolders(); },
            [] { return Settings::shared().veldaneBaseURL(); },
            [](const std::string& id, const fs::path& note) {
                AfterTranscriptCommand::shared().transcriptWritten(
                    id, note, Settings::shared().afterTranscriptCommand().value_or(""),
                    Settings::shared().vaultURL());
            },
            &runtime::systemClock(),
            {},
            &CaptureIntake::shared(),
            &CaptureStateStore::shared(),
            &CaptureRecovery::shared(),
            &CaptureIdentities::shared(),
        },
        &CaptureCoordinator::shared());
    return *pipeline;
}

CapturePipeline::CapturePipeline(Environment environment, CaptureCoordinator* coordinator)
    : environment_(std::move(environment))
    , coordinator_(coordinator)
{
}

void CapturePipeline::setOnCaptureEvent(std::function<void(const CaptureEvent&)> callback)
{
    onCaptureEvent_ = std::move(callback);
}

void CapturePipeline::recoverIntake()
{
    if (environment_.intake == nullptr) {
        return;
    }
    for (const auto& entry : environment_.intake->entries()) {
        std::error_code error;
        if (!fs::exists(entry.source, error)) {
            rlog("[quillet] capture pipeline: %@ is gone before its note was written; dropping it", entry.name);
            environment_.intake->remove(entry.folderId, entry.name, entry.canonicalId);
            continue;
        }
        // Seen first, so that the watcher does not offer it a second time.
        if (environment_.store != nullptr && !environment_.store->hasSeen(entry.name, entry.folderId)) {
            environment_.store->markSeen(entry.name, entry.canonicalId, entry.folderId, environment_.clock->now());
        }
        rlog("[quillet] capture pipeline: %@ was handed over but has no note yet; capturing it again", entry.name);
        // Which capture the Voice Memos recording became, in case that write was lost.
        if (entry.recording && environment_.identities != nullptr) {
            auto known = environment_.identities->find(entry.recording->uniqueId);
            if (!known || known->canonicalId != entry.canonicalId) {
                environment_.identities->record(
                    {{entry.recording->uniqueId,
                      {entry.canonicalId, entry.name, entry.recording->digest, entry.recording->title}}});
            }
        }
        FolderWatcher::NewCapture capture{entry.source, entry.canonicalId, entry.timestamp,
                                          entry.folderId, entry.grown,       entry.recording};
        runtime::spawn(handle(std::move(capture)), "capture " + entry.canonicalId);
    }
}

void CapturePipeline::forgetIntake(const FolderWatcher::NewCapture& capture)
{
    if (environment_.intake != nullptr) {
        environment_.intake->remove(capture.folderId, capture.sourceURL.filename().string(), capture.canonicalId);
    }
}

void CapturePipeline::start()
{
    recoverIntake();
    if (coordinator_ != nullptr) {
        coordinator_->setVault({
            .holds =
                [this](const std::string& id, const fs::path& file) {
                    std::error_code error;
                    return file.empty() ? fs::exists(writer().noteURL(id), error) : holdsCaptureOf(id, file);
                },
            .copyOf = [this](const std::string& id) { return writer().audioURL(id); },
            .retitle = [this](const std::string& id, const std::string& from,
                              const std::string& to) { return retitle(id, from, to); },
        });
        coordinator_->setOnNewCapture([this](const FolderWatcher::NewCapture& capture) {
            // The coordinator's queue only hands over; the capture runs as a task of its own.
            runtime::spawn(handle(capture), "capture " + capture.canonicalId);
        });
        coordinator_->start();
    }
    rlog("[quillet] capture pipeline: started");
    if (environment_.uploadsEnabled()) {
        runtime::spawn(resumeUnfinished(), "resume");
    }
    {
        std::lock_guard guard(recoveryLock_);
        recoveryArmed_ = true;
    }
    scheduleRecovery();
}

void CapturePipeline::noteFailure(const std::string& id, const std::string& reason)
{
    if (environment_.recovery == nullptr) {
        return;
    }
    if (auto next = environment_.recovery->failed(id, reason)) {
        rlog("[quillet] capture pipeline: %@ will be tried again at %@ (%@)", id, Iso8601::format(*next), reason);
    } else {
        rlog("[quillet] capture pipeline: %@ failed in VD %d times; it waits for retry", id,
             CaptureRecovery::maxServiceFailures + 1);
    }
    scheduleRecovery();
}

void CapturePipeline::scheduleRecovery()
{
    if (environment_.recovery == nullptr) {
        return;
    }
    std::lock_guard guard(recoveryLock_);
    if (!recoveryArmed_) {
        return;
    }
    auto earliest = environment_.recovery->earliest();
    if (!earliest) {
        recoveryTimer_.reset();
        return;
    }
    auto delay = std::max<std::chrono::system_clock::duration>(*earliest - environment_.clock->now(), {});
    recoveryTimer_ = runtime::Timer::once(runtime::utilityExecutor(),
                                          std::chrono::duration_cast<runtime::Timer::Duration>(delay),
                                          [this] { runtime::spawn(recoverDue(), "recovery"); });
}

asio::awaitable<void> CapturePipeline::recoverDue()
{
    TaskCount counting(*this);
    auto due = environment_.recovery->takeDue(environment_.clock->now());
    auto inbox = writer();
    bool inJournal = false;
    for (const auto& id : due) {
        if (isClaimed(id)) {
            continue;  // under way: its end says what follows
        }
        // A copy or stub that failed left the capture in the intake journal: a new one
        // without a note, or one that grew with the note of what it was.
        std::error_code error;
        if (!fs::exists(inbox.noteURL(id), error) ||
            (environment_.intake != nullptr && environment_.intake->holds(id))) {
            inJournal = true;
            continue;
        }
        InboxWriter::Frontmatter frontmatter;
        try {
            frontmatter = InboxWriter::readFrontmatter(inbox.noteURL(id));
        } catch (const std::exception& failure) {
            rlog("[quillet] capture pipeline: cannot read the note of %@: %@", id, failure.what());
            noteFailure(id, "note_unreadable");
            continue;
        }
        const std::string status = frontmatter.vdJobStatus.value_or("");
        if (status == "done") {
            environment_.recovery->forget(id);
            continue;
        }
        rlog("[quillet] capture pipeline: trying %@ again (%@)", id, status);
        const auto& key = frontmatter.externalId;
        if (key && !key->empty() && status != "upload_failed" && status != "failed") {
            if (claim(id)) {
                spawnPolling(id, *key);
            }
            continue;
        }
        auto profile = uploadProfile(id);
        std::optional<std::string> source = std::move(profile.contentSource);
        std::optional<std::vector<std::string>> tags = std::move(profile.tags);
        std::optional<std::map<std::string, std::string>> metadata = std::move(profile.sourceMetadata);
        co_await uploadExisting(id, std::move(source), std::move(tags), std::move(metadata));
    }
    if (inJournal) {
        recoverIntake();
    }
    scheduleRecovery();
}

void CapturePipeline::stop()
{
    if (coordinator_ != nullptr) {
        coordinator_->stop();
    }
    rlog("[quillet] capture pipeline: stopped");
}

InboxWriter CapturePipeline::writer() const
{
    return InboxWriter(environment_.vaultRoot());
}

VeldaneClient CapturePipeline::client() const
{
    return VeldaneClient(environment_.baseURL(), *environment_.clock, environment_.timeouts);
}

bool CapturePipeline::holdsCaptureOf(const std::string& canonicalId, const fs::path& file) const
{
    auto inbox = writer();
    std::error_code error;
    auto size = fs::file_size(file, error);
    if (error) {
        return false;
    }
    // Twins take "_2", "_3" ... in turn, so the first id without a note ends the search.
    for (int n = 1; n < 1000; ++n) {
        auto id = n == 1 ? canonicalId : canonicalId + "_" + std::to_string(n);
        if (!fs::exists(inbox.noteURL(id), error)) {
            return false;
        }
        auto copy = inbox.audioURL(id);
        if (!fs::exists(copy, error) || fs::file_size(copy, error) == size) {
            return true;
        }
    }
    return false;
}

bool CapturePipeline::claim(const std::string& id)
{
    std::lock_guard guard(claimLock_);
    return claimed_.insert(id).second;
}

void CapturePipeline::release(const std::string& id)
{
    std::lock_guard guard(claimLock_);
    claimed_.erase(id);
}

bool CapturePipeline::isClaimed(const std::string& id) const
{
    std::lock_guard guard(claimLock_);
    return claimed_.contains(id);
}

bool CapturePipeline::waitUntilIdle(std::chrono::milliseconds timeout)
{
    std::unique_lock guard(idleLock_);
    return idle_.wait_for(guard, timeout, [this] { return inFlight_.load() == 0; });
}

void CapturePipeline::send(CaptureEvent::Kind kind, const std::string& id, const std::string& status)
{
    if (onCaptureEvent_) {
        onCaptureEvent_(CaptureEvent{kind, id, status});
    }
}

void CapturePipeline::setStatus(const std::string& id, const std::string& status)
{
    try {
        writer().updateVDJobStatus(id, status);
    } catch (const std::exception& error) {
        // The note may have been deleted or the vault made read-only meanwhile; the capture
        // goes on, and the next write or the next resume puts the status right.
        rlog("[quillet] capture pipeline: cannot set %@ to %@: %@", id, status, error.what());
    }
}

void CapturePipeline::recordKey(const std::string& id, const std::string& key)
{
    auto inbox = writer();
    auto note = inbox.noteURL(id);
    try {
        auto frontmatter = InboxWriter::readFrontmatter(note);
        auto body = InboxWriter::readBody(note);
        frontmatter.externalId = key;
        frontmatter.uploadedAt = environment_.clock->now();
        frontmatter.vdJobStatus = "queued";
        inbox.writeMarkdown(frontmatter, body);
    } catch (const std::exception& error) {
        rlog("[quillet] capture pipeline: cannot record cache_key for %@: %@", id, error.what());
    }
}

asio::awaitable<void> CapturePipeline::handle(FolderWatcher::NewCapture capture)
{
    TaskCount counting(*this);
    auto inbox = writer();
    std::string id = capture.canonicalId;
    if (capture.grown) {
        // A recording that grew keeps its id and its note; what is under way for it (its
        // upload, its transcript) ends first, and is then done again for the whole recording.
        while (!claim(id)) {
            co_await environment_.clock->wait(std::chrono::seconds(1));
        }
        rlog("[quillet] capture pipeline: %@ grew after its capture; replacing its audio and transcribing it again",
             id);
    } else {
        // 1. An id already taken by a recording of the companion recorder gets a suffix.
        const std::string fileId = capture.canonicalId;
        id = CollisionResolver::resolve(fileId, [&](const std::string& candidate) {
            try {
                auto existing = InboxWriter::readFrontmatter(inbox.noteURL(candidate));
                return !(existing.classification == recordingClassification ||
                         isRecordingOrigin(existing.sourceOrigin));
            } catch (const std::exception&) {
                return true;
            }
        });
        if (id != fileId) {
            rlog("[quillet] capture pipeline: %@ is a recording's id; capturing %@ as %@", fileId,
                 capture.sourceURL.filename().string(), id);
        }

        // 2. Finished work is never done again.
        try {
            auto existing = InboxWriter::readFrontmatter(inbox.noteURL(id));
            if (existing.vdJobStatus == "done") {
                rlog("[quillet] capture pipeline: %@ already has its transcript; skipping", id);
                forgetIntake(capture);
                co_return;
            }
        } catch (const std::exception&) {
        }

        // 3. One handler per id, whoever offers it.
        if (!claim(id)) {
            rlog("[quillet] capture pipeline: %@ is already being handled; skipping", id);
            co_return;
        }
    }
    Claim claimed(*this, id);

    // 4. The copy is the slow part; it runs on the blocking pool.
    std::optional<std::string> copyError;
    auto copy = [&inbox, source = capture.sourceURL, id, grown = capture.grown, &copyError] {
        try {
            inbox.ensureDirectories();
            grown ? inbox.replaceAudio(source, id) : inbox.copyAudio(source, id);
        } catch (const std::exception& error) {
            copyError = error.what();
        }
    };
    co_await runtime::blocking(std::move(copy));
    if (copyError) {
        rlog("[quillet] capture pipeline: copyAudio failed for %@: %@", id, *copyError);
        noteFailure(id, "copy_failed");
        co_return;
    }

    // 5. The stub's description.
    const bool uploadsOn = environment_.uploadsEnabled();
    std::optional<WatchedFolder> folder;
    for (auto& candidate : environment_.watchedFolders()) {
        if (candidate.id == capture.folderId) {
            folder = std::move(candidate);
            break;
        }
    }
    auto created = FileTimes::created(capture.sourceURL).value_or(capture.timestamp);
    auto frontmatter = InboxWriter::Frontmatter::forCapture(id, created);
    frontmatter.vdJobStatus = uploadsOn ? "queued" : "skipped";
    if (!folder || folder->normaliser != WatchedFolder::Normaliser::voiceMemos) {
        frontmatter.sourceType = "audio_capture";
    }
    if (folder && folder->normaliser != WatchedFolder::Normaliser::voiceMemos) {
        frontmatter.tags.push_back("watched_folder:" + folder->displayName);
    }
    if (capture.recording) {
        describe(frontmatter, *capture.recording);
    }

    // 6. The stub note, or the note of a recording that grew, made pending again.
    auto reopened = Reopened::noNote;
    if (capture.grown) {
        reopened = co_await reopenNote(id, uploadsOn);
    }
    if (reopened == Reopened::failed) {
        noteFailure(id, "copy_failed");
        co_return;
    }
    if (reopened == Reopened::noNote) {
        try {
            inbox.writeStub(frontmatter);
        } catch (const std::exception& error) {
            rlog("[quillet] capture pipeline: writeStub failed for %@: %@", id, error.what());
            noteFailure(id, "copy_failed");
            co_return;
        }
    }
    // The note now carries the capture; a failed copy or stub leaves the journal entry for
    // the next start.
    forgetIntake(capture);

    // 7. Without uploads the capture waits in the vault for a later retry.
    if (!uploadsOn) {
        rlog("[quillet] capture pipeline: VD upload disabled; %@ remains pending in vault", id);
        co_return;
    }

    // 8. Upload.
    auto service = client();
    VeldaneClient::UploadResult result;
    try {
        auto audio = inbox.audioURL(id);
        // Every argument is a named value: temporaries made inside a co_await expression are
        // not safe with every compiler.
        std::string contentSource = "voice_memo";
        std::optional<std::string> language;
        std::vector<std::string> tags;
        std::map<std::string, std::string> metadata{{"quillet_id", id}};
        result = co_await service.uploadAudio(std::move(audio), std::move(contentSource), std::move(language),
                                              std::move(tags), std::move(metadata));
    } catch (const std::exception& error) {
        // 9.
        rlog("[quillet] capture pipeline: upload failed for %@: %@", id, error.what());
        setStatus(id, "upload_failed");
        send(CaptureEvent::Kind::failed, id, "upload_failed");
        noteFailure(id, "upload_failed");
        co_return;
    }
    send(CaptureEvent::Kind::sent, id);

    // 10.
    auto key = co_await resolvedCacheKey(result, service, id);
    if (!key) {
        setStatus(id, "upload_failed");
        send(CaptureEvent::Kind::failed, id, "upload_failed");
        noteFailure(id, "upload_failed");
        co_return;
    }

    // 11, 12.
    recordKey(id, *key);
    if (result.isDuplicate()) {
        rlog("[quillet] capture pipeline: %@ already in VD library; cache_key=%@ (%@)", id, *key, result.status);
    } else {
        rlog("[quillet] capture pipeline: %@ uploaded; cache_key=%@", id, *key);
    }

    // 13. The claim is held until polling ends.
    co_await pollUntilDone(service, id, *key);
}

asio::awaitable<CapturePipeline::Reopened> CapturePipeline::reopenNote(std::string id, bool uploadsOn)
{
    auto inbox = writer();
    const auto note = inbox.noteURL(id);
    std::error_code missing;
    if (!fs::exists(fs::symlink_status(note, missing))) {
        co_return Reopened::noNote;
    }
    InboxWriter::Frontmatter frontmatter;
    std::string body;
    try {
        frontmatter = InboxWriter::readFrontmatter(note);
        body = InboxWriter::readBody(note);
    } catch (const std::exception& error) {
        // A stub in its place would lose what the user wrote in it.
        rlog("[quillet] capture pipeline: cannot reopen the note of %@: %@", id, error.what());
        co_return Reopened::failed;
    }
    // The note's transcript is of the shorter recording and goes; what the user wrote below
    // it stays. The service tells which text is its transcript.
    const auto& key = frontmatter.externalId;
    if (frontmatter.vdJobStatus == "done" && key && !key->empty() && uploadsOn) {
        std::string earlier;
        try {
            auto service = client();
            std::string cacheKey = *key;
            auto detail = co_await service.source(std::move(cacheKey));
            earlier = detail.result.text.value_or("");
        } catch (const std::exception& error) {
            rlog("[quillet] capture pipeline: cannot fetch the earlier transcript of %@: %@", id, error.what());
        }
        if (!earlier.empty() && body.starts_with(earlier)) {
            auto rest = body.find_first_not_of("\r\n", earlier.size());
            body = rest == std::string::npos ? std::string() : body.substr(rest);
        } else {
            rlog("[quillet] capture pipeline: %@ keeps its earlier text below the new transcript", id);
        }
    }
    frontmatter.vdJobStatus = uploadsOn ? "queued" : "skipped";
    frontmatter.externalId.reset();
    try {
        inbox.writeMarkdown(frontmatter, body);
    } catch (const std::exception& error) {
        rlog("[quillet] capture pipeline: cannot reopen the note of %@: %@", id, error.what());
        co_return Reopened::failed;
    }
    co_return Reopened::reopened;
}

asio::awaitable<std::optional<std::string>> CapturePipeline::resolvedCacheKey(const VeldaneClient::UploadResult& result,
                                                                              VeldaneClient& client,
                                                                              const std::string& id)
{
    if (result.cache_key && !result.cache_key->empty()) {
        co_return *result.cache_key;
    }
    if (result.task_id && !result.task_id->empty()) {
        std::string task = *result.task_id;
        rlog("[quillet] capture pipeline: %@ queued as task %@; resolving its cache_key", id, task);
        auto key = co_await client.cacheKey(task, 600);
        if (!key) {
            rlog("[quillet] capture pipeline: no cache_key for task %@ (%@) within 10 minutes", task, id);
        }
        co_return key;
    }
    rlog("[quillet] capture pipeline: upload for %@ returned neither cache_key nor task_id (status %@)", id,
         result.status);
    co_return std::nullopt;
}

asio::awaitable<void> CapturePipeline::pollUntilDone(VeldaneClient& client, std::string id, std::string cacheKey)
{
    auto& clock = *environment_.clock;
    const auto start = clock.now();
    int notFound = 0;
    bool sourceListConsulted = false;
    bool detailConsulted = false;

    for (;;) {
        bool finished = false;
        try {
            auto answer = co_await client.status(cacheKey);
            auto stage = answer.transcription();
            std::string word = stage && stage->status ? *stage->status : "unknown";
            setStatus(id, word);
            // A good answer means the key is alive: not-found answers count afresh from here.
            notFound = 0;
            if (word == "completed") {
                finished = true;
            } else if (word == "failed") {
                rlog("[quillet] capture pipeline: VD reported failed for %@", id);
                setStatus(id, "failed");
                send(CaptureEvent::Kind::failed, id, "failed");
                noteFailure(id, "failed");
                co_return;
            } else if (cacheKey.starts_with("DOC_") && !detailConsulted) {
                detailConsulted = true;
                try {
                    auto detail = co_await client.source(cacheKey);
                    auto status = detail.result.status.value_or("");
                    if (kFinishedDocumentStates.contains(status)) {
                        rlog("[quillet] capture pipeline: %@ is done in VD (status %@, %d words)", id, status,
                             detail.result.word_count.value_or(0));
                        finished = true;
                    }
                } catch (const std::exception& error) {
                    rlog("[quillet] capture pipeline: status poll error for %@: %@", id, error.what());
                }
            }
        } catch (const VeldaneClient::ClientError& error) {
            if (isNotFound(error)) {
                ++notFound;
            } else {
                rlog("[quillet] capture pipeline: status poll error for %@: %@", id, error.what());
            }
        } catch (const std::exception& error) {
            rlog("[quillet] capture pipeline: status poll error for %@: %@", id, error.what());
        }

        // The service has not known the key for a while: look for where the capture went.
        if (notFound >= maxNotFoundPolls) {
            std::optional<std::string> moved;
            if (!sourceListConsulted) {
                sourceListConsulted = true;
                moved = co_await currentCacheKey(client, id, cacheKey);
            }
            if (moved && *moved != cacheKey) {
                rlog("[quillet] capture pipeline: %@ moved in VD: %@ -> %@", id, cacheKey, *moved);
                cacheKey = *moved;
                notFound = 0;
                recordKey(id, cacheKey);
            } else {
                rlog("[quillet] capture pipeline: VD has no document for %@ (cache_key %@); giving up", id, cacheKey);
                setStatus(id, "failed");
                send(CaptureEvent::Kind::failed, id, "failed");
                noteFailure(id, "failed");
                co_return;
            }
        }

        if (finished) {
            co_await fetchTranscriptAndWrite(client, id, cacheKey);
            co_return;
        }

        double elapsed = secondsBetween(start, clock.now());
        if (elapsed >= pollTimeout) {
            rlog("[quillet] capture pipeline: polling timed out for %@ (>%g min)", id, pollTimeout / 60);
            setStatus(id, "poll_timeout");
            send(CaptureEvent::Kind::failed, id, "poll_timeout");
            noteFailure(id, "poll_timeout");
            co_return;
        }
        co_await clock.wait(std::chrono::duration<double>(backoff(elapsed)));
    }
}

asio::awaitable<void> CapturePipeline::fetchTranscriptAndWrite(VeldaneClient& client, std::string id,
                                                               std::string cacheKey)
{
    VeldaneClient::SourceDetail detail;
    try {
        detail = co_await client.source(cacheKey);
    } catch (const VeldaneClient::ClientError& error) {
        if (isRetrievalRefused(error)) {
            rlog("[quillet] capture pipeline: retrieval refused for %@: %@", id, error.what());
            setStatus(id, "failed");
            send(CaptureEvent::Kind::failed, id, "failed");
        } else {
            rlog("[quillet] capture pipeline: fetch transcript failed for %@: %@", id, error.what());
            noteFailure(id, "fetch_failed");
        }
        co_return;
    } catch (const std::exception& error) {
        rlog("[quillet] capture pipeline: fetch transcript failed for %@: %@", id, error.what());
        noteFailure(id, "fetch_failed");
        co_return;
    }

    const std::string text = detail.result.text.value_or("");
    std::optional<std::int64_t> duration;
    if (detail.result.duration && std::isfinite(*detail.result.duration) && *detail.result.duration >= 0 &&
        *detail.result.duration < 1e12) {
        duration = static_cast<std::int64_t>(std::llround(*detail.result.duration));
    }
    auto inbox = writer();
    try {
        inbox.writeTranscript(id, text, cacheKey, detail.result.language, duration, detail.result.llm_title, {});
    } catch (const std::exception& error) {
        // The note keeps its status, so the next attempt polls it again and writes it then.
        rlog("[quillet] capture pipeline: fetch transcript failed for %@: %@", id, error.what());
        noteFailure(id, "fetch_failed");
        co_return;
    }
    int words = detail.result.word_count ? static_cast<int>(*detail.result.word_count) : countWords(text);
    rlog("[quillet] capture pipeline: transcript written for %@ (%d words)", id, words);
    if (environment_.recovery != nullptr) {
        environment_.recovery->forget(id);
    }
    if (environment_.transcriptWritten) {
        environment_.transcriptWritten(id, inbox.noteURL(id));
    }
    send(CaptureEvent::Kind::transcriptReady, id);
}

asio::awaitable<std::optional<std::string>> CapturePipeline::currentCacheKey(VeldaneClient& client, std::string id,
                                                                             std::string deadKey)
{
    // A recent upload is on the first pages; the listing walks newest first.
    constexpr int kPagesToSearch = 10;
    std::string uploadedName = id + ".m4a";
    std::optional<std::string> excluding = deadKey;
    auto found = co_await client.currentKey(std::move(uploadedName), std::move(excluding), kPagesToSearch);
    if (found) {
        rlog("[quillet] capture pipeline: %@ found in the source list", id);
        co_return found;
    }
    rlog("[quillet] capture pipeline: %@ not in the source list; uploading again to learn its key", id);
    auto profile = uploadProfile(id);
    try {
        auto audio = writer().audioURL(id);
        std::optional<std::string> language;
        auto result = co_await client.uploadAudio(std::move(audio), std::move(profile.contentSource),
                                                  std::move(language), std::move(profile.tags),
                                                  std::move(profile.sourceMetadata));
        co_return co_await resolvedCacheKey(result, client, id);
    } catch (const std::exception& error) {
        rlog("[quillet] capture pipeline: upload failed for %@: %@", id, error.what());
        co_return std::nullopt;
    }
}

void CapturePipeline::spawnPolling(std::string id, std::string key)
{
    // The caller has claimed `id`; the polling task owns the claim from here on.
    auto task = [](CapturePipeline& pipeline, std::string id, std::string key) -> asio::awaitable<void> {
        TaskCount counting(pipeline);
        Claim claimed(pipeline, id);
        auto service = pipeline.client();
        co_await pipeline.pollUntilDone(service, id, key);
    };
    runtime::spawn(task(*this, id, std::move(key)), "poll " + id);
}

asio::awaitable<bool> CapturePipeline::uploadExisting(std::string id, std::optional<std::string> contentSource,
                                                      std::optional<std::vector<std::string>> tags,
                                                      std::optional<std::map<std::string, std::string>> sourceMetadata)
{
    TaskCount counting(*this);
    if (!claim(id)) {
        rlog("[quillet] capture retry: %@ is already being handled; skipping", id);
        co_return false;
    }
    std::optional<Claim> claimed(std::in_place, *this, id);
    auto inbox = writer();
    auto audio = inbox.audioURL(id);
    std::error_code error;
    if (!fs::is_regular_file(audio, error)) {
        rlog("[quillet] capture retry: no local audio for %@; skipping", id);
        co_return false;
    }
    auto service = client();
    VeldaneClient::UploadResult result;
    try {
        std::string source = contentSource.value_or("voice_memo");
        std::vector<std::string> tagList = tags.value_or(std::vector<std::string>{});
        std::map<std::string, std::string> metadata =
            sourceMetadata.value_or(std::map<std::string, std::string>{{"quillet_id", id}});
        std::optional<std::string> language;
        result = co_await service.uploadAudio(std::move(audio), std::move(source), std::move(language),
                                              std::move(tagList), std::move(metadata));
    } catch (const std::exception& failure) {
        rlog("[quillet] capture retry: upload failed for %@: %@", id, failure.what());
        setStatus(id, "upload_failed");
        send(CaptureEvent::Kind::failed, id, "upload_failed");
        noteFailure(id, "upload_failed");
        co_return false;
    }
    send(CaptureEvent::Kind::sent, id);
    auto key = co_await resolvedCacheKey(result, service, id);
    if (!key) {
        setStatus(id, "upload_failed");
        send(CaptureEvent::Kind::failed, id, "upload_failed");
        noteFailure(id, "upload_failed");
        co_return false;
    }
    recordKey(id, *key);
    rlog("[quillet] capture retry: %@ uploaded; cache_key=%@", id, *key);
    // The polling task takes the claim over, so no other path can slip in between.
    claimed->handOver();
    spawnPolling(id, *key);
    co_return true;
}

asio::awaitable<void> CapturePipeline::resumeUnfinished()
{
    TaskCount counting(*this);
    if (!environment_.uploadsEnabled()) {
        co_return;
    }
    auto inbox = writer();
    struct Unfinished {
        std::string id;
        InboxWriter::Frontmatter frontmatter;
    };
    std::vector<Unfinished> unfinished;
    std::error_code error;
    fs::directory_iterator it(inbox.inboxDirectory(), error);
    for (; !error && it != fs::directory_iterator(); it.increment(error)) {
        const auto& note = it->path();
        if (note.extension() != ".md") {
            continue;
        }
        try {
            auto frontmatter = InboxWriter::readFrontmatter(note);
            // One whose next attempt is later waits for it: restarts do not make attempts.
            if (frontmatter.vdJobStatus && resumableStates().contains(*frontmatter.vdJobStatus) &&
                !(environment_.recovery != nullptr &&
                  environment_.recovery->isWaiting(note.stem().string(), environment_.clock->now()))) {
                unfinished.push_back({note.stem().string(), std::move(frontmatter)});
            }
        } catch (const std::exception&) {
        }
    }
    rlog("[quillet] capture pipeline: resuming %d unfinished capture(s)", static_cast<int>(unfinished.size()));
    for (auto& capture : unfinished) {
        const auto& key = capture.frontmatter.externalId;
        if (key && !key->empty() && capture.frontmatter.vdJobStatus != "upload_failed") {
            if (!claim(capture.id)) {
                continue;
            }
            rlog("[quillet] capture pipeline: %@ resumed (polling %@)", capture.id, *key);
            spawnPolling(capture.id, *key);
        } else {
            rlog("[quillet] capture pipeline: %@ resumed (uploading again)", capture.id);
            auto profile = uploadProfile(capture.id);
            std::optional<std::string> source = std::move(profile.contentSource);
            std::optional<std::vector<std::string>> tags = std::move(profile.tags);
            std::optional<std::map<std::string, std::string>> metadata = std::move(profile.sourceMetadata);
            co_await uploadExisting(capture.id, std::move(source), std::move(tags), std::move(metadata));
        }
    }
}

std::map<std::string, std::string> CapturePipeline::recordingMetadata(const std::string& id, const std::string& source,
                                                                       const std::string& microphone,
                                                                       const std::string& channelLayout,
                                                                       std::chrono::system_clock::time_point startedAt)
{
    return {
        {"quillet_id", id},
        {"recorder_source", source},
        {"microphone", microphone},
        {"channel_layout", channelLayout},
        {"meeting_started_at", Iso8601::format(startedAt)},
    };
}

bool CapturePipeline::isRecordingOrigin(const std::optional<std::string>& origin)
{
    return origin && (*origin == recordingOrigin || *origin == legacyRecordingOrigin);
}

CapturePipeline::UploadProfile CapturePipeline::uploadProfile(const std::string& id) const
{
    std::optional<InboxWriter::Frontmatter> note;
    try {
        note = InboxWriter::readFrontmatter(writer().noteURL(id));
    } catch (const std::exception&) {
    }
    if (note && note->classification == recordingClassification) {
        return {"meeting",
                {"meeting", "quillet-mac"},
                recordingMetadata(id, note->recorderSource.value_or(""), note->recorderMicrophone.value_or(""),
                                  note->recorderChannelLayout.value_or("All audio"), note->created)};
    }
    return {"voice_memo", {"voice-memo", "quillet-mac"}, {{"quillet_id", id}}};
}

} // namespace quillet
