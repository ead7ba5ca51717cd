#pragma once

#include <nlohmann/json_fwd.hpp>

#include <filesystem>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace quillet {

/// One folder that the agent watches for recordings. In the settings file a JSON object with
/// the keys "id", "path", "displayName", "enabled", "extensions", "normaliser", all required.
struct WatchedFolder {
    /// How file names from the folder become recording names: Voice Memos' own naming, or
    /// none. Stored as "voiceMemos" or "none".
    enum class Normaliser { voiceMemos, none };

    std::string id;          // stable identity; "voice-memos" for the Voice Memos folder
    std::string path;        // as entered; may start with "~"
    std::string displayName; // shown to the user
    bool enabled = false;
    std::vector<std::string> extensions; // empty: the capture machinery's default audio set
    Normaliser normaliser = Normaliser::none;

    /// The Voice Memos recordings folder: id "voice-memos", the absolute path of the folder
    /// where Voice Memos keeps its recordings, display name "Voice Memos", no extensions,
    /// normaliser `voiceMemos`. Reads the disk to find the folder.
    static WatchedFolder voiceMemos(bool enabled);

    /// Any other folder, enabled: id "folder-" and the FNV-1a 64-bit hash of the
    /// tilde-expanded path in upper-case base 36 (so "~/x" and its absolute form get the same
    /// id); `path` kept as given; the display name is `displayName` or else the last path
    /// component of the expanded path; no extensions; normaliser `none`.
    static WatchedFolder generic(const std::string& path, std::optional<std::string> displayName = std::nullopt);

    /// True for the Voice Memos folder (its id is "voice-memos").
    bool isVoiceMemos() const;

    /// The folder to list: Voice Memos' recordings folder for the Voice Memos entry (whatever
    /// `path` says), otherwise `path` with a leading tilde expanded.
    std::filesystem::path url() const;

    /// `url()` with symbolic links, "." and ".." resolved as far as the folder exists and no
    /// trailing separator: two entries with the same resolved URL are one folder on disk.
    std::filesystem::path resolvedURL() const;

    /// `extensions` lower-cased, as a set.
    std::set<std::string> effectiveExtensions() const;

    /// The last component of `path` as a file browser names it: trailing slashes ignored,
    /// "/" for the root folder.
    static std::string lastPathComponent(std::string_view path);

    bool operator==(const WatchedFolder&) const = default;
};

/// `words` lower-cased (ASCII letters), as a set: how extension lists are compared.
std::set<std::string> lowerCasedSet(const std::vector<std::string>& words);

/// The id that `WatchedFolder::voiceMemos` gets.
inline constexpr std::string_view kVoiceMemosFolderId = "voice-memos";

void to_json(nlohmann::json& json, const WatchedFolder& folder);
/// Throws JsonDecodeError when a key is missing, a value has the wrong type or the normaliser
/// is not "voiceMemos" or "none".
void from_json(const nlohmann::json& json, WatchedFolder& folder);

} // namespace quillet
