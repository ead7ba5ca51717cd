#pragma once

#include "quillet_capture/cli/StatusReport.hpp"
#include "quillet_capture/vault/InboxWriter.hpp"

#include <cstddef>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace quillet {

class AgentManager;
class CaptureIdentities;
class Settings;

/// Reads the log file at `file`: its lines split at line feeds, empty lines dropped. A file
/// that is missing, cannot be read or is not UTF-8 text throughout counts as empty. The file
/// is read in pieces, so memory holds only the lines kept, however large the file. Any thread.
StatusLog readStatusLog(const std::filesystem::path& file, std::size_t tailLines = 12);

/// Says whether `retry` would send the note at `note`, whose frontmatter is `frontmatter`.
using CanBeSent = std::function<bool(const std::filesystem::path& note, const InboxWriter::Frontmatter&)>;

/// Counts the notes in `inbox` by job status, read in one pass: `canBeSent` is asked of every
/// note with a frontmatter. A folder that cannot be listed is `missing`, or on Linux, where it
/// is there, `unreadable` with the system's words. Any thread.
StatusReport::Inbox countInbox(const std::filesystem::path& inbox, const CanBeSent& canBeSent);

/// The inbox line of `status` for the notes in `inbox`: `countInbox(...).text()`. Any thread.
std::string inboxSummary(const std::filesystem::path& inbox, const CanBeSent& canBeSent);

/// Where `gatherStatus` reads what the settings and the files of the home do not hold:
/// `status` passes the process-wide stores, tests their own.
struct StatusSources {
    Settings& settings;
    const CaptureRecovery& recovery;
    AgentManager& agent;
    /// The Voice Memos recordings the agent has met.
    const CaptureIdentities& identities;
    /// True when Voice Memos is running now.
    std::function<bool()> voiceMemosRunning;
};

/// Gathers every fact that `status` shows, once, from `sources`, the token store, the inbox,
/// the Voice Memos library and the log file. Reads only and never fails: what cannot be read
/// is reported as such. Main thread (it asks the service manager).
StatusReport gatherStatus(const StatusSources& sources);

} // namespace quillet
