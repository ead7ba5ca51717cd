#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace httplib {
class Server;
struct Request;
struct Response;
} // namespace httplib

namespace quillet::test {

/// An in-process stand-in for the Veldane API on cpp-httplib, listening on 127.0.0.1 at a
/// free port. Every request is recorded; answers are scripted per endpoint (queues of canned
/// answers, then a responder function, else 404). Answers can be delayed, held until the test
/// lets them go, cut off after their headers or half-way through their body, served with any
/// status, content type and bytes. It never compresses its answers. Independent of any test
/// framework, so that a demo program can run it too.
class FakeVeldane {
public:
    /// One request as it arrived.
    struct Request {
        std::string method;
        std::string path;      // raw (percent-escaped) path, e.g. "/api/v1/sources"
        std::string endpoint;  // the path below the API root, e.g. "sources"
        std::string query;     // raw query, without "?"
        std::vector<std::pair<std::string, std::string>> headers;
        std::string body;      // raw bytes
        std::chrono::steady_clock::time_point arrived;

        /// The first header of that name (any case); absent when none.
        std::optional<std::string> header(const std::string& name) const;
        /// How many headers of that name (any case) arrived.
        std::size_t headerCount(const std::string& name) const;
        /// The decoded value of a query item; absent when missing.
        std::optional<std::string> queryItem(const std::string& name) const;
    };

    /// Lets held answers go.
    class Hold {
    public:
        void release();
        bool released() const;
        /// Waits until released or `stop` is set; true when released.
        bool wait(const std::atomic<bool>& stop) const;

    private:
        mutable std::mutex lock_;
        mutable std::condition_variable changed_;
        bool released_ = false;
    };

    enum class Cut {
        none,
        afterHeaders,  // headers announcing the body, then the connection closes
        midBody,       // headers and half the body, then the connection closes
    };

    /// One answer.
    struct Answer {
        int status = 200;
        std::string body;
        std::string contentType = "application/json";
        std::vector<std::pair<std::string, std::string>> headers;
        double delaySeconds = 0;      // wait before answering
        std::shared_ptr<Hold> hold;   // wait until released before answering
        Cut cut = Cut::none;

        static Answer json(std::string body, int status = 200);
        static Answer text(std::string body, int status = 200, std::string contentType = "text/plain");
    };

    using Responder = std::function<Answer(const Request&)>;

    struct Options {
        std::string apiRoot = "/api/v1";  // the path of the base URL
        int port = 0;                     // 0: any free port
        // How long an idle connection is kept open, in whole seconds. At 0 every answer says
        // "Connection: close" and the connection is closed after it, which keeps the server's
        // stop quick; clients open a new one for each request.
        int keepAliveSeconds = 0;
    };

    /// Starts listening at once.
    FakeVeldane();
    explicit FakeVeldane(Options options);
    /// Stops: held and delayed answers are abandoned, connections closed.
    ~FakeVeldane();

    FakeVeldane(const FakeVeldane&) = delete;
    FakeVeldane& operator=(const FakeVeldane&) = delete;

    int port() const { return port_; }
    /// "http://127.0.0.1:<port>" + the API root.
    std::string baseURL() const;

    /// Queues `answer` for the next request `method` `endpoint` (relative to the API root,
    /// raw path, e.g. "sources/abc/status"). Queued answers are used first, in order.
    void enqueue(const std::string& method, const std::string& endpoint, Answer answer);
    /// Answers every request to `method` `endpoint` that finds no queued answer.
    void route(const std::string& method, const std::string& endpoint, Responder responder);
    /// Answers every request that finds neither a queued answer nor a route.
    void fallback(Responder responder);

    /// Every request so far, in arrival order.
    std::vector<Request> requests() const;
    /// The requests to one endpoint (any method when `method` is empty).
    std::vector<Request> requests(const std::string& method, const std::string& endpoint) const;
    std::size_t requestCount() const;
    /// Waits until at least `count` requests have arrived; false after `timeoutSeconds`.
    bool waitForRequests(std::size_t count, double timeoutSeconds = 10) const;
    /// The most requests that were being answered at the same moment, per endpoint.
    std::size_t maxConcurrent(const std::string& endpoint) const;

    /// Forgets the recorded requests and queued answers (routes stay).
    void reset();

private:
    void handle(const httplib::Request& raw, httplib::Response& response);
    // Waits `seconds` unless the server stops first.
    void pause(double seconds) const;

    std::string apiRoot_;
    bool closeEachConnection_ = false;
    std::unique_ptr<httplib::Server> server_;
    std::thread thread_;
    int port_ = 0;
    std::atomic<bool> stopping_{false};

    mutable std::mutex lock_;
    mutable std::condition_variable arrived_;
    std::vector<Request> requests_;
    std::map<std::pair<std::string, std::string>, std::deque<Answer>> queued_;
    std::map<std::pair<std::string, std::string>, Responder> routes_;
    Responder fallback_;
    std::map<std::string, std::size_t> inFlight_;
    std::map<std::string, std::size_t> maxInFlight_;
};

} // namespace quillet::test
