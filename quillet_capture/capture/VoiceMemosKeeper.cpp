#include "quillet_capture/capture/VoiceMemosKeeper.hpp"

#include "quillet_capture/config/Log.hpp"
#include "quillet_capture/runtime/MainLoop.hpp"
#include "quillet_capture/runtime/Tasks.hpp"

#include <asio/post.hpp>

#include <chrono>

namespace quillet {

namespace {

std::chrono::steady_clock::duration seconds(double value)
{
    return std::chrono::duration_cast<std::chrono::steady_clock::duration>(std::chrono::duration<double>(value));
}

void checkAndLaunch(const std::shared_ptr<Workspace>& workspace)
{
    if (workspace->isRunning(VoiceMemosKeeper::bundleId)) {
        return;
    }
    auto application = workspace->applicationPath(VoiceMemosKeeper::bundleId);
    if (!application) {
        rlog("[quillet] voice memos keeper: Voice Memos.app not found");
        return;
    }
    // Opening may take a moment; the checking thread (the main loop) does not wait for it.
    asio::post(runtime::blockingPool(), [workspace, application = *application] {
        if (auto error = workspace->openHidden(application)) {
            rlog("[quillet] voice memos keeper: launch failed -- %@", *error);
        } else {
            rlog("[quillet] voice memos keeper: launched Voice Memos (hidden)");
        }
    });
}

} // namespace

VoiceMemosKeeper& VoiceMemosKeeper::shared()
{
    static auto* keeper = new VoiceMemosKeeper(Workspace::system(), runtime::mainContext().get_executor());
    return *keeper;
}

VoiceMemosKeeper::VoiceMemosKeeper(std::shared_ptr<Workspace> workspace, asio::any_io_executor executor)
    : workspace_(std::move(workspace))
    , executor_(std::move(executor))
{
}

VoiceMemosKeeper::~VoiceMemosKeeper()
{
    std::unique_ptr<runtime::Timer> timer;
    {
        std::lock_guard guard(lock_);
        timer = std::move(timer_);
    }
    if (timer) {
        timer->cancel();
    }
}

void VoiceMemosKeeper::apply(bool keepVoiceMemosRunning)
{
    if (keepVoiceMemosRunning) {
        start();
        return;
    }
    std::unique_ptr<runtime::Timer> timer;
    {
        std::lock_guard guard(lock_);
        timer = std::move(timer_);
    }
    if (timer) {
        timer->cancel();
        rlog("[quillet] voice memos keeper: off");
    }
}

void VoiceMemosKeeper::start()
{
    std::lock_guard guard(lock_);
    if (timer_) {
        return;
    }
    // The handler holds the workspace, not the keeper: a check that is under way when the
    // keeper goes away still finds everything it uses.
    timer_ = runtime::Timer::repeating(executor_, seconds(1.0), seconds(checkInterval),
                                       [workspace = workspace_] { checkAndLaunch(workspace); });
    rlog("[quillet] voice memos keeper: on (check every %ds)", static_cast<int>(checkInterval));
}

void VoiceMemosKeeper::ensureRunning()
{
    checkAndLaunch(workspace_);
}

bool VoiceMemosKeeper::isVoiceMemosRunning() const
{
    return workspace_->isRunning(bundleId);
}

bool VoiceMemosKeeper::isOn() const
{
    std::lock_guard guard(lock_);
    return timer_ != nullptr;
}

} // namespace quillet
