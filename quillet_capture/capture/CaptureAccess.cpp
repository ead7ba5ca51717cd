#include "quillet_capture/capture/CaptureAccess.hpp"

#include "quillet_capture/config/Log.hpp"
#include "quillet_capture/platform/Paths.hpp"
#include "quillet_capture/platform/System.hpp"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <mutex>
#include <set>

#include <dirent.h>

namespace quillet::CaptureAccess {

namespace fs = std::filesystem;

namespace {

constexpr std::string_view kFullDiskAccessURL = "x-apple.systempreferences:com.apple.preference.security?Privacy_AllFiles";

std::string files(std::int64_t count)
{
    return std::to_string(count) + (count == 1 ? " file" : " files");
}

std::string lowerCased(std::string text)
{
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

bool isPermissionError(const std::error_code& error)
{
    return error == std::errc::operation_not_permitted || error == std::errc::permission_denied;
}

State listingFailed(const fs::path& folder, const std::error_code& error)
{
    // Whatever the cause, the user can do nothing but check the grant, so every failure is
    // reported as denied; only the log tells the unexpected ones apart.
    // Logged once per folder and error: the watcher probes every poll.
    static std::mutex lock;
    static std::set<std::string> logged;
    std::lock_guard guard(lock);
    if (!isPermissionError(error) && logged.insert(folder.string() + '\0' + error.message()).second) {
        rlog("[quillet] capture: unexpected error probing %@: %@", folder.string(), error.message());
    }
    return State::denied();
}

} // namespace

bool State::needsAttention() const
{
    return kind_ == Kind::empty || kind_ == Kind::denied || kind_ == Kind::missing;
}

std::string State::summary(std::string_view folderName) const
{
    std::string name(folderName);
    switch (kind_) {
    case Kind::ok:
        return name + ": " + files(fileCount_) + " visible";
    case Kind::empty:
        return name + ": readable but no audio files";
    case Kind::denied:
        return "Full Disk Access needed";
    case Kind::missing:
        return name + " folder not found";
    case Kind::notConfigured:
        return "Capture is off";
    }
    return "";
}

std::string State::menuSummary() const
{
    return summary("Voice Memos");
}

std::string State::explanation() const
{
    switch (kind_) {
    case Kind::ok:
        return "quillet can read the Voice Memos folder (" + files(fileCount_) + ").";
    case Kind::empty:
        return "quillet can read the Voice Memos folder, but it contains no audio files. This usually means macOS "
               "is keeping the recordings in iCloud rather than on this Mac \u2014 the audio is stored as CloudKit "
               "assets that quillet cannot read by filename. Open Voice Memos and check whether recordings are "
               "downloaded to this Mac, or run capture on a Mac that keeps local copies.";
    case Kind::denied:
        return "macOS is blocking quillet from reading the Voice Memos folder.\n"
               "\n"
               "1. Click \"Open Full Disk Access settings\u2026\" above.\n"
               "2. If quillet is already listed, switch it ON. If it is not listed, click + and choose quillet from "
               "Applications.\n"
               "3. Click \"Restart quillet\". macOS applies the grant only when an app starts, so nothing "
               "changes until it restarts.\n"
               "\n"
               "Still blocked afterwards? Remove quillet from the list with the \u2212 button, then add it again "
               "with +. macOS ties the permission to the app's code signature, so a rebuilt or replaced copy of "
               "the app is treated as a different app and needs re-granting.";
    case Kind::missing:
        return "The Voice Memos folder does not exist on this Mac. That is normal if Voice Memos has never been "
               "used here. quillet will pick it up automatically once the folder appears.";
    case Kind::notConfigured:
        return "Voice Memos capture is switched off in Settings.";
    }
    return "";
}

std::string State::explanation(std::string_view folderName, bool voiceMemos) const
{
    if (voiceMemos || Paths::current() == Platform::macOS) {
        return explanation();
    }
    const std::string name(folderName);
    switch (kind_) {
    case Kind::ok:
        return "quillet can read " + name + " (" + files(fileCount_) + ").";
    case Kind::empty:
        return "quillet can read " + name + ", but it contains no audio files yet. Recordings that appear in it are "
               "captured within a poll.";
    case Kind::denied:
        return "quillet cannot list " + name + ": this user may not read the folder. Give it read and search "
               "permission (for example chmod u+rx on the folder); quillet picks it up at its next poll.";
    case Kind::missing:
        return name + " does not exist. quillet will pick it up automatically once the folder appears.";
    case Kind::notConfigured:
        return "Capture from " + name + " is switched off in Settings.";
    }
    return "";
}

namespace {

// readdir and the bare names: the watcher lists its folders every 30 seconds, and with
// thousands of recordings a path object per entry cost more than the listing itself.
Listing scan(const fs::path& folder, const std::set<std::string>& extensions, bool enabled, bool keepNames)
{
    if (!enabled) {
        return {State::notConfigured(), {}};
    }
    std::error_code error;
    if (!fs::is_directory(folder, error)) {
        return {State::missing(), {}};
    }
    DIR* dir = ::opendir(folder.c_str());
    if (dir == nullptr) {
        return {listingFailed(folder, std::error_code(errno, std::generic_category())), {}};
    }
    Listing listing{State::empty(), {}};
    std::int64_t count = 0;
    int failure = 0;
    for (;;) {
        errno = 0;
        const dirent* entry = ::readdir(dir);
        if (entry == nullptr) {
            failure = errno;
            break;
        }
        std::string_view name(entry->d_name);
        if (name.starts_with('.')) {
            continue;
        }
        auto dot = name.rfind('.');
        if (dot == std::string_view::npos || dot + 1 == name.size()) {
            continue;
        }
        if (extensions.contains(lowerCased(std::string(name.substr(dot + 1))))) {
            ++count;
            if (keepNames) {
                listing.names.emplace_back(name);
            }
        }
    }
    ::closedir(dir);
    if (failure != 0) {
        return {listingFailed(folder, std::error_code(failure, std::generic_category())), {}};
    }
    if (count == 0) {
        return {State::empty(), {}};
    }
    listing.state = State::ok(count);
    return listing;
}

} // namespace

State check(const fs::path& folder, const std::set<std::string>& extensions, bool enabled)
{
    return scan(folder, extensions, enabled, false).state;
}

Listing list(const fs::path& folder, const std::set<std::string>& extensions, bool enabled)
{
    return scan(folder, extensions, enabled, true);
}

fs::path voiceMemosURL()
{
    auto candidates = Paths::voiceMemosCandidates();
    for (const auto& candidate : candidates) {
        std::error_code ignored;
        if (fs::exists(candidate, ignored)) {
            return candidate;
        }
    }
    return candidates.front();
}

bool openFullDiskAccessSettings()
{
    // The desktop opens URLs in the background and reports nothing back, so the constant
    // Full Disk Access URL is always the one handed over; the broader security pane would
    // only serve a URL that cannot be handed over at all.
    System::openURL(std::string(kFullDiskAccessURL));
    return true;
}

} // namespace quillet::CaptureAccess
