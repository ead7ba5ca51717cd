#pragma once

#include "quillet_capture/service/HttpTransport.hpp"

#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quillet {

/// The multipart/form-data body of an upload: the form fields, then the audio file, then the
/// closing line. The file's bytes are read from disk while the body is sent, never held whole.
class MultipartBody final : public HttpTransport::BodyStream {
public:
    struct Fields {
        std::string contentSource;
        std::optional<std::string> language;           // a part only when present (even empty)
        std::vector<std::string> tags;                   // a part only when not empty
        std::map<std::string, std::string> sourceMetadata;  // a part only when not empty
    };

    /// Opens `file` and prepares the body. Throws std::system_error when the file cannot be
    /// opened or examined.
    MultipartBody(std::string boundary, const Fields& fields, const std::filesystem::path& file);
    ~MultipartBody() override;

    MultipartBody(const MultipartBody&) = delete;
    MultipartBody& operator=(const MultipartBody&) = delete;

    std::uint64_t size() const override;
    /// Throws std::system_error when the file cannot be read, or shrank since it was opened.
    std::size_t read(char* buffer, std::size_t capacity) override;
    bool rewind() override;

    /// "multipart/form-data; boundary=" + the boundary.
    std::string contentType() const;

    /// The bytes before the file's contents (every field part and the file part's header).
    static std::string head(std::string_view boundary, const Fields& fields, std::string_view fileName,
                            std::string_view mediaType);
    /// The bytes after the file's contents: the end of the file part and the closing line.
    static std::string trailer(std::string_view boundary);
    /// The media type of the file part, by the file's extension in any case.
    static std::string mediaType(const std::filesystem::path& file);

private:
    std::string boundary_;
    std::string head_;
    std::string trailer_;
    std::filesystem::path file_;
    int fd_ = -1;
    std::uint64_t fileSize_ = 0;
    std::uint64_t position_ = 0;  // bytes produced so far, over head, file and trailer
};

} // namespace quillet
