#pragma once

#include <cstddef>
#include <filesystem>
#include <memory>
#include <string>

namespace quillet {

/// A SHA-256 digest computed piece by piece, with the platform's implementation (CommonCrypto
/// on macOS, OpenSSL's libcrypto on Linux, opened on first use). One thread at a time.
class Sha256 {
public:
    Sha256();
    ~Sha256();
    Sha256(const Sha256&) = delete;
    Sha256& operator=(const Sha256&) = delete;

    /// Adds `size` bytes at `data` to the digest.
    void update(const void* data, std::size_t size);

    /// The digest of every byte added, as 64 lower-case hexadecimal digits. Ends the
    /// computation: call it once.
    std::string hexDigest();

    /// The digest of the whole file at `file`, read in large pieces. Throws std::system_error
    /// when it cannot be opened or read.
    static std::string ofFile(const std::filesystem::path& file);

    /// True when `text` has the form of a `hexDigest`.
    static bool isHexDigest(const std::string& text);

private:
    struct State;
    std::unique_ptr<State> state_;
};

} // namespace quillet
