// SHA-256 with OpenSSL's libcrypto, opened on the first digest (platform/LazyLibrary.hpp): the
// idle agent and the commands that never copy a recording do not load it.
#include "quillet_capture/platform/Sha256.hpp"

#include "quillet_capture/platform/LazyLibrary.hpp"

#include <openssl/evp.h>

#include <stdexcept>

namespace quillet {

namespace {

LazyLibrary& libcrypto()
{
    static LazyLibrary library{"libcrypto.so.3", "libcrypto.so.1.1", "libcrypto.so"};
    return library;
}

// Through pointers, never under libcrypto's own names: libcurl's TLS library calls these
// functions too and must reach libcrypto's, not a forwarder of ours.
struct Functions {
    decltype(&::EVP_MD_CTX_new) newContext = libcrypto().function<decltype(&::EVP_MD_CTX_new)>("EVP_MD_CTX_new");
    decltype(&::EVP_MD_CTX_free) freeContext = libcrypto().function<decltype(&::EVP_MD_CTX_free)>("EVP_MD_CTX_free");
    decltype(&::EVP_sha256) sha256 = libcrypto().function<decltype(&::EVP_sha256)>("EVP_sha256");
    decltype(&::EVP_DigestInit_ex) init = libcrypto().function<decltype(&::EVP_DigestInit_ex)>("EVP_DigestInit_ex");
    decltype(&::EVP_DigestUpdate) update = libcrypto().function<decltype(&::EVP_DigestUpdate)>("EVP_DigestUpdate");
    decltype(&::EVP_DigestFinal_ex) final = libcrypto().function<decltype(&::EVP_DigestFinal_ex)>("EVP_DigestFinal_ex");
};

const Functions& crypto()
{
    static const Functions functions;
    return functions;
}

} // namespace

struct Sha256::State {
    EVP_MD_CTX* context = nullptr;
};

Sha256::Sha256() : state_(std::make_unique<State>())
{
    state_->context = crypto().newContext();
    if (state_->context == nullptr || crypto().init(state_->context, crypto().sha256(), nullptr) != 1) {
        crypto().freeContext(state_->context);
        throw std::runtime_error("libcrypto cannot compute SHA-256");
    }
}

Sha256::~Sha256()
{
    crypto().freeContext(state_->context);
}

void Sha256::update(const void* data, std::size_t size)
{
    if (size > 0 && crypto().update(state_->context, data, size) != 1) {
        throw std::runtime_error("libcrypto cannot compute SHA-256");
    }
}

std::string Sha256::hexDigest()
{
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (crypto().final(state_->context, digest, &length) != 1) {
        throw std::runtime_error("libcrypto cannot compute SHA-256");
    }
    static constexpr char digits[] = "0123456789abcdef";
    std::string text;
    text.reserve(length * 2);
    for (unsigned int i = 0; i < length; ++i) {
        text += digits[digest[i] >> 4];
        text += digits[digest[i] & 0xF];
    }
    return text;
}

} // namespace quillet
