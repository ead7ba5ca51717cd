#include "quillet_capture/platform/Sha256.hpp"

#include <cerrno>
#include <fcntl.h>
#include <system_error>
#include <unistd.h>
#include <vector>

namespace quillet {

std::string Sha256::ofFile(const std::filesystem::path& file)
{
    int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        throw std::system_error(errno, std::generic_category(), "cannot read " + file.string());
    }
    Sha256 digest;
    std::vector<char> buffer(1 << 20);
    for (;;) {
        ssize_t got = ::read(fd, buffer.data(), buffer.size());
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0) {
            int error = errno;
            ::close(fd);
            throw std::system_error(error, std::generic_category(), "cannot read " + file.string());
        }
        if (got == 0) {
            break;
        }
        digest.update(buffer.data(), static_cast<std::size_t>(got));
    }
    ::close(fd);
    return digest.hexDigest();
}

bool Sha256::isHexDigest(const std::string& text)
{
    if (text.size() != 64) {
        return false;
    }
    for (char c : text) {
        if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'))) {
            return false;
        }
    }
    return true;
}

} // namespace quillet
