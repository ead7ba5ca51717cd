#pragma once

#include <cstddef>
#include <filesystem>
#include <string>
#include <vector>

namespace quillet {

/// Moves files and folders to new places without ever overwriting or losing anything, so
/// that a move cut short (a crash, a power cut, a second process doing the same) is simply
/// finished by doing it again. Collects one line of progress per notable step instead of
/// logging it, so that the caller decides when the log file may be touched. One instance per
/// thread; it holds no locks.
class ItemMover {
public:
    /// Old items kept beside the one in their place end in `keptSuffix` (".pellam-old").
    explicit ItemMover(std::string keptSuffix);

    /// Moves the file, symbolic link or folder at `from` to `to`, creating `to`'s folder:
    /// - nothing at `to`: `from` takes that name. Within one file system this is one atomic
    ///   rename (a link and an unlink for files, so an existing name is never replaced); across
    ///   file systems each file is copied to a hidden temporary name beside its new place,
    ///   flushed, given its name, and only then removed at `from`;
    /// - folders at both: merged entry by entry in the same way, recursively;
    /// - the same file at both (one inode, or equal contents, as an interrupted move leaves):
    ///   `from` is removed;
    /// - anything else at `to`: `from` is kept beside it as `to` + suffix, or `to` + ".2" +
    ///   suffix and so on when that name holds something different (or merged into it when
    ///   both are folders).
    /// A folder emptied this way is removed. Returns true when nothing is left at `from`
    /// (also when there was nothing); false when something could not be moved, which a
    /// progress line explains. Never throws.
    bool move(const std::filesystem::path& from, const std::filesystem::path& to);

    /// The progress lines so far, oldest first: items moved, kept beside, dropped as copies,
    /// and failures with the system's reason.
    const std::vector<std::string>& progress() const { return progress_; }

    /// The name under which an old item is kept beside `to`: `to` + suffix for `attempt` 1,
    /// `to` + "." + attempt + suffix after that.
    std::filesystem::path keptName(const std::filesystem::path& to, int attempt) const;

    /// The hidden name beside `to` under which a copy across file systems is written first.
    static std::filesystem::path temporaryName(const std::filesystem::path& to);

private:
    enum class Placed { done, taken, otherFileSystem, failed };

    bool moveTo(const std::filesystem::path& from, const std::filesystem::path& to, bool report);
    bool merge(const std::filesystem::path& from, const std::filesystem::path& to, std::size_t& moved);
    Placed place(const std::filesystem::path& from, const std::filesystem::path& to);
    Placed copyAcross(const std::filesystem::path& from, const std::filesystem::path& to);
    bool removeOld(const std::filesystem::path& from);
    void note(std::string line);
    void failure(const std::filesystem::path& from, const std::filesystem::path& to, int error);

    std::string keptSuffix_;
    std::vector<std::string> progress_;
};

} // namespace quillet
