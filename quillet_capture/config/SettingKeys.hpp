#pragma once

#include "quillet_capture/config/AppSettings.hpp"

#include <nlohmann/json_fwd.hpp>

#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace quillet {

/// The keys of the settings file that quillet-capture reads, each once: its name in the file,
/// the kind of value it takes, its default and what it does. The `config` command and the
/// manual page's SETTINGS section are both held to this table. Keys the file also carries for
/// the menu-bar app's sake are not in it.
namespace SettingKeys {

/// The kind of value a key takes, which decides how a typed value is checked.
enum class Kind {
    boolean,  // "true" or "false"
    folder,   // a folder, stored absolute (a leading "~" kept)
    url,      // an absolute http(s) URL
    command,  // a shell command, stored trimmed; one that trims to nothing removes the key
    patterns, // a JSON array of strings
    folders,  // the watched folders: changed with `config watch` / `config unwatch` only
};

struct Key {
    std::string_view name;         // the JSON key
    Kind kind;
    std::string_view type;         // the kind as the manual page writes it
    std::string_view defaultValue; // what applies when the key is absent, as the manual writes it
    std::string_view meaning;      // one line
};

/// A typed value that the key does not take. `what()` is one line for the person, naming the
/// key and what it wants.
struct InvalidValue : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// Every key, in the order `config list` shows them.
const std::vector<Key>& all();

/// The key named `name` (exact, case-sensitive); absent when the program reads no such key.
const Key* find(std::string_view name);

/// True when `name` is a key of the settings file that only the menu-bar app reads.
bool isKeptForTheApp(std::string_view name);

/// The stored value as `config get` prints it; absent when the key is not in the file (its
/// default applies). Watched folders print as their paths, one per line, a disabled one
/// followed by " (off)".
std::optional<std::string> storedText(const AppSettings& settings, const Key& key);

/// The stored value as JSON (`config list --json`); null when the key is not in the file.
nlohmann::json storedJSON(const AppSettings& settings, const Key& key);

/// Stores `value` for `key` in `settings`, checked and normalised as setup does (folders made
/// absolute, commands trimmed). Throws InvalidValue when the value is not one the key takes,
/// or for the watched folders, which `set` does not change.
void set(AppSettings& settings, const Key& key, const std::string& value);

/// Removes `key` from `settings`, so its default applies. Throws InvalidValue for a key that
/// the file must hold (vaultPath) and for the watched folders.
void unset(AppSettings& settings, const Key& key);

} // namespace SettingKeys

/// `folder` made absolute against the working folder: the agent and later commands run from
/// other folders. Absolute paths and "~" paths (the home folder wherever the program runs) are
/// kept as typed; a trailing separator is dropped.
std::string absoluteFolder(const std::string& folder);

} // namespace quillet
