#pragma once

#include "quillet_capture/runtime/Clock.hpp"
#include "quillet_capture/service/HttpTransport.hpp"
#include "quillet_capture/service/SourceMetadata.hpp"
#include "quillet_capture/service/UploadGate.hpp"

#include <asio/awaitable.hpp>

#include <cstdint>
#include <exception>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quillet {

/// The base URL of the Veldane API from the settings file ("veldaneBaseURL"), or the default
/// "https://api.veldane.com/api/v1" when the settings hold none. Read afresh at every call.
std::string configuredBaseURL();

/// How long requests of a VeldaneClient may take, and how long an answer may be. A longer
/// answer fails as HttpTransport::TransportError naming the limit, without the rest being read.
struct VeldaneTimeouts {
    double request = 60;   // seconds, every GET
    double upload = 900;   // seconds, the upload
    /// The answers only inspected: a status, a task, an upload's answer (a few hundred bytes).
    std::size_t maxResponseBytes = HttpTransport::kInspectedAnswerLimit;
    /// A page of the listing: a hundred sources with titles and summaries, about 35 KB.
    std::size_t maxListingPageBytes = std::size_t{4} << 20;
    /// A source with its transcript, which goes into the note whole.
    std::size_t maxSourceBytes = std::size_t{64} << 20;
};

/// The HTTP client of the Veldane API. A client holds only its base URL, its clock and its
/// time-outs; make a fresh one whenever it is needed, and keep it alive until the operations
/// awaited on it have completed. Every operation is a coroutine: the network calls run on the
/// blocking pool while the caller stays suspended. Operations may run concurrently on one
/// client from any executor; uploads are serialised process-wide by uploadGate().
///
/// Transport failures (no connection, time-out, TLS, a closed connection) are thrown as
/// HttpTransport::TransportError; HTTP and decoding failures as ClientError. A token that the
/// service refused (401) is remembered in RefusedToken and not sent again: later operations
/// fail with tokenRefused before anything is sent, until the store holds another token.
class VeldaneClient {
public:
    /// Sent as X-Client-Type.
    static constexpr const char* clientType = "quillet-mac";
    /// Sent as X-Client-Platform.
    static constexpr const char* clientPlatform = "macos_menubar";
    /// Sent as X-Client-Version. The agent has no bundle version of its own, so this is
    /// "0.0.0", never the agent's version.
    static std::string clientVersion();

    using Timeouts = VeldaneTimeouts;

    /// The errors of the client; what() is the exact description users see.
    class ClientError : public std::exception {
    public:
        enum class Kind {
            requestFailed,
            planRequired,
            malformedResponse,
            audioFileNotReadable,
            missingCredentials,
            tokenRefused
        };

        /// Any HTTP status outside 200...299 except 402; `body` as text, "<binary>" when not UTF-8.
        static ClientError requestFailed(long status, std::string body);
        /// HTTP 402, with what its body said.
        static ClientError planRequired(std::optional<std::string> plan, std::optional<std::string> message);
        /// No HTTP response, or an answer that does not decode.
        static ClientError malformedResponse(std::string detail);
        /// The upload's file is not readable.
        static ClientError audioFileNotReadable(const std::filesystem::path& file);
        /// No usable device token.
        static ClientError missingCredentials();
        /// Nothing sent: the service already refused (401) the device token that the store
        /// holds (see RefusedToken).
        static ClientError tokenRefused();

        /// True when the service refused the device token: an HTTP 401, or tokenRefused.
        /// Asking again with the same token cannot help; a new `pair` can.
        bool isTokenRefusal() const
        {
            return kind_ == Kind::tokenRefused || (kind_ == Kind::requestFailed && status_ == 401);
        }

        Kind kind() const { return kind_; }
        long status() const { return status_; }
        const std::string& body() const { return text_; }       // requestFailed
        const std::string& detail() const { return text_; }     // malformedResponse
        const std::optional<std::string>& plan() const { return plan_; }
        const std::optional<std::string>& message() const { return message_; }
        const std::filesystem::path& file() const { return file_; }

        /// The description users see.
        const std::string& errorDescription() const { return description_; }
        const char* what() const noexcept override { return description_.c_str(); }

    private:
        explicit ClientError(Kind kind) : kind_(kind) {}
        void describe();

        Kind kind_;
        long status_ = 0;
        std::string text_;
        std::optional<std::string> plan_;
        std::optional<std::string> message_;
        std::filesystem::path file_;
        std::string description_;
    };

    /// The body of an HTTP 402 answer; every key optional.
    struct PlanRequiredBody {
        std::optional<std::string> error;
        std::optional<std::string> plan;
        std::optional<std::string> message;
    };

    /// The answer to an upload.
    struct UploadResult {
        std::string status;
        std::optional<std::string> task_id;
        std::optional<std::string> cache_key;
        std::optional<std::string> message;
        std::optional<std::string> title;

        /// The service already had this audio file.
        bool isDuplicate() const { return status == "duplicate_upload"; }

        /// Decodes an upload's answer; throws DecodeError (service/JsonDecoding.hpp) when
        /// `body` is not one.
        static UploadResult decode(std::string_view body);
    };

    /// The pipeline status of a source: {"status": {"transcription": {...}}}, every level
    /// optional.
    struct PipelineStatus {
        struct TranscriptionStage {
            std::optional<std::string> status;
            std::optional<std::string> model;
            std::optional<double> duration;
            std::optional<std::int64_t> word_count;
        };
        struct Stages {
            std::optional<TranscriptionStage> transcription;
        };

        std::optional<Stages> status;

        /// status.transcription.
        std::optional<TranscriptionStage> transcription() const
        {
            return status ? status->transcription : std::nullopt;
        }

        /// Decodes a status answer; throws DecodeError when `body` is not one.
        static PipelineStatus decode(std::string_view body);
    };

    /// One source with its transcript.
    struct SourceDetail {
        struct ResultBlock {
            std::optional<std::string> text;  // the transcript
            std::optional<std::string> original_filename;
            std::optional<std::string> language;
            std::optional<double> duration;
            std::optional<std::int64_t> word_count;
            std::optional<std::string> model;
            std::optional<std::string> llm_title;
            std::optional<std::string> llm_summary;
            std::optional<std::string> status;
        };

        bool success = false;
        ResultBlock result;
        std::string cache_key;

        /// Decodes a source answer; throws DecodeError when `body` is not one.
        static SourceDetail decode(std::string_view body);
    };

    using UploadGate = quillet::UploadGate;

    /// The gate every upload of the process takes; created once, on first use.
    static UploadGate& uploadGate();

    enum class IncludeDeleted { no, yes };

    /// A client for the API at `baseURL` (for example configuredBaseURL()), waiting through
    /// `clock`. `clock` must outlive the client.
    explicit VeldaneClient(std::string baseURL, runtime::Clock& clock = runtime::systemClock(),
                           Timeouts timeouts = Timeouts());

    const std::string& baseURL() const { return baseURL_; }

    /// Sends one audio file as a new source (POST sources, multipart/form-data) and returns
    /// the service's answer, duplicates included. Fails, before anything is sent, with
    /// missingCredentials or audioFileNotReadable; then waits for the upload gate, streams the
    /// file (a file that cannot be read fails with std::system_error), and fails with the
    /// transport's error, planRequired, requestFailed or malformedResponse ("upload: ...").
    asio::awaitable<UploadResult> uploadAudio(std::filesystem::path fileURL, std::string contentSource,
                                              std::optional<std::string> language = std::nullopt,
                                              std::vector<std::string> tags = {},
                                              std::map<std::string, std::string> sourceMetadata = {});

    /// GET sources/{key}/status. Throws the errors of get(); a bad body is malformedResponse
    /// ("status: ...").
    asio::awaitable<PipelineStatus> status(std::string cacheKey);

    /// GET sources/{key}. Throws the errors of get(); a bad body is malformedResponse
    /// ("source: ...").
    asio::awaitable<SourceDetail> source(std::string cacheKey);

    /// Asks GET sources/tasks/{task} every 5 seconds (on the clock) until it names a non-empty
    /// cache key or `timeoutSeconds` have passed. Never throws; absent when no key came.
    asio::awaitable<std::optional<std::string>> cacheKey(std::string taskId, double timeoutSeconds);

    /// Every source of the library, page by page in the service's order. Throws the errors of
    /// get() and malformedResponse ("list: ..."), also on the 200th page.
    asio::awaitable<std::vector<SourceMetadata>> listAllSources(IncludeDeleted includeDeleted);

    /// The key of the first usable source (not failed, not deleted, not `excluding`) whose
    /// original file name is `uploadedFilename`, looking at most at `maxPages` pages
    /// (negative: a programming error that stops the process). Never throws; absent when
    /// there is none or anything fails.
    asio::awaitable<std::optional<std::string>> currentKey(std::string uploadedFilename,
                                                           std::optional<std::string> excluding, int maxPages);

    /// The URL of `relativePath` under the base URL, joined as path components: characters
    /// that may not stand in a path are percent-escaped, "/" separates components.
    std::string endpoint(std::string_view relativePath) const;

    /// Sends `request` on the blocking pool and returns the answer, whatever its status; the
    /// transport's errors are thrown as they are.
    static asio::awaitable<HttpTransport::Response> compatData(HttpTransport::Request request);

    /// Accepts an answer with status 200...299; throws malformedResponse("no HTTP response"),
    /// planRequired (402) or requestFailed otherwise.
    static void checkOK(const HttpTransport::Response& answer);

private:
    // The authenticated GET of every read operation: missingCredentials before anything is
    // sent, then the common headers, the request time-out, an answer of at most `limit` bytes,
    // and checkOK.
    asio::awaitable<std::string> get(std::string url, std::size_t limit) const;
    // The request of get(), sent on the calling thread.
    std::string sendGet(HttpTransport::Request request) const;
    // The request of get() for `url`, with the time-out and an answer of at most `limit` bytes.
    HttpTransport::Request getRequest(std::string url, std::size_t limit) const;
    // base + path with the listing's query items, or absent when no URL can be formed.
    std::optional<std::string> listingURL(bool includeDeleted, const std::optional<std::string>& before) const;
    // Every page of the listing, fetched on the calling thread (listAllSources' work).
    std::vector<SourceMetadata> listPages(bool includeDeleted) const;

    std::string baseURL_;
    runtime::Clock* clock_;
    Timeouts timeouts_;
};

} // namespace quillet
