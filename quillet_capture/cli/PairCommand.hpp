#pragma once

#include <asio/awaitable.hpp>
#include <nlohmann/json.hpp>

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace quillet {

/// An HTTP status outside 200...299 in answer to a pairing request (error domain "pair"):
/// "Veldane returned HTTP " {status} ". " {the body's first 200 characters, or nothing when
/// the body is not UTF-8}.
class PairError : public std::runtime_error {
public:
    PairError(long status, std::string_view body);
    /// The HTTP status.
    long code() const { return code_; }

private:
    long code_;
};

/// The answer to the start of a pairing; every key required.
struct PairInit {
    std::string deviceCode;       // "device_code"
    std::string userCode;         // "user_code"
    std::string verificationURL;  // "verification_url"
    std::int64_t interval = 0;    // "interval", seconds between polls
    std::int64_t expiresIn = 0;   // "expires_in", seconds

    /// Throws DecodeError when `body` is not one.
    static PairInit decode(std::string_view body);
};

/// The answer to one poll.
struct PairPoll {
    std::string status;                               // "status", required
    std::optional<std::string> token;                 // "token"
    std::optional<std::vector<std::string>> scopes;   // "scopes", not used

    /// Throws DecodeError when `body` is not one.
    static PairPoll decode(std::string_view body);
};

/// POSTs `body` as compact JSON to `url` with only a Content-Type header (no token: pairing
/// comes before there is one) and returns the answer's body. Throws the transport's error,
/// PairError for a status outside 200...299, or nlohmann::json's error when `body` cannot be
/// serialised. `timeoutSeconds` bounds the whole exchange.
asio::awaitable<std::string> postJSON(std::string url, nlohmann::json body, double timeoutSeconds = 60);

} // namespace quillet
