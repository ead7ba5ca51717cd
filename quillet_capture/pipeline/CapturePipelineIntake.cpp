#include "quillet_capture/pipeline/CapturePipeline.hpp"

#include "quillet_capture/capture/CollisionResolver.hpp"
#include "quillet_capture/config/Log.hpp"
#include "quillet_capture/pipeline/AgentNotifications.hpp"
#include "quillet_capture/pipeline/CaptureIdentities.hpp"
#include "quillet_capture/pipeline/CaptureIntake.hpp"
#include "quillet_capture/pipeline/CapturePipelineDetail.hpp"
#include "quillet_capture/pipeline/CaptureRecovery.hpp"
#include "quillet_capture/pipeline/CaptureStateStore.hpp"
#include "quillet_capture/platform/FileTimes.hpp"
#include "quillet_capture/runtime/Tasks.hpp"
#include "quillet_capture/vault/NoteLedger.hpp"

#include <exception>
#include <filesystem>
#include <system_error>

namespace quillet {

namespace fs = std::filesystem;

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

asio::awaitable<void> CapturePipeline::handle(FolderWatcher::NewCapture capture)
{
    TaskCount counting(*this);
    // A recording that grew goes to its note, which may be in the vault of before a change.
    auto inbox = capture.grown ? writer(capture.canonicalId) : writer();
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
    keepVault(id, inbox.vaultRoot());
    if (capture.grown) {
        co_await vaultPresent(id);
    }
    // A note the person removed from the inbox is never made again, whatever offers its
    // recording once more (a grown or edited file, an import, a journal entry of before).
    const NoteLedger ledger(inbox.vaultRoot());
    if (ledger.removedByPerson(id)) {
        rlog("[quillet] capture pipeline: the note of %@ was removed from the inbox; its recording %@ is left alone",
             id, capture.sourceURL.filename().string());
        forgetIntake(capture);
        forgetVault(id);
        if (environment_.recovery != nullptr) {
            environment_.recovery->forget(id);
        }
        co_return;
    }

    // 4. The copy is the slow part; it runs on the blocking pool. Its digest is taken from the
    // bytes as they are copied.
    std::optional<std::string> copyError;
    InboxWriter::AudioCopy copied;
    auto copy = [&inbox, source = capture.sourceURL, id, grown = capture.grown, &copyError, &copied] {
        try {
            inbox.ensureDirectories();
            copied = grown ? inbox.replaceAudio(source, id) : inbox.copyAudio(source, id);
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
    ledger.copyWritten(id, copied.sha256, copied.size, environment_.clock->now());

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
    if (reopened == Reopened::unparseable) {
        noteFailure(id, CaptureRecovery::noteUnreadable);
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
        ledger.noteMade(id,
                        {capture.folderId, capture.sourceURL.filename().string(),
                         capture.recording ? capture.recording->uniqueId : std::string()},
                        created, environment_.clock->now());
    }
    // The note now carries the capture; a failed copy or stub leaves the journal entry for
    // the next start.
    forgetIntake(capture);

    // 7. Without uploads the capture waits in the vault for a later retry.
    if (!uploadsOn) {
        // What waits for a retry is looked for in the vault the settings name then.
        forgetVault(id);
        rlog("[quillet] capture pipeline: VD upload disabled; %@ remains pending in vault", id);
        co_return;
    }

    // 8. Upload; when the service refuses the device token, once more after the next pair.
    auto service = client();
    // Every argument is a named value: temporaries made inside a co_await expression are not
    // safe with every compiler.
    auto audio = inbox.audioURL(id);
    std::string contentSource = "voice_memo";
    std::vector<std::string> tags;
    std::map<std::string, std::string> metadata{{"quillet_id", id}};
    auto upload = co_await uploadUntilRefusedForGood(service, id, std::move(audio), std::move(contentSource),
                                                     std::move(tags), std::move(metadata));
    if (!upload.result) {
        // 9.
        rlog("[quillet] capture pipeline: upload failed for %@: %@", id, upload.failure);
        setStatus(id, "upload_failed");
        send(CaptureEvent::Kind::failed, id, "upload_failed");
        noteFailure(id, "upload_failed");
        co_return;
    }
    const auto& result = *upload.result;
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

asio::awaitable<CapturePipeline::Upload> CapturePipeline::uploadUntilRefusedForGood(
    VeldaneClient& service, std::string id, std::filesystem::path audio, std::string contentSource,
    std::vector<std::string> tags, std::map<std::string, std::string> metadata)
{
    for (;;) {
        Upload upload;
        bool refused = false;
        try {
            auto file = audio;
            auto source = contentSource;
            auto tagList = tags;
            auto fields = metadata;
            std::optional<std::string> language;
            upload.result = co_await service.uploadAudio(std::move(file), std::move(source), std::move(language),
                                                         std::move(tagList), std::move(fields));
            co_return upload;
        } catch (const VeldaneClient::ClientError& error) {
            refused = error.isTokenRefusal() && waitsForPair_;
            upload.failure = error.what();
            if (error.kind() == VeldaneClient::ClientError::Kind::planRequired && waitsForPair_) {
                AgentNotifications::planRequired(error.what());
            }
        } catch (const std::exception& error) {
            upload.failure = error.what();
        }
        if (!refused) {
            co_return upload;
        }
        co_await waitForNewToken(id);
    }
}

asio::awaitable<CapturePipeline::Reopened> CapturePipeline::reopenNote(std::string id, bool uploadsOn)
{
    auto inbox = writer(id);
    const auto note = inbox.noteURL(id);
    std::error_code missing;
    if (!fs::exists(fs::symlink_status(note, missing))) {
        co_return Reopened::noNote;
    }
    // An editor's save leaves the note empty or half-written for a moment: it is read again
    // a few times before it counts as a note the person must fix.
    std::optional<InboxWriter::Frontmatter> frontmatter;
    std::string body;
    std::string problem;
    for (double pause : unparseableNotePauses()) {
        if (pause > 0) {
            co_await environment_.clock->wait(std::chrono::duration<double>(pause));
        }
        try {
            frontmatter = InboxWriter::readFrontmatter(note);
            body = InboxWriter::readBody(note);
            break;
        } catch (const InboxWriter::Error& error) {
            problem = error.what();
        } catch (const std::exception& error) {
            rlog("[quillet] capture pipeline: cannot reopen the note of %@: %@", id, error.what());
            co_return Reopened::failed;
        }
    }
    if (!frontmatter) {
        // A stub in its place would lose what the person wrote in it.
        rlog("[quillet] capture pipeline: the note of %@ does not parse (%@); it is left as it is -- fix its "
             "frontmatter and the grown recording is transcribed again",
             id, problem);
        co_return Reopened::unparseable;
    }
    // The note's transcript is of the shorter recording and goes; what the person wrote below
    // it stays. The service tells which text is its transcript.
    const auto& key = frontmatter->externalId;
    std::string earlier;
    if (frontmatter->vdJobStatus == "done" && key && !key->empty() && uploadsOn) {
        try {
            auto service = client();
            std::string cacheKey = *key;
            auto detail = co_await service.source(std::move(cacheKey));
            earlier = detail.result.text.value_or("");
        } catch (const std::exception& error) {
            rlog("[quillet] capture pipeline: cannot fetch the earlier transcript of %@: %@", id, error.what());
        }
        if (earlier.empty() || !body.starts_with(earlier)) {
            rlog("[quillet] capture pipeline: %@ keeps its earlier text below the new transcript", id);
        }
    }
    try {
        inbox.editNote(id, [&](InboxWriter::Frontmatter& fm, std::string& text) {
            if (!earlier.empty() && text.starts_with(earlier)) {
                auto rest = text.find_first_not_of("\r\n", earlier.size());
                text = rest == std::string::npos ? std::string() : text.substr(rest);
            }
            fm.vdJobStatus = uploadsOn ? "queued" : "skipped";
            fm.externalId.reset();
        });
    } catch (const InboxWriter::Error& error) {
        rlog("[quillet] capture pipeline: the note of %@ does not parse (%@); it is left as it is -- fix its "
             "frontmatter and the grown recording is transcribed again",
             id, error.what());
        co_return Reopened::unparseable;
    } catch (const std::exception& error) {
        rlog("[quillet] capture pipeline: cannot reopen the note of %@: %@", id, error.what());
        co_return Reopened::failed;
    }
    co_return Reopened::reopened;
}

} // namespace quillet
