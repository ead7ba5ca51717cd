#pragma once

#include "quillet_capture/platform/Process.hpp"

#include <cstddef>
#include <string>
#include <string_view>

namespace quillet {

/// Notifications on the person's desktop: `osascript` on macOS, the freedesktop
/// org.freedesktop.Notifications service on the session bus elsewhere. One back end per
/// platform; tests substitute their own.
class DesktopNotifier {
public:
    virtual ~DesktopNotifier() = default;

    /// Shows a notification with `title` and `body`. Returns at once: the work runs on a
    /// thread of the notifier's own, one notification after another, and a desktop that does
    /// not answer holds that thread for a few seconds at most. Never throws. A desktop without
    /// notifications (no session bus, no notification service, no `osascript`) shows nothing,
    /// said in one log line per process. Any thread.
    virtual void post(const std::string& title, const std::string& body) = 0;

    /// The notifier of this platform, made on first use and never destroyed. Making it loads
    /// no library and starts nothing; the first `post` does.
    static DesktopNotifier& system();

    /// The most characters of one text that a notification carries.
    static constexpr std::size_t longestText = 300;

    /// `text` as a notification shows it: well-formed UTF-8 (each byte that is not part of a
    /// well-formed sequence becomes U+FFFD), control characters other than the line break
    /// (NUL included, which no argument or D-Bus string can hold) as spaces, at most
    /// `longestText` characters (a longer text ends in an ellipsis).
    static std::string plainText(std::string_view text);

    /// The macOS command that shows `title` and `body`: "/usr/bin/osascript" with a constant
    /// script that displays its second and third arguments, then a fixed first argument, then
    /// the two texts (`plainText`). The texts are never part of the script's source and never
    /// the first argument after it, so no text is read as AppleScript or as an option of
    /// osascript, whatever it holds.
    static Process::Command osascriptCommand(const std::string& title, const std::string& body);
};

} // namespace quillet
