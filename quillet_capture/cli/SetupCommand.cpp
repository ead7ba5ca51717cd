#include "quillet_capture/cli/Commands.hpp"
#include "quillet_capture/cli/Console.hpp"
#include "quillet_capture/capture/CaptureCoordinator.hpp"
#include "quillet_capture/capture/FirstWatched.hpp"
#include "quillet_capture/pipeline/CaptureRetry.hpp"
#include "quillet_capture/config/AgentSettings.hpp"
#include "quillet_capture/config/Settings.hpp"
#include "quillet_capture/config/WatchedFolder.hpp"
#include "quillet_capture/platform/AgentLock.hpp"
#include "quillet_capture/platform/FileSignature.hpp"
#include "quillet_capture/platform/Paths.hpp"
#include "quillet_capture/util/AtomicFile.hpp"
#include "quillet_capture/util/Iso8601.hpp"

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <string>
#include <thread>

namespace quillet {

namespace {

namespace fs = std::filesystem;

bool hasFlag(const std::vector<std::string>& arguments, std::string_view flag)
{
    return std::find(arguments.begin(), arguments.end(), flag) != arguments.end();
}

// A relative `folder` made absolute: the agent and later commands run from other working
// folders. Absolute paths and "~" paths (the home folder wherever the program runs) are kept
// as typed.
std::string absoluteFolder(const std::string& folder)
{
    if (folder.empty() || folder.starts_with('~') || fs::path(folder).is_absolute()) {
        return folder;
    }
    auto path = fs::absolute(folder).lexically_normal();
    if (!path.has_filename() && path != path.root_path()) {
        path = path.parent_path();
    }
    return path.string();
}

// The vault named by --vault, or the iCloud Drive folder when the Mac has one (so notes show
// up in Files on the phone), else the documents folder.
std::string chooseVault(const std::vector<std::string>& arguments)
{
    if (auto vault = option("--vault", arguments)) {
        // An empty value (an unset shell variable, say) would put the inbox at the root.
        if (vault->empty()) {
            fail("--vault needs a folder");
        }
        return absoluteFolder(Paths::expandTilde(*vault));
    }
    std::error_code ignored;
    if (fs::is_directory(Paths::iCloudDrive(), ignored)) {
        out("No --vault given: using iCloud Drive/quillet (visible in Files on your iPhone).");
        return Paths::iCloudDrive().string() + "/quillet";
    }
    out("No --vault given and iCloud Drive is off on this Mac: using ~/Documents/quillet.");
    return Paths::documentsFolder().string() + "/quillet";
}

// Every "--watch <folder>", in order; a second mention of the same folder (by id, so "~/x"
// and its absolute form are one folder, or by resolved path, so "x/", "x/." and a link to x
// are too) is dropped, and so is the Voice Memos folder, which is watched anyway.
std::vector<WatchedFolder> watchOptions(const std::vector<std::string>& arguments)
{
    std::vector<WatchedFolder> folders;
    auto voiceMemos = WatchedFolder::voiceMemos(true).resolvedURL();
    for (size_t i = 0; i + 1 < arguments.size(); ++i) {
        if (arguments[i] != "--watch") {
            continue;
        }
        auto folder = WatchedFolder::generic(absoluteFolder(arguments[++i]));
        auto resolved = folder.resolvedURL();
        bool known = resolved == voiceMemos || std::any_of(folders.begin(), folders.end(), [&](const auto& f) {
                         return f.id == folder.id || f.resolvedURL() == resolved;
                     });
        if (!known) {
            folders.push_back(std::move(folder));
        }
    }
    return folders;
}

std::string onOff(bool on)
{
    return on ? "on" : "off";
}

// A running agent takes a new settings file soon after it is saved; the person is told
// whether it has, or a capture could go to a vault they no longer expect.
void tellRunningAgent()
{
    std::error_code error;
    if (!fs::exists(AgentLock::file(), error)) {
        return;  // no agent ever ran on this state folder
    }
    auto lock = AgentLock::take();
    if (lock.taken()) {
        return;  // none runs: the next one reads the file when it starts
    }
    const long pid = lock.holder().value_or(0);
    const std::string agent =
        pid > 0 ? "The running agent (pid " + std::to_string(pid) + ")" : std::string("The running agent");
    const auto saved = FileSignature::of(Settings::fileURL()).text();
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(3);
    for (;;) {
        if (AgentSettings::acknowledged() == saved) {
            out(agent + " now uses these settings.");
            return;
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    out(agent + " has not taken these settings yet; it will at its next look at the settings file (within " +
        std::to_string(static_cast<int>(CaptureCoordinator::pollInterval)) +
        " seconds), or restart it to be sure.");
}

} // namespace

void cmdSetup(const std::vector<std::string>& arguments)
{
    std::string vault = chooseVault(arguments);

    std::error_code error;
    fs::create_directories(vault + "/_inbox", error);
    if (error) {
        fail("Could not create " + vault + "/_inbox: " + error.message());
    }

    bool upload = !hasFlag(arguments, "--no-upload");
    bool keepVoiceMemos = !hasFlag(arguments, "--no-keep-voice-memos");
    // Like --no-upload, each setup says it anew; without the flag the key is left out, which
    // reads as on, so a settings file of a setup without it stays as it was before the key.
    bool notifications = !hasFlag(arguments, "--no-notifications");
    auto extraFolders = watchOptions(arguments);

    auto& store = Settings::shared();
    AppSettings changed = store.settings;
    changed.vaultPath = vault;
    changed.vaultName = WatchedFolder::lastPathComponent(vault);
    changed.additionalPaths = {};
    changed.remotesPath = std::nullopt;
    changed.watchedFoldersRaw = std::vector{WatchedFolder::voiceMemos(true)};
    changed.watchedFoldersRaw->insert(changed.watchedFoldersRaw->end(), extraFolders.begin(), extraFolders.end());
    changed.captureVoiceMemosEnabled = true;
    changed.captureVeldaneEnabled = upload;
    changed.keepVoiceMemosRunning = keepVoiceMemos;
    changed.notifications = notifications ? std::nullopt : std::optional(false);
    if (auto command = option("--after-transcript", arguments)) {
        auto trimmed = Settings::trimmed(*command);
        changed.afterTranscriptCommand = trimmed.empty() ? std::nullopt : std::optional(trimmed);
    }
    store.settings = changed;
    // A settings file that could not be read is the user's: kept beside the new one.
    if (store.unreadable()) {
        auto stamp = Iso8601::format(std::chrono::system_clock::now());
        std::erase(stamp, ':');
        if (auto kept = keepAside(Settings::fileURL(), stamp); kept.path) {
            out("Kept the settings file that could not be read as " + kept.path->string());
        }
    }
    store.save();
    // From here on whatever arrives in these folders is the user's to capture, even should
    // the agent's first index never end, and every capture can be retried.
    auto now = std::chrono::system_clock::now();
    for (const auto& folder : store.enabledWatchedFolders()) {
        FirstWatched::fix(folder.id, now);
    }
    CaptureRetry::retryWatermark();

    out("Saved " + fs::absolute(Settings::fileURL(), error).string());
    out("  vault:              " + vault);
    out("  Voice Memos folder: " + WatchedFolder::voiceMemos(true).url().string());
    for (const auto& folder : extraFolders) {
        out("  watched folder:     " + folder.path);
    }
    out("  upload to Veldane: " + onOff(upload));
    out("  keep Voice Memos running: " + onOff(keepVoiceMemos));
    out("  after a transcript: " + changed.afterTranscriptCommand.value_or("off"));
    if (!notifications) {
        out("  desktop notifications: off");
    }
    tellRunningAgent();
    out();
    out(std::string("Next: quillet-capture pair") + (upload ? "" : "  (only needed for upload)"));
}

} // namespace quillet
