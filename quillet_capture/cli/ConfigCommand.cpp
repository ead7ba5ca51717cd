#include "quillet_capture/cli/Commands.hpp"
#include "quillet_capture/cli/Console.hpp"
#include "quillet_capture/capture/FirstWatched.hpp"
#include "quillet_capture/config/SettingKeys.hpp"
#include "quillet_capture/config/Settings.hpp"
#include "quillet_capture/config/WatchedFolder.hpp"
#include "quillet_capture/platform/Paths.hpp"
#include "quillet_capture/runtime/MainLoop.hpp"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>

namespace quillet {

namespace {

namespace fs = std::filesystem;
using nlohmann::json;

[[noreturn]] void refuse(const std::string& text)
{
    std::fflush(stdout);
    std::fprintf(stderr, "%s\n", text.c_str());
    runtime::exitProcess(2);
}

// Before any setup the store holds the built-in record, whose values nobody chose: every
// key shows its default.
bool isSetUp(const Settings& store)
{
    return !store.isFirstRun() && !store.unreadable();
}

std::string shown(const Settings& store, const SettingKeys::Key& key)
{
    auto stored = isSetUp(store) ? SettingKeys::storedText(store.settings, key) : std::nullopt;
    return stored ? *stored : "(default: " + std::string(key.defaultValue) + ")";
}

const SettingKeys::Key& keyNamed(const std::string& name)
{
    if (const auto* key = SettingKeys::find(name)) {
        return *key;
    }
    if (SettingKeys::isKeptForTheApp(name)) {
        refuse("config: " + name + " is kept for the menu-bar app; quillet-capture does not read it");
    }
    refuse("config: unknown key \"" + name + "\" (quillet-capture config list shows them all)");
}

Settings& setUpStore()
{
    auto& store = Settings::shared();
    if (!isSetUp(store)) {
        refuse("nothing is set up yet. Run setup first.");
    }
    return store;
}

// The folder a person typed, as setup stores it.
WatchedFolder typedFolder(const std::string& path)
{
    if (path.empty()) {
        refuse("config: a folder is needed, not an empty value");
    }
    return WatchedFolder::generic(absoluteFolder(path));
}

void saveAndTell(Settings& store, const AppSettings& changed)
{
    const auto before = Settings(store.settings).enabledWatchedFolders();
    store.settings = changed;
    store.save();
    // What is already in a newly watched folder is there from before: the agent treats it as
    // existing, not new.
    auto now = std::chrono::system_clock::now();
    for (const auto& folder : store.enabledWatchedFolders()) {
        bool wasWatched = std::any_of(before.begin(), before.end(), [&](const auto& f) { return f.id == folder.id; });
        if (!wasWatched) {
            FirstWatched::fix(folder.id, now);
        }
    }
}

void list(const std::vector<std::string>& arguments)
{
    const auto& store = Settings::shared();
    if (std::find(arguments.begin(), arguments.end(), "--json") != arguments.end()) {
        json result = json::object();
        for (const auto& key : SettingKeys::all()) {
            result[std::string(key.name)] = {
                {"value", isSetUp(store) ? SettingKeys::storedJSON(store.settings, key) : json(nullptr)},
                {"default", std::string(key.defaultValue)},
            };
        }
        out(result.dump(2, ' ', false, json::error_handler_t::replace));
        return;
    }
    for (const auto& key : SettingKeys::all()) {
        auto text = shown(store, key);
        if (key.kind == SettingKeys::Kind::folders && !text.starts_with("(default")) {
            out(std::string(key.name) + ":");
            for (size_t start = 0; start <= text.size();) {
                auto end = std::min(text.find('\n', start), text.size());
                out("  " + text.substr(start, end - start));
                start = end + 1;
            }
        } else {
            out(std::string(key.name) + ": " + text);
        }
    }
}

void change(const std::string& name, const std::optional<std::string>& value)
{
    const auto& key = keyNamed(name);
    auto& store = setUpStore();
    AppSettings changed = store.settings;
    try {
        if (value) {
            SettingKeys::set(changed, key, *value);
        } else {
            SettingKeys::unset(changed, key);
        }
    } catch (const SettingKeys::InvalidValue& error) {
        refuse(std::string("config: ") + error.what());
    }
    if (key.kind == SettingKeys::Kind::folder) {
        std::error_code error;
        fs::create_directories(Paths::expandTilde(changed.vaultPath) + "/_inbox", error);
        if (error) {
            refuse("config: could not create " + changed.vaultPath + "/_inbox: " + error.message());
        }
    }
    const auto from = shown(store, key);
    const bool same = changed == store.settings;
    if (!same) {
        saveAndTell(store, changed);
    }
    out(name + ": " + from + " -> " + shown(store, key));
    if (!same) {
        tellRunningAgent();
    }
}

void watch(const std::string& path)
{
    auto& store = setUpStore();
    auto folder = typedFolder(path);
    std::error_code error;
    if (fs::exists(folder.url(), error) && !fs::is_directory(folder.url(), error)) {
        refuse("config: " + folder.path + " is not a folder");
    }
    AppSettings changed = store.settings;
    auto folders = Settings(changed).watchedFolders();
    const auto resolved = folder.resolvedURL();
    auto same = std::find_if(folders.begin(), folders.end(), [&](const WatchedFolder& f) {
        return f.id == folder.id || f.resolvedURL() == resolved;
    });
    if (resolved == WatchedFolder::voiceMemos(true).resolvedURL()) {
        same = std::find_if(folders.begin(), folders.end(), [](const auto& f) { return f.isVoiceMemos(); });
        if (same == folders.end() || !same->enabled) {
            SettingKeys::set(changed, *SettingKeys::find("captureVoiceMemosEnabled"), "true");
            saveAndTell(store, changed);
            out("Watching " + WatchedFolder::voiceMemos(true).url().string() + " (the Voice Memos folder)");
            tellRunningAgent();
            return;
        }
    }
    if (same != folders.end() && same->enabled) {
        out(folder.path + " is already watched" + (same->path == folder.path ? "" : " (as " + same->path + ")"));
        return;
    }
    if (same != folders.end()) {
        same->enabled = true;
    } else {
        folders.push_back(folder);
    }
    changed.watchedFoldersRaw = folders;
    saveAndTell(store, changed);
    out("Watching " + folder.path);
    tellRunningAgent();
}

void unwatch(const std::string& path)
{
    auto& store = setUpStore();
    auto folder = typedFolder(path);
    AppSettings changed = store.settings;
    auto folders = Settings(changed).watchedFolders();
    const auto resolved = folder.resolvedURL();
    auto same = std::find_if(folders.begin(), folders.end(), [&](const WatchedFolder& f) {
        return f.enabled && (f.id == folder.id || f.resolvedURL() == resolved);
    });
    if (same == folders.end()) {
        refuse("config: " + folder.path + " is not watched (quillet-capture config get watchedFoldersRaw lists them)");
    }
    const std::string removed = same->isVoiceMemos() ? same->url().string() : same->path;
    if (same->isVoiceMemos()) {
        // The Voice Memos entry stays, switched off, so that it can be switched on again.
        SettingKeys::set(changed, *SettingKeys::find("captureVoiceMemosEnabled"), "false");
    } else {
        folders.erase(same);
        changed.watchedFoldersRaw = folders;
    }
    saveAndTell(store, changed);
    out("No longer watching " + removed);
    tellRunningAgent();
}

std::optional<std::string> word(const std::vector<std::string>& arguments, size_t at)
{
    return at < arguments.size() ? std::optional(arguments[at]) : std::nullopt;
}

std::string required(const std::vector<std::string>& arguments, size_t at, const std::string& what)
{
    auto value = word(arguments, at);
    if (!value) {
        refuse("config " + arguments[1] + " needs " + what);
    }
    return *value;
}

} // namespace

void cmdConfig(const std::vector<std::string>& arguments)
{
    const auto subcommand = word(arguments, 1).value_or("list");
    if (subcommand == "list") {
        list(arguments);
    } else if (subcommand == "get") {
        const auto& key = keyNamed(required(arguments, 2, "a KEY"));
        const auto& store = Settings::shared();
        out(shown(store, key));
    } else if (subcommand == "set") {
        auto name = required(arguments, 2, "a KEY and a VALUE");
        keyNamed(name);
        change(name, required(arguments, 3, "a VALUE"));
    } else if (subcommand == "unset") {
        change(required(arguments, 2, "a KEY"), std::nullopt);
    } else if (subcommand == "watch") {
        watch(required(arguments, 2, "a folder"));
    } else if (subcommand == "unwatch") {
        unwatch(required(arguments, 2, "a folder"));
    } else {
        refuse("config: unknown subcommand \"" + subcommand + "\" (list, get, set, unset, watch, unwatch)");
    }
}

} // namespace quillet
