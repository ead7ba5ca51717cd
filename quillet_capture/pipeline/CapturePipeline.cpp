#include "quillet_capture/pipeline/CapturePipeline.hpp"

#include "quillet_capture/capture/CaptureCoordinator.hpp"
#include "quillet_capture/config/AgentSettings.hpp"
#include "quillet_capture/config/Keychain.hpp"
#include "quillet_capture/config/Log.hpp"
#include "quillet_capture/pipeline/AfterTranscriptCommand.hpp"
#include "quillet_capture/pipeline/AgentNotifications.hpp"
#include "quillet_capture/pipeline/CaptureIdentities.hpp"
#include "quillet_capture/pipeline/CaptureIntake.hpp"
#include "quillet_capture/pipeline/CaptureRecovery.hpp"
#include "quillet_capture/pipeline/CaptureStateStore.hpp"
#include "quillet_capture/pipeline/CaptureVaults.hpp"
#include "quillet_capture/runtime/Tasks.hpp"
#include "quillet_capture/service/RefusedToken.hpp"
#include "quillet_capture/util/Iso8601.hpp"
#include "quillet_capture/vault/NoteLedger.hpp"

#include <exception>
#include <filesystem>
#include <mutex>
#include <system_error>

namespace quillet {

namespace fs = std::filesystem;

const std::set<std::string>& CapturePipeline::resumableStates()
{
    static const std::set<std::string> states = {"queued",        "pending",      "processing",       "completed",
                                                 "upload_failed", "poll_timeout", needsPairingStatus};
    return states;
}

CapturePipeline& CapturePipeline::shared()
{
    static auto* pipeline = new CapturePipeline(
        Environment{
            [] { return AgentSettings::shared().current()->vaultURL(); },
            [] { return AgentSettings::shared().current()->captureVeldaneEnabled(); },
            [] { return AgentSettings::shared().current()->watchedFolders(); },
            [] { return AgentSettings::shared().current()->veldaneBaseURL(); },
            [](const std::string& id, const fs::path& note) {
                // The note's vault, "<vault>/_inbox/<id>.md": after a change of vault it is
                // not the one the settings name.
                AfterTranscriptCommand::shared().transcriptWritten(
                    id, note, AgentSettings::shared().current()->afterTranscriptCommand().value_or(""),
                    note.parent_path().parent_path());
            },
            &runtime::systemClock(),
            {},
            &CaptureIntake::shared(),
            &CaptureStateStore::shared(),
            &CaptureRecovery::shared(),
            &CaptureIdentities::shared(),
            &CaptureVaults::shared(),
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

void CapturePipeline::start()
{
    waitsForPair_ = true;
    recoverIntake();
    if (coordinator_ != nullptr) {
        coordinator_->setVault({
            .holds =
                [this](const std::string& id, const fs::path& file) {
                    std::error_code error;
                    return file.empty() ? fs::exists(writer().noteURL(id), error) : holdsCaptureOf(id, file);
                },
            .copyOf = [this](const std::string& id) { return writer(id).audioURL(id); },
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

InboxWriter CapturePipeline::writer(const std::string& id) const
{
    return InboxWriter(vaultOf(id));
}

fs::path CapturePipeline::vaultOf(const std::string& id) const
{
    {
        std::lock_guard guard(vaultsLock_);
        if (auto kept = vaults_.find(id); kept != vaults_.end()) {
            return kept->second;
        }
    }
    if (environment_.vaults != nullptr) {
        if (auto kept = environment_.vaults->find(id)) {
            return *kept;
        }
    }
    return environment_.vaultRoot();
}

void CapturePipeline::keepVault(const std::string& id, const fs::path& vault)
{
    {
        std::lock_guard guard(vaultsLock_);
        vaults_.insert_or_assign(id, vault);
    }
    if (environment_.vaults != nullptr) {
        environment_.vaults->record(id, vault);
    }
}

void CapturePipeline::forgetVault(const std::string& id)
{
    {
        std::lock_guard guard(vaultsLock_);
        vaults_.erase(id);
    }
    if (environment_.vaults != nullptr) {
        environment_.vaults->forget(id);
    }
}

asio::awaitable<void> CapturePipeline::vaultPresent(std::string id)
{
    const auto inbox = writer(id).inboxDirectory();
    bool waited = false;
    for (;;) {
        // Only a vault that is not there waits; one that is there but cannot be written fails
        // the write, and the capture is tried again later.
        std::error_code error;
        if (fs::exists(fs::symlink_status(inbox, error))) {
            break;
        }
        if (!waited) {
            rlog("[quillet] capture pipeline: the vault of %@ is gone (%@); its capture waits until the vault is back "
                 "there",
                 id, inbox.parent_path().string());
            if (waitsForPair_) {
                AgentNotifications::vaultGone(inbox.parent_path());
            }
            waited = true;
        }
        co_await environment_.clock->wait(vaultWaitInterval);
    }
    if (waited) {
        rlog("[quillet] capture pipeline: the vault of %@ is back; its capture goes on", id);
        if (waitsForPair_) {
            AgentNotifications::vaultBack(inbox.parent_path());
        }
    }
}

VeldaneClient CapturePipeline::client() const
{
    return VeldaneClient(environment_.baseURL(), *environment_.clock, environment_.timeouts);
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
    auto inbox = writer(id);
    if (std::error_code error; !fs::exists(fs::symlink_status(inbox.inboxDirectory(), error))) {
        // The vault was moved away: the status waits with the capture (`vaultPresent`).
        return;
    }
    try {
        inbox.updateVDJobStatus(id, status);
    } catch (const std::exception& error) {
        // The note may have been deleted or the vault made read-only meanwhile; the capture
        // goes on, and the next write or the next resume puts the status right.
        rlog("[quillet] capture pipeline: cannot set %@ to %@: %@", id, status, error.what());
    }
}

asio::awaitable<void> CapturePipeline::waitForNewToken(std::string id)
{
    setStatus(id, needsPairingStatus);
    AgentNotifications::tokenRefused();
    const std::string baseURL = environment_.baseURL();
    auto usable = [baseURL] {
        auto authorization = Keychain::authorizationHeader();
        return authorization && !RefusedToken::shared().isRefused(baseURL, *authorization);
    };
    // Nothing is sent while waiting: the client would not send the refused token anyway, and
    // asking the store now and then costs next to nothing.
    for (;;) {
        co_await environment_.clock->wait(std::chrono::duration<double>(pairCheckSeconds));
        if (co_await runtime::blocking(usable)) {
            break;
        }
    }
    rlog("[quillet] capture pipeline: %@ goes on with the new device token", id);
    AgentNotifications::tokenAccepted();
}

void CapturePipeline::recordKey(const std::string& id, const std::string& key)
{
    try {
        writer(id).editNote(id, [&](InboxWriter::Frontmatter& frontmatter, std::string&) {
            frontmatter.externalId = key;
            frontmatter.uploadedAt = environment_.clock->now();
            frontmatter.vdJobStatus = "queued";
        });
        NoteLedger(writer(id).vaultRoot()).keyRecorded(id, key);
    } catch (const std::exception& error) {
        rlog("[quillet] capture pipeline: cannot record cache_key for %@: %@", id, error.what());
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

} // namespace quillet
