#pragma once

#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace quillet {

enum class Platform { macOS, linux };

/// Every file location of the program. This is the one place that builds paths from the home
/// folder; everything else asks here. Each call reads the environment afresh, so a changed
/// `$HOME` (as in tests) takes effect at once.
namespace Paths {

using std::filesystem::path;

/// Where the predecessor product Pellam kept its files on the same platform, each beside
/// the quillet location that takes it over.
struct PellamLayout {
    /// Each Pellam folder, and the quillet folder that takes over what it holds. macOS:
    /// Application Support and Logs; Linux: the "pellam" folders of the XDG config, state and
    /// data homes.
    std::vector<std::pair<path, path>> folders;
    path settingsFile;   // macOS: ~/.pellam/settings.json; Linux: inside the config folder
    path logFile;        // "pellam.log", becomes `Layout::logFile`
    path rotatedLogFile; // "pellam.1.log", becomes `Layout::rotatedLogFile`
    path agentDefinition; // the same as `Layout::oldAgentDefinition`
};

/// All locations for one platform and one home folder.
struct Layout {
    path home;
    path settingsFile;
    path stateFolder;      // holds state.json
    path stateFile;
    path logFolder;        // log, rotated log and the agent's output file
    path logFile;
    path rotatedLogFile;
    path agentOutputFile;
    path agentDefinition;  // LaunchAgent plist or systemd user unit
    path oldAgentDefinition; // the predecessor Pellam's agent definition
    path credentialsFile;  // the token file when no Secret Service answers (Linux)
    path defaultsFile;     // user defaults (Linux; macOS keeps them in CFPreferences)
    path recordingsRoot;   // the companion recorder's recordings
    path legacyWatcherFile;
    std::vector<path> voiceMemosCandidates;
    path iCloudDrive;
    path documentsFolder;
    PellamLayout pellam;
};

/// Looks up an environment variable; absent when unset.
using EnvLookup = std::function<std::optional<std::string>(const char*)>;

/// The layout of `platform` for the environment `env`. Pure: tests compute both platforms'.
Layout layoutFor(Platform platform, const EnvLookup& env);

/// The platform this program was built for.
Platform current();

/// The layout of this platform for the process environment now.
Layout layout();

/// The layout of `platform` for the process environment now (the launchd and systemd agent
/// back ends each use their own platform's layout, whichever platform runs them).
Layout layout(Platform platform);

/// `$HOME` when set and not empty, else the user database's home folder.
path home();

path settingsFile();
path stateFile();
path logFolder();
path logFile();
path rotatedLogFile();
path agentOutputFile();
path agentDefinition();
path oldAgentDefinition();
path credentialsFile();
path defaultsFile();
path recordingsRoot();
path legacyWatcherFile();
std::vector<path> voiceMemosCandidates();
path iCloudDrive();
path documentsFolder();
PellamLayout pellam();

/// Replaces a leading "~" (alone or followed by "/") with the home folder; anything else is
/// returned unchanged.
std::string expandTilde(std::string_view text);

} // namespace Paths
} // namespace quillet
