#pragma once

#include <chrono>
#include <filesystem>
#include <memory>
#include <string>

namespace quillet {

/// Runs the user's after-transcript command through the login shell once a capture's
/// transcript is in its note, with QUILLET_ID, QUILLET_FILE and QUILLET_FOLDER set, in the
/// vault folder. A command runs at most once at a time per capture id, is stopped after
/// `timeout` seconds, and its exit and the last 2000 bytes of its output are logged.
///
/// Each command runs on a thread of its own ("quillet.aftertranscript") for as long as it
/// runs.
class AfterTranscriptCommand {
public:
    /// Seconds a command may run before it is terminated.
    static constexpr double timeout = 600;

    /// The process-wide instance (never destroyed).
    static AfterTranscriptCommand& shared();

    /// `timeLimit` replaces `timeout` (tests use a short one).
    explicit AfterTranscriptCommand(std::chrono::duration<double> timeLimit = std::chrono::duration<double>(timeout));
    ~AfterTranscriptCommand();

    AfterTranscriptCommand(const AfterTranscriptCommand&) = delete;
    AfterTranscriptCommand& operator=(const AfterTranscriptCommand&) = delete;

    /// Called after the transcript of capture `id` was written into the note `file`. Starts
    /// `command` (trimmed; blank means nothing runs and nothing is logged) in `folder`, the
    /// vault, and returns at once. When a command for `id` is still running it logs that and
    /// starts nothing. Never throws; failures are logged. Any thread.
    void transcriptWritten(const std::string& id, const std::filesystem::path& file, const std::string& command,
                           const std::filesystem::path& folder);

    /// True while a command started for `id` has not finished. Any thread.
    bool isRunning(const std::string& id) const;

    /// Ends every command running in this process (all instances), with all they started:
    /// their process groups get SIGTERM, and SIGKILL when any of their processes is still
    /// there after `grace`; logs one line when there was any. No command starts after this
    /// call. Returns how many commands were running. Blocks up to `grace`; any thread (the
    /// agent calls it when it stops).
    static int stopAll(std::chrono::milliseconds grace);

private:
    struct Running;
    std::shared_ptr<Running> running_;
    std::chrono::duration<double> timeLimit_;
};

} // namespace quillet
