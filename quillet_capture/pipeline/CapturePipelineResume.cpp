#include "quillet_capture/pipeline/CapturePipeline.hpp"

#include "quillet_capture/config/Log.hpp"
#include "quillet_capture/pipeline/AgentNotifications.hpp"
#include "quillet_capture/pipeline/CaptureIntake.hpp"
#include "quillet_capture/pipeline/CapturePipelineDetail.hpp"
#include "quillet_capture/pipeline/CaptureRecovery.hpp"
#include "quillet_capture/pipeline/CaptureVaults.hpp"
#include "quillet_capture/runtime/Tasks.hpp"
#include "quillet_capture/util/Iso8601.hpp"

#include <algorithm>
#include <chrono>
#include <exception>
#include <filesystem>
#include <mutex>
#include <system_error>

namespace quillet {

namespace fs = std::filesystem;

void CapturePipeline::noteFailure(const std::string& id, const std::string& reason)
{
    if (environment_.recovery == nullptr) {
        return;
    }
    auto next = environment_.recovery->failed(id, reason);
    if (next) {
        rlog("[quillet] capture pipeline: %@ will be tried again at %@ (%@)", id, Iso8601::format(*next), reason);
    } else {
        rlog("[quillet] capture pipeline: %@ failed in VD %d times; it waits for retry", id,
             CaptureRecovery::maxServiceFailures + 1);
    }
    // The agent's, where someone can be told what only they can mend.
    if (waitsForPair_) {
        AgentNotifications::failureNoted(id, reason, !next, vaultOf(id));
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
    bool inJournal = false;
    for (const auto& id : due) {
        if (isClaimed(id)) {
            continue;  // under way: its end says what follows
        }
        auto inbox = writer(id);
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
                keepVault(id, inbox.vaultRoot());
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
    auto inbox = writer(id);
    // Pinned: a change of vault while it is under way leaves it in the vault of its note.
    keepVault(id, inbox.vaultRoot());
    auto audio = inbox.audioURL(id);
    std::error_code error;
    if (!fs::is_regular_file(audio, error)) {
        rlog("[quillet] capture retry: no local audio for %@; skipping", id);
        co_return false;
    }
    auto service = client();
    std::string source = contentSource.value_or("voice_memo");
    std::vector<std::string> tagList = tags.value_or(std::vector<std::string>{});
    std::map<std::string, std::string> metadata =
        sourceMetadata.value_or(std::map<std::string, std::string>{{"quillet_id", id}});
    auto upload = co_await uploadUntilRefusedForGood(service, id, std::move(audio), std::move(source),
                                                     std::move(tagList), std::move(metadata));
    if (!upload.result) {
        rlog("[quillet] capture retry: upload failed for %@: %@", id, upload.failure);
        setStatus(id, "upload_failed");
        send(CaptureEvent::Kind::failed, id, "upload_failed");
        noteFailure(id, "upload_failed");
        co_return false;
    }
    const auto& result = *upload.result;
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
        fs::path vault;
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
                unfinished.push_back({note.stem().string(), std::move(frontmatter), inbox.vaultRoot()});
            }
        } catch (const std::exception&) {
        }
    }
    // Captures begun in a vault the settings named before: they finish in their note there.
    if (environment_.vaults != nullptr) {
        for (const auto& entry : environment_.vaults->all()) {
            // Not a structured binding: Apple clang 15 cannot capture one in a lambda.
            const std::string& id = entry.first;
            const fs::path& vault = entry.second;
            if (vault == inbox.vaultRoot() ||
                std::any_of(unfinished.begin(), unfinished.end(), [&](const auto& u) { return u.id == id; })) {
                continue;
            }
            const InboxWriter elsewhere(vault);
            std::error_code missing;
            if (!fs::is_directory(elsewhere.inboxDirectory(), missing)) {
                continue;  // moved away or not mounted: kept for a start that finds it
            }
            std::optional<InboxWriter::Frontmatter> frontmatter;
            try {
                frontmatter = InboxWriter::readFrontmatter(elsewhere.noteURL(id));
            } catch (const std::exception&) {
            }
            if (!frontmatter || !frontmatter->vdJobStatus || !resumableStates().contains(*frontmatter->vdJobStatus)) {
                // Finished, or its note is gone: nothing left to do there.
                if (!fs::exists(elsewhere.noteURL(id), missing) || frontmatter) {
                    environment_.vaults->forget(id);
                }
                continue;
            }
            if (!(environment_.recovery != nullptr && environment_.recovery->isWaiting(id, environment_.clock->now()))) {
                unfinished.push_back({id, std::move(*frontmatter), vault});
            }
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
            keepVault(capture.id, capture.vault);
            spawnPolling(capture.id, *key);
        } else {
            rlog("[quillet] capture pipeline: %@ resumed (uploading again)", capture.id);
            keepVault(capture.id, capture.vault);
            auto profile = uploadProfile(capture.id);
            std::optional<std::string> source = std::move(profile.contentSource);
            std::optional<std::vector<std::string>> tags = std::move(profile.tags);
            std::optional<std::map<std::string, std::string>> metadata = std::move(profile.sourceMetadata);
            co_await uploadExisting(capture.id, std::move(source), std::move(tags), std::move(metadata));
        }
    }
}

CapturePipeline::UploadProfile CapturePipeline::uploadProfile(const std::string& id) const
{
    std::optional<InboxWriter::Frontmatter> note;
    try {
        note = InboxWriter::readFrontmatter(writer(id).noteURL(id));
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
