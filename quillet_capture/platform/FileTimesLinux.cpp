#include "quillet_capture/platform/FileTimes.hpp"

#include <fcntl.h>
#include <sys/stat.h>

namespace quillet::FileTimes {

std::optional<std::chrono::system_clock::time_point> created(const std::filesystem::path& file)
{
    struct statx info {};
    if (::statx(AT_FDCWD, file.c_str(), 0, STATX_BTIME | STATX_MTIME, &info) != 0) {
        return std::nullopt;
    }
    // Not every file system records a birth time; the modification time is the next best.
    const auto& stamp = (info.stx_mask & STATX_BTIME) ? info.stx_btime : info.stx_mtime;
    return std::chrono::system_clock::time_point(std::chrono::seconds(stamp.tv_sec) +
                                                 std::chrono::duration_cast<std::chrono::system_clock::duration>(
                                                     std::chrono::nanoseconds(stamp.tv_nsec)));
}

} // namespace quillet::FileTimes
