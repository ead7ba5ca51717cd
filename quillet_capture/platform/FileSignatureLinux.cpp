#include "quillet_capture/platform/FileSignature.hpp"

#include <sys/stat.h>

namespace quillet {

FileSignature FileSignature::of(const std::filesystem::path& file)
{
    struct stat info {};
    if (::stat(file.c_str(), &info) != 0) {
        return {};
    }
    return {
        .exists = true,
        .size = static_cast<std::uintmax_t>(info.st_size),
        .modifiedNs = static_cast<std::int64_t>(info.st_mtim.tv_sec) * 1'000'000'000 + info.st_mtim.tv_nsec,
        .changedNs = static_cast<std::int64_t>(info.st_ctim.tv_sec) * 1'000'000'000 + info.st_ctim.tv_nsec,
        .device = static_cast<std::uint64_t>(info.st_dev),
        .inode = static_cast<std::uint64_t>(info.st_ino),
    };
}

} // namespace quillet
