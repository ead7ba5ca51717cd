#include "quillet_capture/service/MultipartBody.hpp"

#include "quillet_capture/util/AtomicFile.hpp"

#include <nlohmann/json.hpp>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <system_error>

namespace quillet {

namespace {

constexpr std::string_view kCRLF = "\r\n";

void addPart(std::string& body, std::string_view boundary, std::string_view name, std::string_view value)
{
    body += "--";
    body += boundary;
    body += kCRLF;
    body += "Content-Disposition: form-data; name=\"";
    body += name;
    body += "\"\r\n\r\n";
    body += value;
    body += kCRLF;
}

// Compact JSON of the metadata; absent when it cannot be serialised (text that is not UTF-8),
// in which case the part is left out and the upload goes on.
std::optional<std::string> metadataJSON(const std::map<std::string, std::string>& metadata)
{
    try {
        return nlohmann::json(metadata).dump();
    } catch (const nlohmann::json::exception&) {
        return std::nullopt;
    }
}

[[noreturn]] void throwErrno(const std::string& what)
{
    throw std::system_error(errno, std::generic_category(), what);
}

} // namespace

std::string MultipartBody::head(std::string_view boundary, const Fields& fields, std::string_view fileName,
                                std::string_view mediaType)
{
    std::string body;
    addPart(body, boundary, "content_source", fields.contentSource);
    if (fields.language) {
        addPart(body, boundary, "language", *fields.language);
    }
    if (!fields.tags.empty()) {
        std::string joined;
        for (std::size_t i = 0; i < fields.tags.size(); ++i) {
            joined += i == 0 ? "" : ",";
            joined += fields.tags[i];
        }
        addPart(body, boundary, "tags", joined);
    }
    if (!fields.sourceMetadata.empty()) {
        if (auto json = metadataJSON(fields.sourceMetadata)) {
            addPart(body, boundary, "content_source_metadata", *json);
        }
    }
    body += "--";
    body += boundary;
    body += kCRLF;
    // The file name goes in as it stands, quotation marks and all.
    body += "Content-Disposition: form-data; name=\"file\"; filename=\"";
    body += fileName;
    body += "\"\r\n";
    body += "Content-Type: ";
    body += mediaType;
    body += "\r\n\r\n";
    return body;
}

std::string MultipartBody::trailer(std::string_view boundary)
{
    return std::string(kCRLF) + "--" + std::string(boundary) + "--" + std::string(kCRLF);
}

std::string MultipartBody::mediaType(const std::filesystem::path& file)
{
    std::string extension = file.extension().string();
    if (!extension.empty()) {
        extension.erase(0, 1);
    }
    std::transform(extension.begin(), extension.end(), extension.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    if (extension == "m4a") {
        return "audio/mp4";
    }
    if (extension == "mp3") {
        return "audio/mpeg";
    }
    if (extension == "wav") {
        return "audio/wav";
    }
    if (extension == "aiff" || extension == "aif") {
        return "audio/aiff";
    }
    if (extension == "caf") {
        return "audio/x-caf";
    }
    return "application/octet-stream";
}

MultipartBody::MultipartBody(std::string boundary, const Fields& fields, const std::filesystem::path& file)
    : boundary_(std::move(boundary)), file_(file)
{
    fd_ = openRegularFile(file, O_RDONLY);
    if (fd_ < 0) {
        throwErrno(file.string());
    }
    struct stat info {};
    if (::fstat(fd_, &info) != 0) {
        int saved = errno;
        ::close(fd_);
        errno = saved;
        throwErrno(file.string());
    }
    fileSize_ = static_cast<std::uint64_t>(info.st_size);
#if defined(POSIX_FADV_SEQUENTIAL)
    ::posix_fadvise(fd_, 0, 0, POSIX_FADV_SEQUENTIAL);
#endif
    head_ = head(boundary_, fields, file.filename().string(), mediaType(file));
    trailer_ = trailer(boundary_);
}

MultipartBody::~MultipartBody()
{
    if (fd_ >= 0) {
        ::close(fd_);
    }
}

std::uint64_t MultipartBody::size() const
{
    return head_.size() + fileSize_ + trailer_.size();
}

bool MultipartBody::rewind()
{
    position_ = 0;
    return true;
}

std::string MultipartBody::contentType() const
{
    return "multipart/form-data; boundary=" + boundary_;
}

std::size_t MultipartBody::read(char* buffer, std::size_t capacity)
{
    std::size_t produced = 0;
    while (produced < capacity && position_ < size()) {
        std::size_t room = capacity - produced;
        if (position_ < head_.size()) {
            std::size_t n = std::min<std::size_t>(room, head_.size() - position_);
            std::memcpy(buffer + produced, head_.data() + position_, n);
            produced += n;
            position_ += n;
        } else if (position_ < head_.size() + fileSize_) {
            std::uint64_t offset = position_ - head_.size();
            std::size_t n = static_cast<std::size_t>(std::min<std::uint64_t>(room, fileSize_ - offset));
            ssize_t got = ::pread(fd_, buffer + produced, n, static_cast<off_t>(offset));
            if (got < 0) {
                if (errno == EINTR) {
                    continue;
                }
                throwErrno(file_.string());
            }
            if (got == 0) {
                // The body's length is already promised; a file that shrank cannot keep it.
                errno = EIO;
                throwErrno(file_.string() + " became shorter while it was sent");
            }
            produced += static_cast<std::size_t>(got);
            position_ += static_cast<std::uint64_t>(got);
        } else {
            std::uint64_t offset = position_ - head_.size() - fileSize_;
            std::size_t n = std::min<std::size_t>(room, trailer_.size() - offset);
            std::memcpy(buffer + produced, trailer_.data() + offset, n);
            produced += n;
            position_ += n;
        }
    }
    return produced;
}

} // namespace quillet
