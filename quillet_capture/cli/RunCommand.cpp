#include "quillet_capture/cli/Commands.hpp"
#include "quillet_capture/cli/Console.hpp"
#include "quillet_capture/config/Log.hpp"
#include "quillet_capture/capture/CaptureCoordinator.hpp"
#include "quillet_capture/capture/VoiceMemosKeeper.hpp"
#include "quillet_capture/config/AgentSettings.hpp"
#include "quillet_capture/config/Keychain.hpp"
#include "quillet_capture/config/Settings.hpp"
#include "quillet_capture/pipeline/AfterTranscriptCommand.hpp"
#include "quillet_capture/pipeline/AgentNotifications.hpp"
#include "quillet_capture/pipeline/CapturePipeline.hpp"
#include "quillet_capture/pipeline/CaptureRecovery.hpp"
#include "quillet_capture/pipeline/CaptureRetry.hpp"
#include "quillet_capture/pipeline/CaptureStatus.hpp"
#include "quillet_capture/platform/AgentLock.hpp"
#include "quillet_capture/platform/Paths.hpp"
#include "quillet_capture/platform/System.hpp"
#include "quillet_capture/runtime/MainLoop.hpp"
#include "quillet_capture/runtime/Tasks.hpp"
#include "quillet_capture/util/AtomicFile.hpp"
#include "quillet_capture/vault/InboxWriter.hpp"

#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdlib>
#include <string>
#include <utility>

namespace quillet {

namespace {

// How long the after-transcript commands get to end on their own when the agent stops.
constexpr std::chrono::milliseconds kCommandGrace{2000};

// QUILLET_POLL_INTERVAL_SECONDS (0 < seconds <= 30) shortens the coordinator's poll interval
// and first tick, so that tests of the whole agent need not wait 30 seconds per poll.
void applyTestPollInterval()
{
    const char* text = std::getenv("QUILLET_POLL_INTERVAL_SECONDS");
    if (text == nullptr) {
        return;
    }
    char* end = nullptr;
    double seconds = std::strtod(text, &end);
    if (end == text || *end != '\0' || !std::isfinite(seconds) || seconds <= 0 || seconds > 30) {
        return;
    }
    auto interval = std::chrono::milliseconds(std::llround(seconds * 1000));
    CaptureCoordinator::setSharedTiming(std::min<std::chrono::milliseconds>(std::chrono::seconds(2), interval),
                                        interval);
}

// QUILLET_RETRY_MINUTE_SECONDS (1 to 60) shortens the minute of the schedule on which the
// agent tries failed captures again, for the same tests.
void applyTestRetryMinute()
{
    const char* text = std::getenv("QUILLET_RETRY_MINUTE_SECONDS");
    if (text == nullptr) {
        return;
    }
    char* end = nullptr;
    long seconds = std::strtol(text, &end, 10);
    if (end != text && *end == '\0' && seconds >= 1 && seconds <= 60) {
        CaptureRecovery::shared().setMinute(std::chrono::seconds(seconds));
    }
}

// QUILLET_NOTIFICATION_QUIET_MS (1 to 10000) shortens how long the desktop notifications of
// one kind gather (and the longest gathering to ten times that), for the same tests.
void applyTestNotificationWindow()
{
    const char* text = std::getenv("QUILLET_NOTIFICATION_QUIET_MS");
    if (text == nullptr) {
        return;
    }
    char* end = nullptr;
    long milliseconds = std::strtol(text, &end, 10);
    if (end != text && *end == '\0' && milliseconds >= 1 && milliseconds <= 10000) {
        AgentNotifications::setSharedTiming(
            {std::chrono::milliseconds(milliseconds), std::chrono::milliseconds(milliseconds * 10)});
    }
}

} // namespace

void cmdRun()
{
    // First: a stop that arrives while the agent starts (reading settings, the token) is held
    // until the event loop runs and ends the process cleanly, instead of killing it. Ctrl-C in
    // the terminal of an agent started by hand is the same stop. The after-transcript commands
    // are ended with the agent: nothing would enforce their time limit once it is gone.
    for (auto [signo, name] : {std::pair{SIGTERM, "SIGTERM"}, std::pair{SIGINT, "SIGINT"}}) {
        runtime::handleSignal(signo, [name = std::string(name)] {
            rlog("[quillet] capture-cli: stopping (%@)", name);
            AfterTranscriptCommand::stopAll(kCommandGrace);
            runtime::exitProcess(0);
        });
    }

    // Before anything else: a second agent on the same state folder would capture, upload and
    // run the after-transcript command for every recording a second time.
    static AgentLock lock = AgentLock::take();
    if (!lock.taken()) {
        rlog("[quillet] capture-cli: another agent is already running (pid %d) -- not starting a second one",
             *lock.holder());
        runtime::exitProcess(1);
    }

    rlog("[quillet] capture-cli: run %@ (%@, " + System::osName() + " %@)", toolVersion, System::hostName(),
         System::osVersion());

    auto& settings = Settings::shared();
    if (settings.isFirstRun()) {
        rlog("[quillet] capture-cli: no settings file -- run setup first");
        runtime::exitProcess(1);
    }
    if (settings.enabledWatchedFolders().empty()) {
        rlog("[quillet] capture-cli: no watched folders enabled -- run setup");
        runtime::exitProcess(1);
    }

    // Captures are made from here on, so from here on they can be retried.
    CaptureRetry::retryWatermark();

    if (settings.captureVeldaneEnabled() && !Keychain::hasCredentials()) {
        rlog(std::string("[quillet] capture-cli: upload is on but this ") +
             (Paths::current() == Platform::macOS ? "Mac" : "computer") +
             " is not paired -- run pair. Capturing to the vault only until then.");
    }

    // A capture task must never take the agent down; what escapes one is logged.
    runtime::setTaskFailureHandler([](const std::string& name, std::exception_ptr error) {
        try {
            std::rethrow_exception(error);
        } catch (const std::exception& e) {
            rlog("[quillet] capture-cli: %@ ended with an error: %@", name, e.what());
        } catch (...) {
            rlog("[quillet] capture-cli: %@ ended with an error", name);
        }
    });

    applyTestPollInterval();
    applyTestRetryMinute();
    applyTestNotificationWindow();
    // A killed agent or command leaves the temporary files of the writes it was making; the
    // files they were meant to replace are whole, so the temporary ones only take room.
    InboxWriter inbox(settings.vaultURL());
    for (const auto& folder : {inbox.inboxDirectory(), inbox.audioDirectory(), Paths::stateFile().parent_path(),
                               Paths::settingsFile().parent_path()}) {
        removeAtomicWriteLeftovers(folder);
    }
    VoiceMemosKeeper::shared().apply(settings.keepVoiceMemosRunning());
    CaptureStatus::shared().start();
    // Before the first poll: what the person must know reaches the desktop from the start.
    AgentNotifications::shared().listen();
    CapturePipeline::shared().setOnCaptureEvent(
        [](const CapturePipeline::CaptureEvent& event) { AgentNotifications::shared().captureEvent(event); });
    // From here on a new version of the settings file is taken while the agent runs: new
    // captures go where it says, those under way finish in the vault of their note.
    CaptureCoordinator::shared().followSettings(Settings::fileURL().parent_path(),
                                                [] { return AgentSettings::shared().followFile(); });
    CapturePipeline::shared().start();

    runtime::runMainLoop();
}

} // namespace quillet
