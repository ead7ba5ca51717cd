#include "quillet_capture/platform/Paths.hpp"

#include <array>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <string_view>
#include <pwd.h>
#include <unistd.h>

namespace quillet::Paths {

namespace {

std::optional<std::string> processEnv(const char* name)
{
    const char* value = std::getenv(name);
    if (value == nullptr) {
        return std::nullopt;
    }
    return std::string(value);
}

std::string homeFrom(const EnvLookup& env)
{
    if (auto value = env("HOME"); value && !value->empty()) {
        return *value;
    }
    if (const passwd* entry = getpwuid(getuid()); entry != nullptr && entry->pw_dir != nullptr) {
        return entry->pw_dir;
    }
    return "/";
}

// XDG base directories must be absolute; a relative or empty value is ignored.
path xdg(const EnvLookup& env, const char* name, const path& home, const char* fallback)
{
    if (auto value = env(name); value && !value->empty() && value->front() == '/') {
        return *value;
    }
    return home / fallback;
}

} // namespace

Layout layoutFor(Platform platform, const EnvLookup& env)
{
    Layout l;
    l.home = homeFrom(env);
    const path& home = l.home;
    if (platform == Platform::macOS) {
        path support = home / "Library/Application Support/quillet";
        l.settingsFile = support / "settings.json";
        l.stateFolder = support;
        l.logFolder = home / "Library/Logs/quillet";
        l.agentDefinition = home / "Library/LaunchAgents/se.Brannick.quillet.capture.plist";
        l.oldAgentDefinition = home / "Library/LaunchAgents/se.kestrin.pellam-capture.plist";
        l.credentialsFile = support / "credentials.json";
        l.defaultsFile = home / "Library/Preferences/quillet-capture.plist";
        l.recordingsRoot = support / "Recordings";
        path oldLogs = home / "Library/Logs/pellam";
        l.pellam.folders = {{home / "Library/Application Support/pellam", support}, {oldLogs, l.logFolder}};
        l.pellam.settingsFile = home / ".pellam/settings.json";
        l.pellam.logFile = oldLogs / "pellam.log";
        l.pellam.rotatedLogFile = oldLogs / "pellam.1.log";
    } else {
        path config = xdg(env, "XDG_CONFIG_HOME", home, ".config");
        path state = xdg(env, "XDG_STATE_HOME", home, ".local/state");
        path data = xdg(env, "XDG_DATA_HOME", home, ".local/share");
        l.settingsFile = config / "quillet/settings.json";
        l.stateFolder = state / "quillet";
        l.logFolder = state / "quillet";
        l.agentDefinition = config / "systemd/user/se.Brannick.quillet.capture.service";
        l.oldAgentDefinition = config / "systemd/user/se.kestrin.pellam-capture.service";
        l.credentialsFile = config / "quillet/credentials.json";
        l.defaultsFile = state / "quillet/defaults.json";
        l.recordingsRoot = data / "quillet/Recordings";
        l.pellam.folders = {
            {config / "pellam", config / "quillet"}, {state / "pellam", l.stateFolder}, {data / "pellam", data / "quillet"}};
        l.pellam.settingsFile = config / "pellam/settings.json";
        l.pellam.logFile = state / "pellam/pellam.log";
        l.pellam.rotatedLogFile = state / "pellam/pellam.1.log";
    }
    l.pellam.agentDefinition = l.oldAgentDefinition;
    l.stateFile = l.stateFolder / "state.json";
    l.logFile = l.logFolder / "quillet.log";
    l.rotatedLogFile = l.logFolder / "quillet.1.log";
    l.agentOutputFile = l.logFolder / "quillet-capture.out.log";
    l.legacyWatcherFile = home / ".voice_memo_watcher_state.json";
    l.voiceMemosCandidates = {
        home / "Library/Group Containers/group.com.apple.VoiceMemos.shared/Recordings",
        home / "Library/Application Support/com.apple.voicememos/Recordings",
    };
    l.iCloudDrive = home / "Library/Mobile Documents/com~apple~CloudDocs";
    l.documentsFolder = home / "Documents";
    return l;
}

namespace {

// The layout of `platform` for the process environment now, kept for the values of the
// variables it was made from: file locations are asked for often (the token store's, for
// every request to the service), and making the whole layout costs some thirty paths.
std::shared_ptr<const Layout> currentLayout(Platform platform)
{
    struct Made {
        Platform platform;
        std::array<std::optional<std::string>, 4> inputs;
        std::shared_ptr<const Layout> layout;
    };
    // Never destroyed: threads that log may still ask for the log file's path while the
    // process exits.
    static auto* lock = new std::mutex;
    static auto* last = new std::optional<Made>;
    std::array<std::optional<std::string>, 4> inputs{processEnv("HOME"), processEnv("XDG_CONFIG_HOME"),
                                                      processEnv("XDG_STATE_HOME"), processEnv("XDG_DATA_HOME")};
    std::lock_guard guard(*lock);
    auto& made = *last;
    if (!made || made->platform != platform || made->inputs != inputs) {
        auto env = [&inputs](const char* name) -> std::optional<std::string> {
            static constexpr const char* kNames[] = {"HOME", "XDG_CONFIG_HOME", "XDG_STATE_HOME", "XDG_DATA_HOME"};
            for (std::size_t i = 0; i < inputs.size(); ++i) {
                if (std::string_view(kNames[i]) == name) {
                    return inputs[i];
                }
            }
            return processEnv(name);
        };
        made = Made{platform, inputs, std::make_shared<const Layout>(layoutFor(platform, env))};
    }
    return made->layout;
}

std::shared_ptr<const Layout> currentLayout()
{
    return currentLayout(current());
}

} // namespace

Layout layout()
{
    return *currentLayout();
}

Layout layout(Platform platform)
{
    return *currentLayout(platform);
}

path home()
{
    return homeFrom(processEnv);
}

path settingsFile() { return currentLayout()->settingsFile; }
path stateFile() { return currentLayout()->stateFile; }
path logFolder() { return currentLayout()->logFolder; }
path logFile() { return currentLayout()->logFile; }
path rotatedLogFile() { return currentLayout()->rotatedLogFile; }
path agentOutputFile() { return currentLayout()->agentOutputFile; }
path agentDefinition() { return currentLayout()->agentDefinition; }
path oldAgentDefinition() { return currentLayout()->oldAgentDefinition; }
path credentialsFile() { return currentLayout()->credentialsFile; }
path defaultsFile() { return currentLayout()->defaultsFile; }
path recordingsRoot() { return currentLayout()->recordingsRoot; }
path legacyWatcherFile() { return currentLayout()->legacyWatcherFile; }
std::vector<path> voiceMemosCandidates() { return currentLayout()->voiceMemosCandidates; }
path iCloudDrive() { return currentLayout()->iCloudDrive; }
path documentsFolder() { return currentLayout()->documentsFolder; }
PellamLayout pellam() { return currentLayout()->pellam; }

std::string expandTilde(std::string_view text)
{
    if (text == "~") {
        return home().string();
    }
    if (text.starts_with("~/")) {
        std::string base = home().string();
        if (!base.empty() && base.back() == '/') {
            base.pop_back();
        }
        return base + std::string(text.substr(1));
    }
    return std::string(text);
}

} // namespace quillet::Paths
