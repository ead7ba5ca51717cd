#pragma once

#include <cstdint>
#include <filesystem>
#include <string>

namespace quillet {

/// What tells one version of a file from another without reading it: its size, modification
/// and status change times (in nanoseconds) and its device and inode. A file replaced by a
/// rename (every atomic save) gets another inode, so two saves in the same instant still differ.
struct FileSignature {
    bool exists = false;
    std::uintmax_t size = 0;
    std::int64_t modifiedNs = 0;
    std::int64_t changedNs = 0;
    std::uint64_t device = 0;
    std::uint64_t inode = 0;

    /// The signature of `file` now (following links); `exists` false when it cannot be
    /// looked at. One stat; never throws. Any thread.
    static FileSignature of(const std::filesystem::path& file);

    /// "size:modified:changed:device:inode", or "none" when the file does not exist: the same
    /// text for the same version in every process.
    std::string text() const;

    bool operator==(const FileSignature&) const = default;
};

} // namespace quillet
