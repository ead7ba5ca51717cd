#include "tests/support/FakeVeldane.hpp"

#include <httplib.h>

#include <algorithm>
#include <cctype>
#include <stdexcept>

namespace quillet::test {

namespace {

bool sameName(const std::string& a, const std::string& b)
{
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
               return std::tolower(static_cast<unsigned char>(x)) == std::tolower(static_cast<unsigned char>(y));
           });
}

// The header that keeps a request's real Content-Type while the server reads the body.
constexpr const char* kStashedType = "X-Fake-Veldane-Content-Type";

} // namespace

// Hold

void FakeVeldane::Hold::release()
{
    {
        std::lock_guard guard(lock_);
        released_ = true;
    }
    changed_.notify_all();
}

bool FakeVeldane::Hold::released() const
{
    std::lock_guard guard(lock_);
    return released_;
}

bool FakeVeldane::Hold::wait(const std::atomic<bool>& stop) const
{
    std::unique_lock guard(lock_);
    while (!released_ && !stop.load()) {
        changed_.wait_for(guard, std::chrono::milliseconds(20));
    }
    return released_;
}

// Answer

FakeVeldane::Answer FakeVeldane::Answer::json(std::string body, int status)
{
    Answer answer;
    answer.status = status;
    answer.body = std::move(body);
    return answer;
}

FakeVeldane::Answer FakeVeldane::Answer::text(std::string body, int status, std::string contentType)
{
    Answer answer;
    answer.status = status;
    answer.body = std::move(body);
    answer.contentType = std::move(contentType);
    return answer;
}

// Request

std::optional<std::string> FakeVeldane::Request::header(const std::string& name) const
{
    for (const auto& [key, value] : headers) {
        if (sameName(key, name)) {
            return value;
        }
    }
    return std::nullopt;
}

std::size_t FakeVeldane::Request::headerCount(const std::string& name) const
{
    return static_cast<std::size_t>(
        std::count_if(headers.begin(), headers.end(), [&](const auto& header) { return sameName(header.first, name); }));
}

std::optional<std::string> FakeVeldane::Request::queryItem(const std::string& name) const
{
    httplib::Params params;
    httplib::detail::parse_query_text(query, params);
    auto found = params.find(name);
    if (found == params.end()) {
        return std::nullopt;
    }
    return found->second;
}

// FakeVeldane

FakeVeldane::FakeVeldane() : FakeVeldane(Options()) {}

FakeVeldane::FakeVeldane(Options options)
    : apiRoot_(std::move(options.apiRoot))
    , closeEachConnection_(options.keepAliveSeconds == 0)
    , server_(std::make_unique<httplib::Server>())
{
    auto& server = *server_;
    int port = options.port;
    server.set_keep_alive_max_count(1000000);
    server.set_keep_alive_timeout(options.keepAliveSeconds);
    // Headers and body go out in separate writes; without this, Nagle's algorithm and the
    // client's delayed acknowledgement add 40 ms to every answer.
    server.set_tcp_nodelay(true);
    // Runs before the body is read: a multipart body would otherwise be parsed into parts
    // instead of kept as bytes, and the answer would be compressed when the client allows it.
    server.set_pre_routing_handler([](const httplib::Request& constRequest, httplib::Response&) {
        auto& request = const_cast<httplib::Request&>(constRequest);
        if (request.has_header("Content-Type")) {
            request.headers.emplace(kStashedType, request.get_header_value("Content-Type"));
            request.headers.erase("Content-Type");
            request.headers.emplace("Content-Type", "application/octet-stream");
        }
        if (request.has_header("Accept-Encoding")) {
            request.headers.emplace("X-Fake-Veldane-Accept-Encoding", request.get_header_value("Accept-Encoding"));
            request.headers.erase("Accept-Encoding");
        }
        return httplib::Server::HandlerResponse::Unhandled;
    });
    auto handler = [this](const httplib::Request& request, httplib::Response& response) { handle(request, response); };
    server.Get(".*", handler);
    server.Post(".*", handler);
    server.Put(".*", handler);
    server.Patch(".*", handler);
    server.Delete(".*", handler);
    server.Options(".*", handler);

    if (port == 0) {
        port_ = server.bind_to_any_port("127.0.0.1");
    } else {
        port_ = server.bind_to_port("127.0.0.1", port) ? port : -1;
    }
    if (port_ <= 0) {
        throw std::runtime_error("FakeVeldane: cannot listen on 127.0.0.1");
    }
    thread_ = std::thread([&server] { server.listen_after_bind(); });
    // A stop before the server runs does nothing, and its thread would then wait in accept()
    // for ever: a fake made and dropped at once hung the destructor.
    while (!server.is_running()) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

FakeVeldane::~FakeVeldane()
{
    stopping_.store(true);
    server_->stop();
    if (thread_.joinable()) {
        thread_.join();
    }
}

std::string FakeVeldane::baseURL() const
{
    return "http://127.0.0.1:" + std::to_string(port_) + apiRoot_;
}

void FakeVeldane::enqueue(const std::string& method, const std::string& endpoint, Answer answer)
{
    std::lock_guard guard(lock_);
    queued_[{method, endpoint}].push_back(std::move(answer));
}

void FakeVeldane::route(const std::string& method, const std::string& endpoint, Responder responder)
{
    std::lock_guard guard(lock_);
    routes_[{method, endpoint}] = std::move(responder);
}

void FakeVeldane::fallback(Responder responder)
{
    std::lock_guard guard(lock_);
    fallback_ = std::move(responder);
}

std::vector<FakeVeldane::Request> FakeVeldane::requests() const
{
    std::lock_guard guard(lock_);
    return requests_;
}

std::vector<FakeVeldane::Request> FakeVeldane::requests(const std::string& method, const std::string& endpoint) const
{
    std::lock_guard guard(lock_);
    std::vector<Request> matching;
    for (const auto& request : requests_) {
        if ((method.empty() || request.method == method) && request.endpoint == endpoint) {
            matching.push_back(request);
        }
    }
    return matching;
}

std::size_t FakeVeldane::requestCount() const
{
    std::lock_guard guard(lock_);
    return requests_.size();
}

bool FakeVeldane::waitForRequests(std::size_t count, double timeoutSeconds) const
{
    std::unique_lock guard(lock_);
    return arrived_.wait_for(guard, std::chrono::duration<double>(timeoutSeconds),
                             [&] { return requests_.size() >= count; });
}

std::size_t FakeVeldane::maxConcurrent(const std::string& endpoint) const
{
    std::lock_guard guard(lock_);
    auto found = maxInFlight_.find(endpoint);
    return found == maxInFlight_.end() ? 0 : found->second;
}

void FakeVeldane::reset()
{
    std::lock_guard guard(lock_);
    requests_.clear();
    queued_.clear();
    maxInFlight_.clear();
}

void FakeVeldane::pause(double seconds) const
{
    auto until = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (!stopping_.load() && std::chrono::steady_clock::now() < until) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

void FakeVeldane::handle(const httplib::Request& raw, httplib::Response& response)
{
    // Said, not only done: a connection dropped silently after a few idle milliseconds was
    // sometimes reused by the client at that very moment, and its next request (an upload)
    // failed with a broken pipe.
    if (closeEachConnection_) {
        response.set_header("Connection", "close");
    }
    Request request;
    request.method = raw.method;
    request.arrived = std::chrono::steady_clock::now();
    auto question = raw.target.find('?');
    request.path = raw.target.substr(0, question);
    request.query = question == std::string::npos ? "" : raw.target.substr(question + 1);
    std::string root = apiRoot_ + "/";
    request.endpoint = request.path.starts_with(root) ? request.path.substr(root.size()) : request.path;
    for (const auto& [name, value] : raw.headers) {
        if (sameName(name, kStashedType)) {
            request.headers.emplace_back("Content-Type", value);
        } else if (sameName(name, "X-Fake-Veldane-Accept-Encoding")) {
            request.headers.emplace_back("Accept-Encoding", value);
        } else if (!sameName(name, "Content-Type") || !raw.has_header(kStashedType)) {
            request.headers.emplace_back(name, value);
        }
    }
    request.body = raw.body;

    Answer answer;
    Responder responder;
    bool found = false;
    {
        std::lock_guard guard(lock_);
        requests_.push_back(request);
        auto queue = queued_.find({request.method, request.endpoint});
        if (queue != queued_.end() && !queue->second.empty()) {
            answer = std::move(queue->second.front());
            queue->second.pop_front();
            found = true;
        } else if (auto routed = routes_.find({request.method, request.endpoint}); routed != routes_.end()) {
            responder = routed->second;
        } else {
            responder = fallback_;
        }
        auto& now = inFlight_[request.endpoint];
        ++now;
        maxInFlight_[request.endpoint] = std::max(maxInFlight_[request.endpoint], now);
    }
    arrived_.notify_all();

    if (!found) {
        answer = responder ? responder(request) : Answer::json(R"({"error":"not_found"})", 404);
    }
    if (answer.delaySeconds > 0) {
        pause(answer.delaySeconds);
    }
    if (answer.hold) {
        answer.hold->wait(stopping_);
    }
    {
        std::lock_guard guard(lock_);
        --inFlight_[request.endpoint];
    }

    response.status = answer.status;
    for (const auto& [name, value] : answer.headers) {
        response.set_header(name, value);
    }
    if (answer.cut == Cut::none) {
        response.set_content(answer.body, answer.contentType.c_str());
        return;
    }
    // A provider that gives up makes the server close the connection short of the length it
    // announced.
    auto body = std::make_shared<std::string>(std::move(answer.body));
    std::size_t keep = answer.cut == Cut::midBody ? body->size() / 2 : 0;
    std::size_t announced = std::max<std::size_t>(body->size(), 2);
    response.set_content_provider(
        announced, answer.contentType.c_str(),
        [body, keep](std::size_t offset, std::size_t, httplib::DataSink& sink) {
            if (offset < keep) {
                sink.write(body->data() + offset, keep - offset);
                return true;
            }
            return false;
        });
}

} // namespace quillet::test
