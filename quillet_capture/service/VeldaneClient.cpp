#include "quillet_capture/service/VeldaneClient.hpp"

#include "quillet_capture/config/Settings.hpp"

#include "quillet_capture/config/Keychain.hpp"
#include "quillet_capture/config/Log.hpp"
#include "quillet_capture/platform/Paths.hpp"
#include "quillet_capture/runtime/Tasks.hpp"
#include "quillet_capture/service/JsonDecoding.hpp"
#include "quillet_capture/service/MultipartBody.hpp"
#include "quillet_capture/service/RefusedToken.hpp"
#include "quillet_capture/util/AtomicFile.hpp"
#include "quillet_capture/util/Utf8.hpp"
#include "quillet_capture/util/Uuid.hpp"

#include <curl/curl.h>
#include <nlohmann/json.hpp>

#include <unistd.h>

#include <algorithm>
#include <iterator>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <memory>

namespace quillet {

namespace {

constexpr double kTaskPollSeconds = 5;
constexpr int kListingPageLimit = 200;

using HttpTransport::Header;

std::string textOrBinary(std::string_view bytes)
{
    return Utf8::isValid(bytes) ? std::string(bytes) : "<binary>";
}

// RFC 3986 pchar plus "/": what may stand in a path unescaped.
bool allowedInPath(unsigned char c)
{
    return std::isalnum(c) || std::string_view("-._~!$&'()*+,;=:@/").find(static_cast<char>(c)) != std::string_view::npos;
}

std::string percentEscape(std::string_view text, bool (*allowed)(unsigned char))
{
    static constexpr char kHex[] = "0123456789ABCDEF";
    std::string escaped;
    escaped.reserve(text.size());
    for (char ch : text) {
        auto c = static_cast<unsigned char>(ch);
        if (allowed(c)) {
            escaped += ch;
        } else {
            escaped += '%';
            escaped += kHex[c >> 4];
            escaped += kHex[c & 0x0F];
        }
    }
    return escaped;
}

// Query values are escaped down to the unreserved characters, so that an opaque cursor
// holding "+", "&" or "=" reaches the service unchanged.
bool allowedInQueryValue(unsigned char c)
{
    return std::isalnum(c) || c == '-' || c == '.' || c == '_' || c == '~';
}

// True when `url` parses as an absolute URL.
bool parsesAsURL(const std::string& url)
{
    CURLU* handle = curl_url();
    if (handle == nullptr) {
        return false;
    }
    bool ok = curl_url_set(handle, CURLUPART_URL, url.c_str(), CURLU_NON_SUPPORT_SCHEME) == CURLUE_OK;
    curl_url_cleanup(handle);
    return ok;
}

std::vector<Header> clientHeaders(const std::string& authorization)
{
    return {
        {"Authorization", authorization},
        {"X-Client-Type", VeldaneClient::clientType},
        {"X-Client-Version", VeldaneClient::clientVersion()},
        {"X-Client-Platform", VeldaneClient::clientPlatform},
    };
}

// Remembers a token that the service refused, telling the person once per token.
void noteRefusal(const std::string& baseURL, const HttpTransport::Response& answer, const std::string& authorization)
{
    if (answer.status == 401 && RefusedToken::shared().refuse(baseURL, authorization)) {
        rlog(RefusedToken::pairAgainMessage);
    }
}

void requireUnrefused(const std::string& baseURL, const std::string& authorization)
{
    if (RefusedToken::shared().isRefused(baseURL, authorization)) {
        throw VeldaneClient::ClientError::tokenRefused();
    }
}

asio::awaitable<std::string> requireAuthorization()
{
    auto read = [] { return Keychain::authorizationHeader(); };
    auto authorization = co_await runtime::blocking(std::move(read));
    if (!authorization) {
        throw VeldaneClient::ClientError::missingCredentials();
    }
    co_return *authorization;
}

VeldaneClient::UploadResult decodeUploadResult(std::string_view body)
{
    auto json = JsonDecoding::parse(body);
    JsonDecoding::Object object(json);
    VeldaneClient::UploadResult result;
    result.status = object.requiredString("status");
    result.task_id = object.optionalString("task_id");
    result.cache_key = object.optionalString("cache_key");
    result.message = object.optionalString("message");
    result.title = object.optionalString("title");
    return result;
}

VeldaneClient::PipelineStatus::TranscriptionStage decodeStage(const JsonDecoding::Object& object)
{
    VeldaneClient::PipelineStatus::TranscriptionStage stage;
    stage.status = object.optionalString("status");
    stage.model = object.optionalString("model");
    stage.duration = object.optionalDouble("duration");
    stage.word_count = object.optionalInt("word_count");
    return stage;
}

VeldaneClient::PipelineStatus decodePipelineStatus(std::string_view body)
{
    auto json = JsonDecoding::parse(body);
    JsonDecoding::Object object(json);
    VeldaneClient::PipelineStatus status;
    if (auto stages = object.optionalObject("status")) {
        status.status.emplace();
        if (auto transcription = stages->optionalObject("transcription")) {
            status.status->transcription = decodeStage(*transcription);
        }
    }
    return status;
}

VeldaneClient::SourceDetail decodeSourceDetail(std::string_view body)
{
    auto json = JsonDecoding::parse(body);
    JsonDecoding::Object object(json);
    VeldaneClient::SourceDetail detail;
    detail.success = object.requiredBool("success");
    auto result = object.requiredObject("result");
    detail.result.text = result.optionalString("text");
    detail.result.original_filename = result.optionalString("original_filename");
    detail.result.language = result.optionalString("language");
    detail.result.duration = result.optionalDouble("duration");
    detail.result.word_count = result.optionalInt("word_count");
    detail.result.model = result.optionalString("model");
    detail.result.llm_title = result.optionalString("llm_title");
    detail.result.llm_summary = result.optionalString("llm_summary");
    detail.result.status = result.optionalString("status");
    detail.cache_key = object.requiredString("cache_key");
    return detail;
}

// The task answer: a top-level "cache_key" wins over result.cache_key, even when empty.
std::optional<std::string> decodeTaskKey(std::string_view body)
{
    auto json = JsonDecoding::parse(body);
    JsonDecoding::Object object(json);
    object.optionalString("status");
    auto topLevel = object.optionalString("cache_key");
    auto result = object.optionalObject("result");
    std::optional<std::string> nested = result ? result->optionalString("cache_key") : std::nullopt;
    return topLevel ? topLevel : nested;
}

VeldaneClient::PlanRequiredBody decodePlanRequired(std::string_view body)
{
    auto json = JsonDecoding::parse(body);
    JsonDecoding::Object object(json);
    return {object.optionalString("error"), object.optionalString("plan"), object.optionalString("message")};
}

bool usableMatch(const SourceMetadata& item, const std::string& fileName, const std::optional<std::string>& excluding)
{
    if (!item.original_filename || *item.original_filename != fileName) {
        return false;
    }
    std::string status = item.status.value_or("");
    for (char& c : status) {
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
    if (status == "failed" || status == "error") {
        return false;
    }
    if (item.is_deleted.value_or(false)) {
        return false;
    }
    if (item.cache_key.empty()) {
        return false;
    }
    return !(excluding && item.cache_key == *excluding);
}

} // namespace

std::string configuredBaseURL()
{
    return Settings::shared().veldaneBaseURL();
}

// Answer models

VeldaneClient::UploadResult VeldaneClient::UploadResult::decode(std::string_view body)
{
    return decodeUploadResult(body);
}

VeldaneClient::PipelineStatus VeldaneClient::PipelineStatus::decode(std::string_view body)
{
    return decodePipelineStatus(body);
}

VeldaneClient::SourceDetail VeldaneClient::SourceDetail::decode(std::string_view body)
{
    return decodeSourceDetail(body);
}

// ClientError

VeldaneClient::ClientError VeldaneClient::ClientError::requestFailed(long status, std::string body)
{
    ClientError error(Kind::requestFailed);
    error.status_ = status;
    error.text_ = std::move(body);
    error.describe();
    return error;
}

VeldaneClient::ClientError VeldaneClient::ClientError::planRequired(std::optional<std::string> plan,
                                                                    std::optional<std::string> message)
{
    ClientError error(Kind::planRequired);
    error.status_ = 402;
    error.plan_ = std::move(plan);
    error.message_ = std::move(message);
    error.describe();
    return error;
}

VeldaneClient::ClientError VeldaneClient::ClientError::malformedResponse(std::string detail)
{
    ClientError error(Kind::malformedResponse);
    error.text_ = std::move(detail);
    error.describe();
    return error;
}

VeldaneClient::ClientError VeldaneClient::ClientError::audioFileNotReadable(const std::filesystem::path& file)
{
    ClientError error(Kind::audioFileNotReadable);
    error.file_ = file;
    error.describe();
    return error;
}

VeldaneClient::ClientError VeldaneClient::ClientError::missingCredentials()
{
    ClientError error(Kind::missingCredentials);
    error.describe();
    return error;
}

VeldaneClient::ClientError VeldaneClient::ClientError::tokenRefused()
{
    ClientError error(Kind::tokenRefused);
    error.status_ = 401;
    error.describe();
    return error;
}

void VeldaneClient::ClientError::describe()
{
    switch (kind_) {
    case Kind::requestFailed:
        description_ = "VD request failed (" + std::to_string(status_) + "): " + text_;
        break;
    case Kind::planRequired:
        if (message_ && !message_->empty()) {
            description_ = "Veldane refused this request (402): " + *message_;
        } else {
            description_ = "Veldane refused this request for your plan (402";
            if (plan_) {
                description_ += ", needs " + *plan_;
            }
            description_ += ")";
        }
        break;
    case Kind::malformedResponse:
        description_ = "VD response malformed: " + text_;
        break;
    case Kind::audioFileNotReadable:
        description_ = "Cannot read audio file: " + file_.string();
        break;
    case Kind::missingCredentials:
        description_ = "Not connected to Veldane (Settings > Captures > Connect to Veldane\u2026)";
        break;
    case Kind::tokenRefused:
        description_ = "Veldane refused this device's token (401) -- run `quillet-capture pair` to connect again";
        break;
    }
}

// VeldaneClient

std::string VeldaneClient::clientVersion()
{
    return "0.0.0";
}

VeldaneClient::UploadGate& VeldaneClient::uploadGate()
{
    static auto* gate = new UploadGate; // lives as long as the process; waiters may outlive main
    return *gate;
}

VeldaneClient::VeldaneClient(std::string baseURL, runtime::Clock& clock, Timeouts timeouts)
    : baseURL_(std::move(baseURL)), clock_(&clock), timeouts_(timeouts)
{
}

std::string VeldaneClient::endpoint(std::string_view relativePath) const
{
    std::string url = baseURL_;
    if (url.empty() || url.back() != '/') {
        url += '/';
    }
    return url + percentEscape(relativePath, allowedInPath);
}

std::optional<std::string> VeldaneClient::listingURL(bool includeDeleted, const std::optional<std::string>& before) const
{
    std::string url = endpoint("sources") + "?limit=100";
    if (includeDeleted) {
        url += "&include_deleted=true";
    }
    if (before) {
        url += "&before=" + percentEscape(*before, allowedInQueryValue);
    }
    if (!parsesAsURL(url)) {
        return std::nullopt;
    }
    return url;
}

asio::awaitable<HttpTransport::Response> VeldaneClient::compatData(HttpTransport::Request request)
{
    auto send = [request = std::move(request)] { return HttpTransport::perform(request); };
    co_return co_await runtime::blocking(std::move(send));
}

void VeldaneClient::checkOK(const HttpTransport::Response& answer)
{
    if (!answer.status) {
        throw ClientError::malformedResponse("no HTTP response");
    }
    long status = *answer.status;
    if (status >= 200 && status <= 299) {
        return;
    }
    if (status == 402) {
        PlanRequiredBody body;
        try {
            body = decodePlanRequired(answer.body);
        } catch (const DecodeError&) {
            // A 402 whose body says nothing usable is still a plan refusal.
        }
        throw ClientError::planRequired(std::move(body.plan), std::move(body.message));
    }
    throw ClientError::requestFailed(status, textOrBinary(answer.body));
}

HttpTransport::Request VeldaneClient::getRequest(std::string url, std::size_t limit) const
{
    HttpTransport::Request request;
    request.method = "GET";
    request.url = std::move(url);
    request.timeout = std::chrono::duration<double>(timeouts_.request);
    request.maxResponseBytes = limit;
    return request;
}

std::string VeldaneClient::sendGet(HttpTransport::Request request) const
{
    auto authorization = Keychain::authorizationHeader();
    if (!authorization) {
        throw ClientError::missingCredentials();
    }
    requireUnrefused(baseURL_, *authorization);
    request.headers = clientHeaders(*authorization);
    auto answer = HttpTransport::perform(request);
    noteRefusal(baseURL_, answer, *authorization);
    checkOK(answer);
    return std::move(answer.body);
}

asio::awaitable<std::string> VeldaneClient::get(std::string url, std::size_t limit) const
{
    // The token is read and the request sent in one trip to the blocking pool: each trip
    // costs two thread wake-ups, which add up over a listing of two hundred pages.
    auto send = [this, request = getRequest(std::move(url), limit)]() mutable { return sendGet(std::move(request)); };
    co_return co_await runtime::blocking(std::move(send));
}

asio::awaitable<VeldaneClient::UploadResult> VeldaneClient::uploadAudio(std::filesystem::path fileURL,
                                                                        std::string contentSource,
                                                                        std::optional<std::string> language,
                                                                        std::vector<std::string> tags,
                                                                        std::map<std::string, std::string> sourceMetadata)
{
    auto authorization = co_await requireAuthorization();
    if (::access(fileURL.c_str(), R_OK) != 0) {
        throw ClientError::audioFileNotReadable(fileURL);
    }
    std::string boundary = "----QuilletBoundary" + newUuid();
    MultipartBody::Fields fields{std::move(contentSource), std::move(language), std::move(tags),
                                 std::move(sourceMetadata)};

    requireUnrefused(baseURL_, authorization);

    auto& gate = uploadGate();
    co_await gate.acquire();
    // Released on every way out of this frame, as a task of its own.
    std::unique_ptr<UploadGate, void (*)(UploadGate*)> hold(&gate, [](UploadGate* g) { g->releaseLater(); });

    // The token may have been refused while this upload waited for the gate.
    requireUnrefused(baseURL_, authorization);
    // The body is prepared only now, holding the gate, so that waiting uploads keep no file
    // open and no body in memory.
    MultipartBody body(boundary, fields, fileURL);
    HttpTransport::Request request;
    request.method = "POST";
    request.url = endpoint("sources");
    request.headers = clientHeaders(authorization);
    request.headers.insert(request.headers.begin() + 1, Header{"Content-Type", body.contentType()});
    request.stream = &body;
    request.timeout = std::chrono::duration<double>(timeouts_.upload);
    request.maxResponseBytes = timeouts_.maxResponseBytes;

    auto answer = co_await compatData(std::move(request));
    noteRefusal(baseURL_, answer, authorization);
    checkOK(answer);
    try {
        co_return decodeUploadResult(answer.body);
    } catch (const DecodeError& error) {
        std::string_view head(answer.body.data(), std::min<std::size_t>(answer.body.size(), 300));
        throw ClientError::malformedResponse("upload: " + error.debugDescription() + " -- body: " + textOrBinary(head));
    }
}

asio::awaitable<VeldaneClient::PipelineStatus> VeldaneClient::status(std::string cacheKey)
{
    auto body = co_await get(endpoint("sources/" + cacheKey + "/status"), timeouts_.maxResponseBytes);
    try {
        co_return decodePipelineStatus(body);
    } catch (const DecodeError& error) {
        throw ClientError::malformedResponse("status: " + error.localizedDescription());
    }
}

asio::awaitable<VeldaneClient::SourceDetail> VeldaneClient::source(std::string cacheKey)
{
    auto body = co_await get(endpoint("sources/" + cacheKey), timeouts_.maxSourceBytes);
    try {
        co_return decodeSourceDetail(body);
    } catch (const DecodeError& error) {
        throw ClientError::malformedResponse("source: " + error.localizedDescription());
    }
}

asio::awaitable<std::optional<std::string>> VeldaneClient::cacheKey(std::string taskId, double timeoutSeconds)
{
    if (!(timeoutSeconds > 0)) {
        co_return std::nullopt;
    }
    // Ten years stands for "no limit" without overflowing the clock's arithmetic.
    timeoutSeconds = std::min(timeoutSeconds, 10.0 * 365 * 24 * 3600);
    std::string url = endpoint("sources/tasks/" + taskId);
    auto deadline = clock_->now() + std::chrono::duration_cast<runtime::Clock::TimePoint::duration>(
                                        std::chrono::duration<double>(timeoutSeconds));
    while (clock_->now() < deadline) {
        std::optional<std::string> key;
        try {
            key = decodeTaskKey(co_await get(url, timeouts_.maxResponseBytes));
        } catch (...) {
            // Every failure (token, transport, HTTP, body) only means: ask again later.
        }
        if (key && !key->empty()) {
            co_return key;
        }
        try {
            co_await clock_->wait(runtime::Clock::Seconds(kTaskPollSeconds));
        } catch (...) {
            // A cancelled wait is not a reason to give up before the deadline.
        }
    }
    co_return std::nullopt;
}

asio::awaitable<std::vector<SourceMetadata>> VeldaneClient::listAllSources(IncludeDeleted includeDeleted)
{
    // The pages are fetched and decoded one after the other on one thread of the blocking
    // pool. A page costs about as much to fetch as to decode, and fetching the next one on
    // another thread meanwhile cost more in hand-overs between threads than it saved, most of
    // all on a busy machine.
    auto listAll = [this, deleted = includeDeleted == IncludeDeleted::yes] { return listPages(deleted); };
    co_return co_await runtime::blocking(std::move(listAll));
}

std::vector<SourceMetadata> VeldaneClient::listPages(bool deleted) const
{
    // Pages are kept apart and joined at the end, so that no item is moved more than once.
    std::vector<std::vector<SourceMetadata>> pages;
    auto joined = [&pages] {
        std::size_t total = 0;
        for (const auto& files : pages) {
            total += files.size();
        }
        std::vector<SourceMetadata> items;
        items.reserve(total);
        for (auto& files : pages) {
            std::move(files.begin(), files.end(), std::back_inserter(items));
        }
        return items;
    };
    std::optional<std::string> cursor;
    // Counted down from 200 and tested before the cursor: the 200th page is always an error,
    // even when it is the last one. That bound is part of the contract.
    for (int pagesLeft = kListingPageLimit;; --pagesLeft) {
        auto url = listingURL(deleted, cursor);
        if (!url) {
            throw ClientError::malformedResponse("list: could not build URL");
        }
        auto body = sendGet(getRequest(std::move(*url), timeouts_.maxListingPageBytes));
        SourceListResponse page;
        try {
            page = SourceListResponse::decode(body);
        } catch (const DecodeError& error) {
            throw ClientError::malformedResponse("list: " + error.localizedDescription());
        }
        pages.push_back(std::move(page.files));
        if (pagesLeft <= 1) {
            throw ClientError::malformedResponse("list: pagination exceeded 200 pages");
        }
        if (!page.has_more || !page.next_cursor) {
            return joined();
        }
        cursor = std::move(page.next_cursor);
    }
}

asio::awaitable<std::optional<std::string>> VeldaneClient::currentKey(std::string uploadedFilename,
                                                                      std::optional<std::string> excluding,
                                                                      int maxPages)
{
    if (maxPages < 0) {
        std::fprintf(stderr, "VeldaneClient::currentKey: maxPages must not be negative (%d)\n", maxPages);
        std::abort();
    }
    std::optional<std::string> cursor;
    for (int fetched = 0; fetched < maxPages;) {
        auto url = listingURL(false, cursor);
        if (!url) {
            co_return std::nullopt;
        }
        SourceListResponse page;
        try {
            page = SourceListResponse::decode(co_await get(*url, timeouts_.maxListingPageBytes));
        } catch (...) {
            co_return std::nullopt;
        }
        ++fetched;
        for (const auto& item : page.files) {
            if (usableMatch(item, uploadedFilename, excluding)) {
                co_return item.cache_key;
            }
        }
        if (!page.has_more || !page.next_cursor) {
            break;
        }
        cursor = page.next_cursor;
    }
    co_return std::nullopt;
}

} // namespace quillet
