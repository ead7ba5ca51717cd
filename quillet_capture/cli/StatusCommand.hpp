#pragma once

#include "quillet_capture/vault/InboxWriter.hpp"

#include <cstddef>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace quillet {

/// What `status` shows of the log file.
struct StatusLog {
    /// The last line that contains "access ->" (what the capture coordinator logs about folder
    /// access), wherever it is in the file.
    std::optional<std::string> accessLine;
    /// The last lines, oldest first.
    std::vector<std::string> tail;
};

/// Reads the log file at `file`: its lines split at line feeds, empty lines dropped. A file
/// that is missing, cannot be read or is not UTF-8 text throughout counts as empty. The file
/// is read in pieces, so memory holds only the lines kept, however large the file. Any thread.
StatusLog readStatusLog(const std::filesystem::path& file, std::size_t tailLines = 12);

/// The inbox line of `status` for the notes in `inbox` (see `inboxSummary()`), read in one
/// pass: `canBeSent` is asked of every note with a frontmatter, and says whether `retry`
/// would send it. Any thread.
std::string inboxSummary(const std::filesystem::path& inbox,
                         const std::function<bool(const std::filesystem::path& note, const InboxWriter::Frontmatter&)>& canBeSent);

} // namespace quillet
