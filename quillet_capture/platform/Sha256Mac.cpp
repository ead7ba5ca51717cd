// SHA-256 with CommonCrypto, part of the system library.
#include "quillet_capture/platform/Sha256.hpp"

#include <CommonCrypto/CommonDigest.h>

#include <algorithm>

namespace quillet {

struct Sha256::State {
    CC_SHA256_CTX context;
};

Sha256::Sha256() : state_(std::make_unique<State>())
{
    CC_SHA256_Init(&state_->context);
}

Sha256::~Sha256() = default;

void Sha256::update(const void* data, std::size_t size)
{
    // CC_LONG is 32 bits wide.
    const auto* bytes = static_cast<const unsigned char*>(data);
    while (size > 0) {
        auto piece = static_cast<CC_LONG>(std::min<std::size_t>(size, 1u << 30));
        CC_SHA256_Update(&state_->context, bytes, piece);
        bytes += piece;
        size -= piece;
    }
}

std::string Sha256::hexDigest()
{
    unsigned char digest[CC_SHA256_DIGEST_LENGTH];
    CC_SHA256_Final(digest, &state_->context);
    static constexpr char digits[] = "0123456789abcdef";
    std::string text;
    text.reserve(sizeof digest * 2);
    for (unsigned char byte : digest) {
        text += digits[byte >> 4];
        text += digits[byte & 0xF];
    }
    return text;
}

} // namespace quillet
