#include "quillet_capture/platform/FileTimes.hpp"

#include <sys/stat.h>

namespace quillet::FileTimes {

std::optional<std::chrono::system_clock::time_point> created(const std::filesystem::path& file)
{
    struct stat info {};
    if (::stat(file.c_str(), &info) != 0) {
        return std::nullopt;
    }
    const auto& stamp = info.st_birthtimespec;
    return std::chrono::system_clock::time_point(std::chrono::seconds(stamp.tv_sec) +
                                                 std::chrono::duration_cast<std::chrono::system_clock::duration>(
                                                     std::chrono::nanoseconds(stamp.tv_nsec)));
}

} // namespace quillet::FileTimes
