#include "quillet_capture/service/HttpTransport.hpp"

#include <curl/curl.h>

#include <algorithm>
#include <cstdio>
#include <exception>
#include <memory>
#include <mutex>

namespace quillet::HttpTransport {

namespace {

// Idle easy handles keep their connections, so the next request to the same host reuses one
// (a listing of two hundred pages opens a single connection). More than this many idle
// handles are not kept.
constexpr std::size_t kPoolLimit = 8;
// Big enough that a streamed upload moves in few callbacks; libcurl's default is 64 KiB.
constexpr long kUploadBufferSize = 512 * 1024;

void initialiseOnce()
{
    static std::once_flag once;
    std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

class HandlePool {
public:
    CURL* take()
    {
        {
            std::lock_guard guard(lock_);
            if (!idle_.empty()) {
                CURL* handle = idle_.back();
                idle_.pop_back();
                return handle;
            }
        }
        return curl_easy_init();
    }

    void giveBack(CURL* handle)
    {
        // reset() clears the options but keeps the open connections and the DNS cache.
        curl_easy_reset(handle);
        {
            std::lock_guard guard(lock_);
            if (idle_.size() < kPoolLimit) {
                idle_.push_back(handle);
                return;
            }
        }
        curl_easy_cleanup(handle);
    }

private:
    std::mutex lock_;
    std::vector<CURL*> idle_;
};

HandlePool& pool()
{
    static auto* instance = new HandlePool; // never destroyed: requests may run at exit
    return *instance;
}

struct Exchange {
    const Request* request = nullptr;
    CURL* handle = nullptr;
    Response response;
    bool sized = false;
    bool tooLarge = false;
    std::exception_ptr streamError;
};

size_t onBody(char* data, size_t size, size_t count, void* context)
{
    auto* exchange = static_cast<Exchange*>(context);
    size_t length = size * count;
    if (exchange->response.body.size() + length > exchange->request->maxResponseBytes) {
        exchange->tooLarge = true;
        return 0; // makes libcurl stop with CURLE_WRITE_ERROR
    }
    if (!exchange->sized) {
        // The announced length, within the limit, is the body's room from the start, so that
        // the body is not copied each time it outgrows its buffer.
        exchange->sized = true;
        curl_off_t announced = -1;
        if (curl_easy_getinfo(exchange->handle, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &announced) == CURLE_OK &&
            announced > 0) {
            exchange->response.body.reserve(
                std::min(static_cast<std::size_t>(announced), exchange->request->maxResponseBytes));
        }
    }
    exchange->response.body.append(data, length);
    return length;
}

size_t onUpload(char* buffer, size_t size, size_t count, void* context)
{
    auto* exchange = static_cast<Exchange*>(context);
    try {
        return exchange->request->stream->read(buffer, size * count);
    } catch (...) {
        exchange->streamError = std::current_exception();
        return CURL_READFUNC_ABORT;
    }
}

int onSeek(void* context, curl_off_t offset, int origin)
{
    auto* exchange = static_cast<Exchange*>(context);
    if (offset != 0 || origin != SEEK_SET) {
        return CURL_SEEKFUNC_CANTSEEK;
    }
    try {
        return exchange->request->stream->rewind() ? CURL_SEEKFUNC_OK : CURL_SEEKFUNC_CANTSEEK;
    } catch (...) {
        return CURL_SEEKFUNC_FAIL;
    }
}

struct HeaderList {
    curl_slist* list = nullptr;
    ~HeaderList() { curl_slist_free_all(list); }
    void add(const std::string& line) { list = curl_slist_append(list, line.c_str()); }
};

} // namespace

std::string describeLimit(std::size_t bytes)
{
    constexpr std::size_t kMiB = std::size_t{1} << 20;
    if (bytes >= kMiB && bytes % kMiB == 0) {
        return std::to_string(bytes / kMiB) + " MiB";
    }
    return std::to_string(bytes) + " bytes";
}

bool TransportError::timedOut() const
{
    return curlCode_ == CURLE_OPERATION_TIMEDOUT;
}

Response perform(const Request& request)
{
    initialiseOnce();
    CURL* handle = pool().take();
    if (handle == nullptr) {
        throw TransportError(CURLE_FAILED_INIT, "Could not start an HTTP request.");
    }
    std::unique_ptr<CURL, void (*)(CURL*)> lease(handle, [](CURL* h) { pool().giveBack(h); });

    Exchange exchange;
    exchange.request = &request;
    exchange.handle = handle;
    char errorText[CURL_ERROR_SIZE] = {};
    HeaderList headers;
    for (const auto& header : request.headers) {
        headers.add(header.name + ": " + header.value);
    }
    // libcurl would otherwise add "Expect: 100-continue" to large POSTs and wait for it.
    headers.add("Expect:");

    auto timeoutMs = static_cast<long>(std::max(1.0, request.timeout.count() * 1000.0));
    curl_easy_setopt(handle, CURLOPT_URL, request.url.c_str());
    curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(handle, CURLOPT_TIMEOUT_MS, timeoutMs);
    curl_easy_setopt(handle, CURLOPT_CONNECTTIMEOUT_MS, timeoutMs);
    curl_easy_setopt(handle, CURLOPT_FOLLOWLOCATION, 0L);
#if LIBCURL_VERSION_NUM >= 0x075500
    curl_easy_setopt(handle, CURLOPT_PROTOCOLS_STR, "http,https");
#else
    curl_easy_setopt(handle, CURLOPT_PROTOCOLS, static_cast<long>(CURLPROTO_HTTP | CURLPROTO_HTTPS));
#endif
    curl_easy_setopt(handle, CURLOPT_ACCEPT_ENCODING, "");
    curl_easy_setopt(handle, CURLOPT_ERRORBUFFER, errorText);
    // An announced length over the limit stops the exchange before the body is read; an
    // answer without one (chunked, compressed) is stopped by onBody once it passes the limit.
    curl_easy_setopt(handle, CURLOPT_MAXFILESIZE_LARGE, static_cast<curl_off_t>(request.maxResponseBytes));
    curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, onBody);
    curl_easy_setopt(handle, CURLOPT_WRITEDATA, &exchange);
    curl_easy_setopt(handle, CURLOPT_HTTPHEADER, headers.list);
    if (request.method == "POST") {
        curl_easy_setopt(handle, CURLOPT_POST, 1L);
        if (request.stream != nullptr) {
            curl_easy_setopt(handle, CURLOPT_READFUNCTION, onUpload);
            curl_easy_setopt(handle, CURLOPT_READDATA, &exchange);
            curl_easy_setopt(handle, CURLOPT_SEEKFUNCTION, onSeek);
            curl_easy_setopt(handle, CURLOPT_SEEKDATA, &exchange);
            curl_easy_setopt(handle, CURLOPT_POSTFIELDSIZE_LARGE,
                             static_cast<curl_off_t>(request.stream->size()));
            curl_easy_setopt(handle, CURLOPT_UPLOAD_BUFFERSIZE, kUploadBufferSize);
        } else {
            curl_easy_setopt(handle, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(request.body.size()));
            curl_easy_setopt(handle, CURLOPT_POSTFIELDS, request.body.data());
        }
    } else if (request.method != "GET") {
        curl_easy_setopt(handle, CURLOPT_CUSTOMREQUEST, request.method.c_str());
    }

    CURLcode result = curl_easy_perform(handle);
    // The options point into this frame; none may outlive it in the pooled handle.
    curl_easy_setopt(handle, CURLOPT_ERRORBUFFER, nullptr);
    if (exchange.streamError) {
        std::rethrow_exception(exchange.streamError);
    }
    if (exchange.tooLarge || result == CURLE_FILESIZE_EXCEEDED) {
        throw TransportError(CURLE_FILESIZE_EXCEEDED, "The service's answer is larger than the " +
                                                          describeLimit(request.maxResponseBytes) +
                                                          " allowed for it; it was not read further.");
    }
    if (result != CURLE_OK) {
        std::string description = errorText[0] != '\0' ? errorText : curl_easy_strerror(result);
        throw TransportError(result, description);
    }
    long status = 0;
    curl_easy_getinfo(handle, CURLINFO_RESPONSE_CODE, &status);
    if (status > 0) {
        exchange.response.status = status;
    }
    return std::move(exchange.response);
}

} // namespace quillet::HttpTransport
