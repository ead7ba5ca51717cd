#pragma once

#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include <sys/types.h>

namespace quillet {

/// When the bytes of writeFileAtomically reach the disk.
enum class Durability {
    /// Before the call returns: the new file survives a power cut from then on.
    flushed,
    /// Later, at the caller's flushFileSystem: readers and a crash of the process still see
    /// the old or the new file whole, but a power cut before the flush may leave the new name
    /// with an empty file. For many files that can be written again, where a flush per file
    /// would cost more than the work itself.
    deferred,
};

/// Replaces `file` with `contents` so that a reader or a crash sees either the old or the new
/// file whole, never a mix or an empty file: write a temporary file beside it, flush it to the
/// disk, rename it over `file`, then flush the folder (with `Durability::deferred`, the flushes
/// are left to flushFileSystem). The new file gets `mode`: exactly when it is owner-only (no
/// group or other bits), else narrowed by the umask. Throws std::system_error when any step
/// fails; the temporary file is removed then. When `stillCurrent` is given, it is asked just
/// before the rename (after the flush) whether `file` may still be replaced: when it says
/// no, nothing is replaced, the temporary file is removed, and the result is false.
bool writeFileAtomically(const std::filesystem::path& file, std::string_view contents, mode_t mode = 0644,
                         Durability durability = Durability::flushed,
                         const std::function<bool()>& stillCurrent = nullptr);

/// Makes everything written with `Durability::deferred` into `folder` durable, in one flush of
/// the file system that holds it. Throws std::system_error when the folder cannot be opened or
/// flushed.
void flushFileSystem(const std::filesystem::path& folder);

/// Opens `file` with `flags` (plus close-on-exec), but only when it is a regular file: a FIFO,
/// a device or a socket put where a file belongs must not block or feed the program. Opening
/// never blocks (a FIFO without a writer would hold a read open for ever). Returns the
/// descriptor, or -1 with errno set; EINVAL when the path names something that is not a
/// regular file. `mode` applies when `flags` has O_CREAT.
int openRegularFile(const std::filesystem::path& file, int flags, mode_t mode = 0600);

/// The whole contents of `file`, or nothing when it cannot be read (missing, a folder, a FIFO
/// or anything else that is not a regular file, no permission).
std::optional<std::string> readWholeFile(const std::filesystem::path& file);

/// Renames `file` to "<file>.unreadable-<stamp>" (with "-2", "-3", ... when that name is
/// taken), never over another file, so that a file the program cannot read is kept for the
/// user rather than overwritten. `stamp` is a time without colons. Returns the new path, or
/// the reason it could not be kept.
struct KeptAside {
    std::optional<std::filesystem::path> path;
    std::string failure;
};
KeptAside keepAside(const std::filesystem::path& file, const std::string& stamp);

/// True for the names of the temporary files that writeFileAtomically leaves behind when the
/// process dies between writing and renaming.
bool isAtomicWriteLeftover(std::string_view fileName);

/// A new, empty temporary file beside `file` (same folder, a hidden name that
/// isAtomicWriteLeftover recognises), open for writing with `mode`. While `fd` stays open the
/// file holds an advisory lock that tells removeAtomicWriteLeftovers a live writer owns it.
/// The caller closes `fd` and renames or removes the file. Throws std::system_error.
struct TemporaryFile {
    int fd = -1;
    std::filesystem::path path;
};
TemporaryFile createTemporaryFile(const std::filesystem::path& file, mode_t mode);

/// Removes the temporary files in `folder` (not in its subfolders) whose writer died before
/// renaming them: those that isAtomicWriteLeftover names and no open TemporaryFile holds.
/// Returns how many were removed; a folder that cannot be listed gives 0. Any thread.
int removeAtomicWriteLeftovers(const std::filesystem::path& folder);

/// Flushes what was written to `fd` to the disk itself (F_FULLFSYNC where the system has it,
/// else fsync). Returns 0, or -1 with errno set.
int flushToDisk(int fd);

} // namespace quillet
