#include "quillet_capture/util/AtomicFile.hpp"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <random>
#include <system_error>

namespace quillet {

namespace {

constexpr std::string_view kTempMarker = ".quillet-tmp-";

[[noreturn]] void throwErrno(const std::string& what)
{
    throw std::system_error(errno, std::generic_category(), what);
}

std::string randomSuffix()
{
    static thread_local std::mt19937_64 generator{std::random_device{}()};
    static constexpr char kDigits[] = "0123456789abcdefghijklmnopqrstuvwxyz";
    std::string suffix;
    for (int i = 0; i < 10; ++i) {
        suffix += kDigits[generator() % 36];
    }
    return suffix;
}

} // namespace

bool writeFileAtomically(const std::filesystem::path& file, std::string_view contents, mode_t mode,
                         Durability durability, const std::function<bool()>& stillCurrent)
{
    auto folder = file.parent_path();
    if (folder.empty()) {
        folder = ".";
    }
    auto temporary = createTemporaryFile(folder / file.filename(), mode);
    const int fd = temporary.fd;
    const auto& temp = temporary.path;
    auto fail = [&](const std::string& what) {
        int saved = errno;
        ::close(fd);
        ::unlink(temp.c_str());
        errno = saved;
        throwErrno(what);
    };
    // An owner-only file must stay exactly as asked, whatever odd umask is set. Any wider mode
    // is left as the umask made it: a user whose umask keeps files private (077) keeps notes
    // and transcripts private too.
    if ((mode & 077) == 0 && ::fchmod(fd, mode) != 0) {
        fail("cannot set the mode of " + temp.string());
    }
    const char* data = contents.data();
    size_t left = contents.size();
    while (left > 0) {
        ssize_t written = ::write(fd, data, left);
        if (written < 0) {
            if (errno == EINTR) {
                continue;
            }
            fail("cannot write " + temp.string());
        }
        data += written;
        left -= static_cast<size_t>(written);
    }
    if (durability == Durability::flushed && flushToDisk(fd) != 0) {
        fail("cannot flush " + temp.string());
    }
#if defined(F_FULLFSYNC)
    // On macOS a plain fsync only hands the data to the drive, which is cheap; the one full
    // flush of flushFileSystem then reaches the disk for all files at once. Without it, the
    // drive could write the rename before the data.
    if (durability == Durability::deferred && ::fsync(fd) != 0) {
        fail("cannot flush " + temp.string());
    }
#endif
    if (stillCurrent && !stillCurrent()) {
        ::close(fd);
        ::unlink(temp.c_str());
        return false;
    }
    // Renamed while still open, so that its lock keeps a sweep of leftovers away until the
    // name is final; the data is on the disk already, so closing has nothing left to report.
    if (::rename(temp.c_str(), file.c_str()) != 0) {
        fail("cannot replace " + file.string());
    }
    ::close(fd);
    if (durability == Durability::deferred) {
        return true;
    }
    // Without flushing the folder, a power cut can lose the rename and leave the old file
    // (or none).
    int dir = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dir >= 0) {
        flushToDisk(dir);
        ::close(dir);
    }
    return true;
}

void flushFileSystem(const std::filesystem::path& folder)
{
    int dir = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dir < 0) {
        throwErrno("cannot open " + folder.string());
    }
#if defined(F_FULLFSYNC)
    // The files' data is with the drive already (see writeFileAtomically); a full flush of any
    // file empties the drive's cache, and this one also carries the folder's renames.
    int result = flushToDisk(dir);
#else
    // One flush of the whole file system: its journal commits once for every file written.
    int result = ::syncfs(dir);
#endif
    if (result != 0) {
        int saved = errno;
        ::close(dir);
        errno = saved;
        throwErrno("cannot flush " + folder.string());
    }
    ::close(dir);
}

int openRegularFile(const std::filesystem::path& file, int flags, mode_t mode)
{
    // Looked at first too: opening a FIFO that has no reader for writing fails with ENXIO,
    // which would hide what the path names.
    struct stat named {};
    if (::stat(file.c_str(), &named) == 0 && !S_ISREG(named.st_mode)) {
        errno = EINVAL;
        return -1;
    }
    int fd = ::open(file.c_str(), flags | O_CLOEXEC | O_NONBLOCK, mode);
    if (fd < 0) {
        return -1;
    }
    struct stat info {};
    int error = ::fstat(fd, &info) != 0 ? errno : S_ISREG(info.st_mode) ? 0 : EINVAL;
    if (error != 0) {
        ::close(fd);
        errno = error;
        return -1;
    }
    // Reads and writes of a regular file block as usual; only the open had to not.
    ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) & ~O_NONBLOCK);
    return fd;
}

std::optional<std::string> readWholeFile(const std::filesystem::path& file)
{
    int fd = openRegularFile(file, O_RDONLY);
    if (fd < 0) {
        return std::nullopt;
    }
    struct stat info {};
    ::fstat(fd, &info);
    std::string contents;
    contents.reserve(static_cast<size_t>(info.st_size));
    char buffer[65536];
    for (;;) {
        ssize_t n = ::read(fd, buffer, sizeof buffer);
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            ::close(fd);
            return std::nullopt;
        }
        if (n == 0) {
            break;
        }
        contents.append(buffer, static_cast<size_t>(n));
    }
    ::close(fd);
    return contents;
}

KeptAside keepAside(const std::filesystem::path& file, const std::string& stamp)
{
    std::error_code error;
    for (int n = 1; n < 100; ++n) {
        auto aside = file;
        aside += ".unreadable-" + stamp + (n == 1 ? "" : "-" + std::to_string(n));
        if (std::filesystem::exists(std::filesystem::symlink_status(aside, error))) {
            continue;
        }
        std::filesystem::rename(file, aside, error);
        if (error) {
            return {std::nullopt, error.message()};
        }
        return {aside, {}};
    }
    return {std::nullopt, "too many kept already"};
}

bool isAtomicWriteLeftover(std::string_view fileName)
{
    return fileName.starts_with('.') && fileName.find(kTempMarker) != std::string_view::npos;
}

namespace {

bool sameFile(int fd, const std::filesystem::path& path)
{
    struct stat open {};
    struct stat named {};
    return ::fstat(fd, &open) == 0 && ::lstat(path.c_str(), &named) == 0 && open.st_dev == named.st_dev &&
           open.st_ino == named.st_ino;
}

} // namespace

TemporaryFile createTemporaryFile(const std::filesystem::path& file, mode_t mode)
{
    auto folder = file.parent_path();
    if (folder.empty()) {
        folder = ".";
    }
    for (int attempt = 0;; ++attempt) {
        // A dot name keeps the temporary file out of folder listings that skip hidden files.
        auto temp = folder / ("." + file.filename().string() + std::string(kTempMarker) + randomSuffix());
        int fd = ::open(temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode);
        if (fd < 0) {
            throwErrno("cannot create " + temp.string());
        }
        // The lock (flock, which no other descriptor's close releases) marks the file as owned by
        // a live process until it is closed; the system drops it when the process dies, however
        // it dies. Volumes without locks get none, and their leftovers stay.
        if (::flock(fd, LOCK_EX) != 0 || sameFile(fd, temp) || attempt >= 10) {
            return {fd, temp};
        }
        // A sweep took the file away between its creation and the lock: make another.
        ::close(fd);
    }
}

int removeAtomicWriteLeftovers(const std::filesystem::path& folder)
{
    int removed = 0;
    std::error_code error;
    for (auto it = std::filesystem::directory_iterator(folder, error);
         !error && it != std::filesystem::directory_iterator(); it.increment(error)) {
        auto path = it->path();
        if (!isAtomicWriteLeftover(path.filename().string())) {
            continue;
        }
        int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
        if (fd < 0) {
            continue;
        }
        struct stat info {};
        // Held by a live writer (or a volume without locks): not ours to remove.
        if (::fstat(fd, &info) == 0 && S_ISREG(info.st_mode) && ::flock(fd, LOCK_EX | LOCK_NB) == 0 &&
            sameFile(fd, path) && ::unlink(path.c_str()) == 0) {
            ++removed;
        }
        ::close(fd);
    }
    return removed;
}

int flushToDisk(int fd)
{
    // macOS's fsync leaves the data in the drive's cache; F_FULLFSYNC is what reaches the disk.
#if defined(F_FULLFSYNC)
    if (::fcntl(fd, F_FULLFSYNC) == 0) {
        return 0;
    }
#endif
    return ::fsync(fd);
}

} // namespace quillet
