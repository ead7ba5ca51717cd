#include "quillet_capture/config/WatchedFolder.hpp"

#include "quillet_capture/capture/CaptureAccess.hpp"
#include "quillet_capture/platform/Paths.hpp"
#include "quillet_capture/recording/StrictJson.hpp"

#include <algorithm>
#include <cctype>
#include <cstdint>

namespace quillet {

namespace {

std::string folderId(std::string_view expandedPath)
{
    std::uint64_t hash = 0xcbf29ce484222325ULL;
    for (unsigned char byte : expandedPath) {
        hash ^= byte;
        hash *= 0x100000001b3ULL;
    }
    constexpr std::string_view digits = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZ";
    std::string base36;
    do {
        base36.insert(base36.begin(), digits[hash % 36]);
        hash /= 36;
    } while (hash != 0);
    return "folder-" + base36;
}

std::string normaliserName(WatchedFolder::Normaliser normaliser)
{
    return normaliser == WatchedFolder::Normaliser::voiceMemos ? "voiceMemos" : "none";
}

} // namespace

WatchedFolder WatchedFolder::voiceMemos(bool enabled)
{
    return {std::string(kVoiceMemosFolderId), CaptureAccess::voiceMemosURL().string(), "Voice Memos", enabled, {},
            Normaliser::voiceMemos};
}

WatchedFolder WatchedFolder::generic(const std::string& path, std::optional<std::string> displayName)
{
    std::string expanded = Paths::expandTilde(path);
    return {folderId(expanded), path, displayName ? std::move(*displayName) : lastPathComponent(expanded), true, {},
            Normaliser::none};
}

bool WatchedFolder::isVoiceMemos() const
{
    return id == kVoiceMemosFolderId;
}

std::filesystem::path WatchedFolder::url() const
{
    if (isVoiceMemos()) {
        return CaptureAccess::voiceMemosURL();
    }
    return Paths::expandTilde(path);
}

std::filesystem::path WatchedFolder::resolvedURL() const
{
    std::error_code error;
    auto resolved = std::filesystem::weakly_canonical(url(), error);
    if (error) {
        resolved = url();
    }
    resolved = resolved.lexically_normal();
    // "/a/b/" and "/a/b" name one folder; only the root keeps its separator.
    if (!resolved.has_filename() && resolved.has_parent_path() && resolved != resolved.root_path()) {
        resolved = resolved.parent_path();
    }
    return resolved;
}

std::set<std::string> WatchedFolder::effectiveExtensions() const
{
    return lowerCasedSet(extensions);
}

std::set<std::string> lowerCasedSet(const std::vector<std::string>& words)
{
    std::set<std::string> result;
    for (std::string word : words) {
        std::transform(word.begin(), word.end(), word.begin(),
                       [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
        result.insert(std::move(word));
    }
    return result;
}

std::string WatchedFolder::lastPathComponent(std::string_view path)
{
    auto end = path.find_last_not_of('/');
    if (end == std::string_view::npos) {
        return path.empty() ? "" : "/";
    }
    path = path.substr(0, end + 1);
    auto slash = path.rfind('/');
    return std::string(slash == std::string_view::npos ? path : path.substr(slash + 1));
}

void to_json(nlohmann::json& json, const WatchedFolder& folder)
{
    json = {{"id", folder.id},
            {"path", folder.path},
            {"displayName", folder.displayName},
            {"enabled", folder.enabled},
            {"extensions", folder.extensions},
            {"normaliser", normaliserName(folder.normaliser)}};
}

void from_json(const nlohmann::json& json, WatchedFolder& folder)
{
    if (!json.is_object()) {
        throw JsonDecodeError("a watched folder must be an object");
    }
    folder.id = strictJson::required<std::string>(json, "id");
    folder.path = strictJson::required<std::string>(json, "path");
    folder.displayName = strictJson::required<std::string>(json, "displayName");
    folder.enabled = strictJson::required<bool>(json, "enabled");
    folder.extensions = strictJson::required<std::vector<std::string>>(json, "extensions");
    auto normaliser = strictJson::required<std::string>(json, "normaliser");
    if (normaliser == "voiceMemos") {
        folder.normaliser = WatchedFolder::Normaliser::voiceMemos;
    } else if (normaliser == "none") {
        folder.normaliser = WatchedFolder::Normaliser::none;
    } else {
        throw JsonDecodeError("unknown normaliser \"" + normaliser + "\"");
    }
}

} // namespace quillet
