#include "quillet_capture/platform/FileTimes.hpp"

#include <sys/stat.h>

namespace quillet::FileTimes {

namespace {

std::chrono::system_clock::time_point timePoint(const timespec& stamp)
{
    return std::chrono::system_clock::time_point(
        std::chrono::seconds(stamp.tv_sec) +
        std::chrono::duration_cast<std::chrono::system_clock::duration>(std::chrono::nanoseconds(stamp.tv_nsec)));
}

} // namespace

std::optional<std::chrono::system_clock::time_point> created(const std::filesystem::path& file)
{
    struct stat info {};
    if (::stat(file.c_str(), &info) != 0) {
        return std::nullopt;
    }
    // A volume that keeps no birth time (FAT, some network shares) reports the epoch, or -1
    // where the value is unset: the modification time is then the best account of the file.
    const timespec& birth = info.st_birthtimespec;
    if (birth.tv_sec <= 0 && birth.tv_nsec == 0) {
        return timePoint(info.st_mtimespec);
    }
    return timePoint(birth);
}

} // namespace quillet::FileTimes
