#include "quillet_capture/migration/ItemMover.hpp"
#include "quillet_capture/util/AtomicFile.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <system_error>

namespace quillet {

namespace fs = std::filesystem;

namespace {

// Repeated "taken" answers for one name mean that someone keeps creating it; give up on the
// name then rather than loop.
constexpr int kTakenRetries = 3;
constexpr int kMaxKeptNames = 100;

bool lstatOf(const fs::path& path, struct stat& info)
{
    return ::lstat(path.c_str(), &info) == 0;
}

std::string reason(int error)
{
    return std::system_category().message(error);
}

void flushFolder(const fs::path& folder)
{
    int fd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd >= 0) {
        flushToDisk(fd);
        ::close(fd);
    }
}

bool readFully(int fd, char* buffer, size_t size, size_t& got)
{
    got = 0;
    while (got < size) {
        ssize_t n = ::read(fd, buffer + got, size - got);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0) {
            return false;
        }
        if (n == 0) {
            break;
        }
        got += static_cast<size_t>(n);
    }
    return true;
}

bool writeFully(int fd, const char* data, size_t size)
{
    while (size > 0) {
        ssize_t n = ::write(fd, data, size);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0) {
            return false;
        }
        data += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

// One inode under two names (a link whose unlink was cut short), two links to the same
// place, or two regular files with the same bytes (a copy across file systems whose source
// was not yet removed).
bool sameItem(const fs::path& a, const struct stat& sa, const fs::path& b, const struct stat& sb)
{
    if (sa.st_dev == sb.st_dev && sa.st_ino == sb.st_ino) {
        return true;
    }
    if (S_ISLNK(sa.st_mode) && S_ISLNK(sb.st_mode)) {
        std::error_code ea;
        std::error_code eb;
        auto ta = fs::read_symlink(a, ea);
        auto tb = fs::read_symlink(b, eb);
        return !ea && !eb && ta == tb;
    }
    if (!S_ISREG(sa.st_mode) || !S_ISREG(sb.st_mode) || sa.st_size != sb.st_size) {
        return false;
    }
    int fa = openRegularFile(a, O_RDONLY);
    int fb = openRegularFile(b, O_RDONLY);
    bool same = fa >= 0 && fb >= 0;
    static constexpr size_t kChunk = 64 * 1024;
    std::string ba(kChunk, '\0');
    std::string bb(kChunk, '\0');
    while (same) {
        size_t na = 0;
        size_t nb = 0;
        if (!readFully(fa, ba.data(), kChunk, na) || !readFully(fb, bb.data(), kChunk, nb) || na != nb ||
            std::memcmp(ba.data(), bb.data(), na) != 0) {
            same = false;
            break;
        }
        if (na < kChunk) {
            break;
        }
    }
    if (fa >= 0) {
        ::close(fa);
    }
    if (fb >= 0) {
        ::close(fb);
    }
    return same;
}

} // namespace

ItemMover::ItemMover(std::string keptSuffix)
    : keptSuffix_(std::move(keptSuffix))
{
}

fs::path ItemMover::keptName(const fs::path& to, int attempt) const
{
    std::string name = to.filename().string();
    if (attempt > 1) {
        name += "." + std::to_string(attempt);
    }
    return to.parent_path() / (name + keptSuffix_);
}

fs::path ItemMover::temporaryName(const fs::path& to)
{
    return to.parent_path() / ("." + to.filename().string() + ".moving");
}

bool ItemMover::move(const fs::path& from, const fs::path& to)
{
    return moveTo(from, to, true);
}

void ItemMover::note(std::string line)
{
    progress_.push_back(std::move(line));
}

void ItemMover::failure(const fs::path& from, const fs::path& to, int error)
{
    note("could not move " + from.string() + " to " + to.string() + ": " + reason(error));
}

bool ItemMover::moveTo(const fs::path& from, const fs::path& to, bool report)
{
    struct stat source {};
    if (!lstatOf(from, source)) {
        return true;
    }
    int attempt = 0;
    int taken = 0;
    while (attempt < kMaxKeptNames) {
        fs::path target = attempt == 0 ? to : keptName(to, attempt);
        struct stat there {};
        if (!lstatOf(target, there)) {
            std::error_code error;
            fs::create_directories(target.parent_path(), error);
            if (error) {
                failure(from, target, error.value());
                return false;
            }
            Placed placed = place(from, target);
            if (placed == Placed::otherFileSystem) {
                placed = copyAcross(from, target);
            }
            if (placed == Placed::done) {
                // A copy begun by an earlier attempt across file systems is not needed now.
                ::unlink(temporaryName(target).c_str());
                if (attempt > 0) {
                    note(to.string() + " is taken; kept " + from.string() + " as " + target.string());
                } else if (report) {
                    note("moved " + from.string() + " to " + target.string());
                }
                return true;
            }
            if (placed == Placed::taken && ++taken < kTakenRetries) {
                continue;
            }
            if (placed == Placed::failed) {
                return false;
            }
            taken = 0;
            ++attempt;
            continue;
        }
        if (S_ISDIR(source.st_mode) && S_ISDIR(there.st_mode)) {
            std::size_t moved = 0;
            bool merged = merge(from, target, moved);
            if (merged && report && moved > 0) {
                note("moved what " + from.string() + " held into " + target.string());
            }
            return merged;
        }
        if (sameItem(from, source, target, there)) {
            // Also the temporary name of a copy whose last step was cut short.
            ::unlink(temporaryName(target).c_str());
            if (!removeOld(from)) {
                return false;
            }
            if (report) {
                note("removed " + from.string() + ": the same is already at " + target.string());
            }
            return true;
        }
        taken = 0;
        ++attempt;
    }
    note("could not move " + from.string() + ": too many old copies beside " + to.string());
    return false;
}

bool ItemMover::removeOld(const fs::path& from)
{
    if (::unlink(from.c_str()) != 0 && errno != ENOENT) {
        note("could not remove " + from.string() + ": " + reason(errno));
        return false;
    }
    return true;
}

bool ItemMover::merge(const fs::path& from, const fs::path& to, std::size_t& moved)
{
    std::vector<fs::path> names;
    std::error_code error;
    for (fs::directory_iterator it(from, error); !error && it != fs::directory_iterator(); it.increment(error)) {
        names.push_back(it->path().filename());
    }
    if (error) {
        failure(from, to, error.value());
        return false;
    }
    bool all = true;
    for (const auto& name : names) {
        all = moveTo(from / name, to / name, false) && all;
    }
    moved = names.size();
    if (!all) {
        return false;
    }
    if (::rmdir(from.c_str()) != 0 && errno != ENOENT) {
        // Something new appeared meanwhile; the next start takes it.
        note("could not remove " + from.string() + ": " + reason(errno));
        return false;
    }
    return true;
}

ItemMover::Placed ItemMover::place(const fs::path& from, const fs::path& to)
{
    struct stat source {};
    if (!lstatOf(from, source)) {
        return Placed::done; // gone meanwhile: another process moved it
    }
    if (!S_ISDIR(source.st_mode)) {
        // rename() would replace a file that appeared at `to` since we looked; link() fails
        // instead, and the unlink that follows leaves one inode under the new name.
        if (::linkat(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), 0) == 0) {
            if (!removeOld(from)) {
                return Placed::failed;
            }
            return Placed::done;
        }
        int error = errno;
        if (error == EEXIST) {
            return Placed::taken;
        }
        if (error == EXDEV) {
            return Placed::otherFileSystem;
        }
        if (error == ENOENT && !lstatOf(from, source)) {
            return Placed::done;
        }
        // File systems without hard links (and protected_hardlinks) refuse; a rename is then
        // the best there is.
    }
    // A folder renamed onto an existing folder only replaces an empty one, which loses nothing.
    if (::rename(from.c_str(), to.c_str()) == 0) {
        return Placed::done;
    }
    int error = errno;
    switch (error) {
    case EXDEV:
        return Placed::otherFileSystem;
    case EEXIST:
    case ENOTEMPTY:
    case ENOTDIR:
    case EISDIR:
        return Placed::taken;
    case ENOENT:
        if (!lstatOf(from, source)) {
            return Placed::done;
        }
        [[fallthrough]];
    default:
        failure(from, to, error);
        return Placed::failed;
    }
}

ItemMover::Placed ItemMover::copyAcross(const fs::path& from, const fs::path& to)
{
    struct stat source {};
    if (!lstatOf(from, source)) {
        return Placed::done;
    }
    if (S_ISDIR(source.st_mode)) {
        if (::mkdir(to.c_str(), source.st_mode & 07777) != 0) {
            if (errno == EEXIST) {
                return Placed::taken; // the caller merges into it
            }
            failure(from, to, errno);
            return Placed::failed;
        }
        std::size_t moved = 0;
        return merge(from, to, moved) ? Placed::done : Placed::failed;
    }
    if (S_ISLNK(source.st_mode)) {
        std::error_code error;
        auto target = fs::read_symlink(from, error);
        if (error) {
            failure(from, to, error.value());
            return Placed::failed;
        }
        if (::symlink(target.c_str(), to.c_str()) != 0) {
            if (errno == EEXIST) {
                return Placed::taken;
            }
            failure(from, to, errno);
            return Placed::failed;
        }
        flushFolder(to.parent_path());
        return removeOld(from) ? Placed::done : Placed::failed;
    }
    if (!S_ISREG(source.st_mode)) {
        // A socket or a pipe holds no data and cannot be copied: dropping it loses nothing.
        note("dropped " + from.string() + ": not a file, folder or link");
        return removeOld(from) ? Placed::done : Placed::failed;
    }

    // The copy gets its name only once its bytes are on the disk, and the source goes only
    // once the name is: a cut at any point leaves the source whole, and at worst a temporary
    // file (removed by the next attempt) or two equal copies (the next attempt drops one).
    fs::path temp = temporaryName(to);
    ::unlink(temp.c_str());
    int in = openRegularFile(from, O_RDONLY);
    if (in < 0) {
        failure(from, to, errno);
        return Placed::failed;
    }
    int out = ::open(temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (out < 0) {
        int error = errno;
        ::close(in);
        failure(from, to, error);
        return Placed::failed;
    }
    static constexpr size_t kChunk = 256 * 1024;
    std::string buffer(kChunk, '\0');
    bool ok = true;
    int error = 0;
    for (;;) {
        size_t got = 0;
        if (!readFully(in, buffer.data(), kChunk, got) || !writeFully(out, buffer.data(), got)) {
            ok = false;
            error = errno;
            break;
        }
        if (got < kChunk) {
            break;
        }
    }
    if (ok && (::fchmod(out, source.st_mode & 07777) != 0 || flushToDisk(out) != 0)) {
        ok = false;
        error = errno;
    }
    ::close(in);
    if (::close(out) != 0 && ok) {
        ok = false;
        error = errno;
    }
    if (ok) {
        std::error_code ignored;
        fs::last_write_time(temp, fs::last_write_time(from, ignored), ignored);
        if (::linkat(AT_FDCWD, temp.c_str(), AT_FDCWD, to.c_str(), 0) != 0) {
            ok = false;
            error = errno;
        }
    }
    ::unlink(temp.c_str());
    if (!ok) {
        if (error == EEXIST) {
            return Placed::taken;
        }
        failure(from, to, error);
        return Placed::failed;
    }
    flushFolder(to.parent_path());
    return removeOld(from) ? Placed::done : Placed::failed;
}

} // namespace quillet
