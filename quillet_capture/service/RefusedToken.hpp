#pragma once

#include <mutex>
#include <optional>
#include <string>

namespace quillet {

/// The device token that the service refused (HTTP 401), remembered for the whole process.
/// A refused token is not sent to that service again: a revoked token costs a handful of
/// requests, not one per poll of every capture, and the person is told once to pair again.
/// Any other token (the one a new `pair` stores) is used as usual. Any thread.
class RefusedToken {
public:
    /// The line logged when a token is first refused.
    static constexpr const char* pairAgainMessage =
        "[quillet] Veldane refused this device's token (HTTP 401) -- run `quillet-capture pair` to connect "
        "again; captures wait for it and then go on by themselves";

    /// The process-wide instance (never destroyed).
    static RefusedToken& shared();

    /// Records that the service at `baseURL` refused `authorization` (the whole header value).
    /// True when that was not yet known, so that the caller tells the person once.
    bool refuse(const std::string& baseURL, const std::string& authorization);

    /// True when the service at `baseURL` refused `authorization`.
    bool isRefused(const std::string& baseURL, const std::string& authorization) const;

    /// Forgets the refusal: every token is used again (a new person, or a new start).
    void forget();

private:
    struct Refusal {
        std::string baseURL;
        std::string authorization;
    };
    mutable std::mutex lock_;
    std::optional<Refusal> refused_;
};

} // namespace quillet
