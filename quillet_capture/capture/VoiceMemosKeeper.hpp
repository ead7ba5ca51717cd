#pragma once

#include "quillet_capture/platform/Workspace.hpp"
#include "quillet_capture/runtime/Timer.hpp"

#include <asio/any_io_executor.hpp>

#include <memory>
#include <mutex>

namespace quillet {

/// Keeps Voice Memos running, hidden, so that recordings made on other devices keep arriving
/// from iCloud in its folder: while on, it checks every `checkInterval` seconds and launches
/// the application when it is not running.
class VoiceMemosKeeper {
public:
    static constexpr const char* bundleId = "com.apple.VoiceMemos";
    /// Seconds between two checks.
    static constexpr double checkInterval = 300.0;

    /// The process-wide keeper: this platform's workspace, checks on the main event loop.
    /// Never destroyed.
    static VoiceMemosKeeper& shared();

    /// A keeper asking `workspace`, whose checks run on `executor`.
    VoiceMemosKeeper(std::shared_ptr<Workspace> workspace, asio::any_io_executor executor);
    ~VoiceMemosKeeper();

    VoiceMemosKeeper(const VoiceMemosKeeper&) = delete;
    VoiceMemosKeeper& operator=(const VoiceMemosKeeper&) = delete;

    /// Switches the keeper on when `keepVoiceMemosRunning` is true, else off (logging "off"
    /// when it was on). Any thread.
    void apply(bool keepVoiceMemosRunning);

    /// Switches the keeper on: the first check after one second, then every `checkInterval`.
    /// Does nothing when it is on already. Any thread.
    void start();

    /// One check: when Voice Memos is not running, launches it hidden. The launch runs on the
    /// blocking pool and only logs its outcome. Any thread.
    void ensureRunning();

    /// Whether Voice Memos runs now. Blocks briefly; any thread.
    bool isVoiceMemosRunning() const;

    /// True while the keeper is on.
    bool isOn() const;

private:
    std::shared_ptr<Workspace> workspace_;
    asio::any_io_executor executor_;
    mutable std::mutex lock_;
    std::unique_ptr<runtime::Timer> timer_;
};

} // namespace quillet
