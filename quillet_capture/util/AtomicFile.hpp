#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include <sys/types.h>

namespace quillet {

/// Replaces `file` with `contents` so that a reader or a crash sees either the old or the new
/// file whole, never a mix or an empty file: write a temporary file beside it, flush it to the
/// disk, rename it over `file`, then flush the folder. The new file gets `mode`. Throws
/// std::system_error when any step fails; the temporary file is removed then.
void writeFileAtomically(const std::filesystem::path& file, std::string_view contents, mode_t mode = 0644);

/// The whole contents of `file`, or nothing when it cannot be read (missing, a folder, no
/// permission).
std::optional<std::string> readWholeFile(const std::filesystem::path& file);

/// True for the names of the temporary files that writeFileAtomically leaves behind when the
/// process dies between writing and renaming.
bool isAtomicWriteLeftover(std::string_view fileName);

} // namespace quillet
