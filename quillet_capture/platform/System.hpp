#pragma once

#include <string>
#include <vector>

namespace quillet::System {

/// The system the program is built for. Texts that name a system's own things (the
/// LaunchAgent, the systemd user unit) pick their words by it.
enum class Platform { macOS, Linux };
#ifdef __APPLE__
inline constexpr Platform currentPlatform = Platform::macOS;
#else
inline constexpr Platform currentPlatform = Platform::Linux;
#endif

/// The computer's name for the start line of `run`: the localised computer name on macOS,
/// `gethostname` on Linux; "?" when the system gives none.
std::string hostName();

/// The operating system's name as the start line of `run` shows it: "macOS", or `uname -s`.
std::string osName();

/// The operating system's version: the product version on macOS, `uname -r` on Linux.
std::string osVersion();

/// Hands `url` to the desktop without waiting for it: to `/usr/bin/open` on macOS and to
/// `xdg-open` (found through `PATH`) on Linux, or on either to the program that
/// `$QUILLET_URL_OPENER` names when it is set and not empty (tests, machines without a
/// desktop). Failures are ignored.
void openURL(const std::string& url);

/// True where Voice Memos keeps recordings on this computer (macOS): a first setup watches its
/// folder and keeps it running. False on Linux, where the person names the folders to watch.
bool hasVoiceMemos();

/// The folders where this system's common sound recorders put their recordings, written with
/// a leading "~" (none on macOS). Whether they exist is for the caller to check.
std::vector<std::string> recorderFolders();

/// Writes `message` to the system log (and nothing else).
void systemLog(const std::string& message);

} // namespace quillet::System
