#include "quillet_capture/capture/WaveLength.hpp"

#include "quillet_capture/util/AtomicFile.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>

namespace quillet::WaveLength {

namespace {

constexpr std::uint32_t kPlaceholder = 0xFFFFFFFF;
constexpr int kMaxChunks = 64;

std::uint32_t le32(const unsigned char* bytes)
{
    return static_cast<std::uint32_t>(bytes[0]) | static_cast<std::uint32_t>(bytes[1]) << 8 |
           static_cast<std::uint32_t>(bytes[2]) << 16 | static_cast<std::uint32_t>(bytes[3]) << 24;
}

std::uint64_t le64(const unsigned char* bytes)
{
    return static_cast<std::uint64_t>(le32(bytes)) | static_cast<std::uint64_t>(le32(bytes + 4)) << 32;
}

bool readAt(int fd, unsigned char* buffer, std::size_t size, std::int64_t offset)
{
    std::size_t done = 0;
    while (done < size) {
        ssize_t got = ::pread(fd, buffer + done, size - done, static_cast<off_t>(offset) + static_cast<off_t>(done));
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got <= 0) {
            return false;
        }
        done += static_cast<std::size_t>(got);
    }
    return true;
}

// Chunk ids are four printable ASCII characters; audio samples rarely are.
bool looksLikeChunkId(const unsigned char* id)
{
    for (int i = 0; i < 4; ++i) {
        if (id[i] < 0x20 || id[i] > 0x7E) {
            return false;
        }
    }
    return true;
}

} // namespace

std::optional<double> read(const std::filesystem::path& file)
{
    int fd = openRegularFile(file, O_RDONLY);
    if (fd < 0) {
        return std::nullopt;
    }
    struct Closer {
        int fd;
        ~Closer() { ::close(fd); }
    } closer{fd};
    struct stat info {};
    if (::fstat(fd, &info) != 0) {
        return std::nullopt;
    }
    const std::int64_t fileSize = info.st_size;
    unsigned char header[12];
    if (fileSize < 12 || !readAt(fd, header, sizeof header, 0)) {
        return std::nullopt;
    }
    const bool rf64 = std::memcmp(header, "RF64", 4) == 0;
    if (!(rf64 || std::memcmp(header, "RIFF", 4) == 0) || std::memcmp(header + 8, "WAVE", 4) != 0) {
        return std::nullopt;
    }
    std::uint32_t byteRate = 0;
    std::uint32_t blockAlign = 0;
    std::optional<std::uint64_t> ds64Data;  // RF64 keeps the real data size in its "ds64" chunk
    std::int64_t offset = 12;
    for (int chunk = 0; chunk < kMaxChunks && offset + 8 <= fileSize; ++chunk) {
        unsigned char head[8];
        if (!readAt(fd, head, sizeof head, offset)) {
            return std::nullopt;
        }
        const std::uint32_t size = le32(head + 4);
        const std::int64_t body = offset + 8;
        if (std::memcmp(head, "fmt ", 4) == 0 && size >= 16) {
            unsigned char format[16];
            if (!readAt(fd, format, sizeof format, body)) {
                return std::nullopt;
            }
            byteRate = le32(format + 8);
            blockAlign = static_cast<std::uint32_t>(format[12]) | static_cast<std::uint32_t>(format[13]) << 8;
        } else if (std::memcmp(head, "ds64", 4) == 0 && size >= 16) {
            unsigned char sizes[16];
            if (readAt(fd, sizes, sizeof sizes, body)) {
                ds64Data = le64(sizes + 8);
            }
        } else if (std::memcmp(head, "data", 4) == 0) {
            if (byteRate == 0) {
                return std::nullopt;
            }
            const std::int64_t present = fileSize - body;
            std::uint64_t declared = size;
            if (rf64 && size == kPlaceholder && ds64Data) {
                declared = *ds64Data;
            }
            bool trusted = declared != 0 && declared != kPlaceholder && declared <= static_cast<std::uint64_t>(present);
            if (trusted && declared < static_cast<std::uint64_t>(present)) {
                // Less than the file holds: right only when another chunk (or its pad byte
                // and then the end) follows it.
                const std::int64_t after = body + static_cast<std::int64_t>(declared) + (declared & 1);
                unsigned char next[4];
                trusted = after >= fileSize || (after + 8 <= fileSize && readAt(fd, next, sizeof next, after) &&
                                                looksLikeChunkId(next));
            }
            std::uint64_t bytes = trusted ? declared : static_cast<std::uint64_t>(present);
            if (blockAlign > 0) {
                bytes -= bytes % blockAlign;
            }
            return static_cast<double>(bytes) / byteRate;
        }
        offset = body + static_cast<std::int64_t>(size) + (size & 1);
        if (size == kPlaceholder) {
            return std::nullopt;  // a chunk of unknown length before the data: nothing to walk past
        }
    }
    return std::nullopt;
}

} // namespace quillet::WaveLength
