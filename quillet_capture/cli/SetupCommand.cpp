#include "quillet_capture/cli/Commands.hpp"
#include "quillet_capture/cli/Console.hpp"
#include "quillet_capture/capture/CaptureCoordinator.hpp"
#include "quillet_capture/capture/FirstWatched.hpp"
#include "quillet_capture/pipeline/CaptureRetry.hpp"
#include "quillet_capture/config/AgentSettings.hpp"
#include "quillet_capture/config/SettingKeys.hpp"
#include "quillet_capture/config/Settings.hpp"
#include "quillet_capture/config/WatchedFolder.hpp"
#include "quillet_capture/platform/AgentLock.hpp"
#include "quillet_capture/platform/FileSignature.hpp"
#include "quillet_capture/platform/Paths.hpp"
#include "quillet_capture/platform/System.hpp"
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

// The vault named by --vault; absent without the option.
std::optional<std::string> vaultOption(const std::vector<std::string>& arguments)
{
    auto vault = option("--vault", arguments);
    if (!vault) {
        return std::nullopt;
    }
    // An empty value (an unset shell variable, say) would put the inbox at the root.
    if (vault->empty()) {
        fail("--vault needs a folder");
    }
    return absoluteFolder(Paths::expandTilde(*vault));
}

// The vault of a first setup without --vault: on a Mac the iCloud Drive folder when there is
// one (so notes show up in Files on the phone), else the documents folder.
std::string defaultVault()
{
    std::error_code ignored;
    if (!System::hasVoiceMemos()) {
        out("No --vault given: using ~/Documents/quillet.");
        return Paths::documentsFolder().string() + "/quillet";
    }
    if (fs::is_directory(Paths::iCloudDrive(), ignored)) {
        out("No --vault given: using iCloud Drive/quillet (visible in Files on your iPhone).");
        return Paths::iCloudDrive().string() + "/quillet";
    }
    out("No --vault given and iCloud Drive is off on this Mac: using ~/Documents/quillet.");
    return Paths::documentsFolder().string() + "/quillet";
}

// Every "--watch <folder>", in order; a second mention of the same folder (by id, so "~/x"
// and its absolute form are one folder, or by resolved path, so "x/", "x/." and a link to x
// are too) is dropped, and so is the Voice Memos folder, which has its own entry:
// `namesVoiceMemos` says whether it was named.
std::vector<WatchedFolder> watchOptions(const std::vector<std::string>& arguments, bool& namesVoiceMemos)
{
    std::vector<WatchedFolder> folders;
    auto voiceMemos = WatchedFolder::voiceMemos(true).resolvedURL();
    namesVoiceMemos = false;
    for (size_t i = 0; i + 1 < arguments.size(); ++i) {
        if (arguments[i] != "--watch") {
            continue;
        }
        auto folder = WatchedFolder::generic(absoluteFolder(arguments[++i]));
        auto resolved = folder.resolvedURL();
        if (resolved == voiceMemos) {
            namesVoiceMemos = true;
            continue;
        }
        bool known = std::any_of(folders.begin(), folders.end(), [&](const auto& f) {
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

} // namespace

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

namespace {

// The folders of this system's recorders that are there, as the person would type them.
std::vector<std::string> recorderFoldersHere()
{
    std::vector<std::string> found;
    for (const auto& folder : System::recorderFolders()) {
        std::error_code ignored;
        if (fs::is_directory(Paths::expandTilde(folder), ignored)) {
            found.push_back(folder);
        }
    }
    return found;
}

} // namespace

void cmdSetup(const std::vector<std::string>& arguments)
{
    auto& store = Settings::shared();
    // A second setup changes only what its options name: the person's earlier choices stay.
    const bool existing = !store.isFirstRun() && !store.unreadable();
    const AppSettings before = store.settings;
    const bool hasVoiceMemos = System::hasVoiceMemos();

    auto namedVault = vaultOption(arguments);
    std::string vault = namedVault ? *namedVault : existing ? before.vaultPath : defaultVault();

    std::error_code error;
    fs::create_directories(Paths::expandTilde(vault) + "/_inbox", error);
    if (error) {
        fail("Could not create " + vault + "/_inbox: " + error.message());
    }

    bool namesVoiceMemos = false;
    auto extraFolders = watchOptions(arguments, namesVoiceMemos);

    AppSettings changed = before;
    if (!existing) {
        changed.additionalPaths = {};
        changed.remotesPath = std::nullopt;
        // Voice Memos is watched on a Mac; elsewhere only when the person names its folder.
        const bool watchVoiceMemos = hasVoiceMemos || namesVoiceMemos;
        changed.watchedFoldersRaw = std::vector{WatchedFolder::voiceMemos(watchVoiceMemos)};
        changed.captureVoiceMemosEnabled = watchVoiceMemos;
        changed.captureVeldaneEnabled = true;
        changed.keepVoiceMemosRunning = watchVoiceMemos;
        changed.notifications = std::nullopt;
    } else if (namesVoiceMemos) {
        AppSettings withVoiceMemos = changed;
        SettingKeys::set(withVoiceMemos, *SettingKeys::find("captureVoiceMemosEnabled"), "true");
        changed = withVoiceMemos;
    }
    if (vault != before.vaultPath || !existing) {
        changed.vaultPath = vault;
        changed.vaultName = WatchedFolder::lastPathComponent(vault);
    }
    std::vector<WatchedFolder> added;
    if (!changed.watchedFoldersRaw) {
        changed.watchedFoldersRaw = Settings(changed).watchedFolders();
    }
    for (const auto& folder : extraFolders) {
        const auto resolved = folder.resolvedURL();
        const auto& folders = *changed.watchedFoldersRaw;
        bool known = std::any_of(folders.begin(), folders.end(), [&](const WatchedFolder& f) {
            return f.id == folder.id || f.resolvedURL() == resolved;
        });
        if (!known) {
            changed.watchedFoldersRaw->push_back(folder);
            added.push_back(folder);
        }
    }
    if (hasFlag(arguments, "--no-upload")) {
        changed.captureVeldaneEnabled = false;
    } else if (hasFlag(arguments, "--upload")) {
        changed.captureVeldaneEnabled = true;
    }
    if (hasFlag(arguments, "--no-keep-voice-memos")) {
        changed.keepVoiceMemosRunning = false;
    } else if (namesVoiceMemos && existing && !Settings(before).captureVoiceMemosEnabled()) {
        // Asking for the Voice Memos folder asks for what makes its recordings arrive.
        changed.keepVoiceMemosRunning = true;
    }
    if (hasFlag(arguments, "--no-notifications")) {
        changed.notifications = false;
    }
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

    const Settings after(changed);
    const Settings earlier(before);
    const bool upload = after.captureVeldaneEnabled();
    out("Saved " + fs::absolute(Settings::fileURL(), error).string());
    out("  vault:              " + vault);
    std::string voiceMemosLine = "  Voice Memos folder: " + WatchedFolder::voiceMemos(true).url().string();
    if (!hasVoiceMemos) {
        voiceMemosLine += after.captureVoiceMemosEnabled() ? " (watched)" : " (not watched)";
    }
    out(voiceMemosLine);
    for (const auto& folder : after.enabledWatchedFolders()) {
        if (!folder.isVoiceMemos()) {
            out("  watched folder:     " + folder.path);
        }
    }
    out("  upload to Veldane: " + onOff(upload));
    out("  keep Voice Memos running: " + onOff(after.keepVoiceMemosRunning()));
    out("  after a transcript: " + changed.afterTranscriptCommand.value_or("off"));
    if (!after.notifications()) {
        out("  desktop notifications: off");
    }
    if (existing) {
        auto changedLine = [](const std::string& what, const std::string& from, const std::string& to) {
            if (from != to) {
                out("Changed: " + what + " " + from + " -> " + to);
            }
        };
        changedLine("vault", before.vaultPath, changed.vaultPath);
        changedLine("Voice Memos folder", earlier.captureVoiceMemosEnabled() ? "watched" : "not watched",
                    after.captureVoiceMemosEnabled() ? "watched" : "not watched");
        for (const auto& folder : added) {
            out("Changed: watched folder added: " + folder.path);
        }
        changedLine("upload to Veldane", onOff(earlier.captureVeldaneEnabled()), onOff(upload));
        changedLine("keep Voice Memos running", onOff(earlier.keepVoiceMemosRunning()),
                    onOff(after.keepVoiceMemosRunning()));
        changedLine("after a transcript", earlier.afterTranscriptCommand().value_or("off"),
                    after.afterTranscriptCommand().value_or("off"));
        changedLine("desktop notifications", onOff(earlier.notifications()), onOff(after.notifications()));
    }
    if (after.enabledWatchedFolders().empty()) {
        out();
        out("Nothing is watched yet. Add a folder with: quillet-capture config watch PATH");
        out("  (or: quillet-capture setup --watch PATH)");
        auto found = recorderFoldersHere();
        if (!found.empty()) {
            std::string list;
            for (const auto& folder : found) {
                list += (list.empty() ? "" : ", ") + folder;
            }
            out("  Recorders' folders found here: " + list);
        }
    }
    tellRunningAgent();
    out();
    out(std::string("Next: quillet-capture pair") + (upload ? "" : "  (only needed for upload)"));
}

} // namespace quillet
