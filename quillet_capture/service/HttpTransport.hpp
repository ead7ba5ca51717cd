#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace quillet {

/// The one HTTP transport of the program, on libcurl: blocking requests with a total
/// time-out, connections kept alive and reused between requests, redirects not followed,
/// HTTP and HTTPS only. Callers that are coroutines run `perform` through runtime::blocking.
namespace HttpTransport {

/// The most an answer may hold that the program only reads a few fields of (a job status, a
/// task, a pairing step, an upload's answer): such answers are a few hundred bytes.
inline constexpr std::size_t kInspectedAnswerLimit = std::size_t{1} << 20;

/// `bytes` as people read a limit: "1 MiB", "4 MiB", or "1500 bytes" when not whole MiB.
std::string describeLimit(std::size_t bytes);

struct Header {
    std::string name;
    std::string value;
};

/// An upload body produced piece by piece, so that a large file is never held in memory.
class BodyStream {
public:
    virtual ~BodyStream() = default;
    /// The exact number of bytes that `read` will produce in all (sent as Content-Length).
    virtual std::uint64_t size() const = 0;
    /// Fills up to `capacity` bytes of `buffer` and returns how many; 0 only at the end.
    /// May throw (a file that cannot be read); the request then fails with that exception.
    virtual std::size_t read(char* buffer, std::size_t capacity) = 0;
    /// Starts over from the first byte (a kept-alive connection that the server closed is
    /// retried on a new one). False when that is not possible.
    virtual bool rewind() = 0;
};

struct Request {
    std::string method = "GET";        // "GET" or "POST"
    std::string url;
    std::vector<Header> headers;       // sent in this order
    std::string body;                  // the POST body when `stream` is null
    BodyStream* stream = nullptr;      // the POST body, streamed; must outlive perform()
    std::chrono::duration<double> timeout{60};  // the whole exchange
    // A longer answer fails as a transport error, as soon as its length is announced or
    // received: the rest is never read.
    std::size_t maxResponseBytes = kInspectedAnswerLimit;
};

struct Response {
    /// The HTTP status; absent when the answer was not an HTTP response.
    std::optional<long> status;
    std::string body;
};

/// A failure below HTTP: no connection, time-out, TLS, a connection closed mid-answer, an
/// answer longer than allowed. `what()` is libcurl's description of it, or for a long answer
/// "The service's answer is larger than the <limit> allowed for it; it was not read further.".
class TransportError : public std::runtime_error {
public:
    TransportError(int curlCode, const std::string& description)
        : std::runtime_error(description), curlCode_(curlCode)
    {
    }
    /// The libcurl result code (CURLcode).
    int curlCode() const { return curlCode_; }
    /// True when the time-out ended the exchange.
    bool timedOut() const;

private:
    int curlCode_;
};

/// Sends `request` and returns the answer whatever its status. Blocks the calling thread;
/// safe from any number of threads at once. Throws TransportError, or what `request.stream`
/// threw.
Response perform(const Request& request);

} // namespace HttpTransport
} // namespace quillet
