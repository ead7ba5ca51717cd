// quillet-demo-service: a stand-in for the Veldane service, for the demo (scripts/demo) and
// for trying the agent out by hand. It is a test fake, not a service: it approves every
// pairing at once, keeps uploads in memory only, reports every upload as transcribed at once,
// and answers every transcript request with the same canned text. It listens on 127.0.0.1.
//
// Usage: quillet-demo-service [--port N]
// Prints "quillet-demo-service: listening on <base URL>" on standard output, one line per
// request after it, and serves until SIGTERM or SIGINT.

#include "tests/support/FakeVeldane.hpp"

#include <nlohmann/json.hpp>

#include <pthread.h>
#include <signal.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace {

using quillet::test::FakeVeldane;
using Answer = FakeVeldane::Answer;
using nlohmann::json;

constexpr const char* kTranscript =
    "This is the canned transcript of the quillet demo service. A real Veldane account returns what was said in "
    "the recording; this stand-in only proves that the recording went all the way from the watched folder to the "
    "note.";

int wordCount(const std::string& text)
{
    int count = 0;
    bool inWord = false;
    for (char c : text) {
        bool blank = c == ' ' || c == '\n' || c == '\t';
        count += !blank && !inWord;
        inWord = !blank;
    }
    return count;
}

// The uploads it has seen: cache key -> original file name, in upload order.
class Library {
public:
    explicit Library(std::string approvePage)
        : approvePage_(std::move(approvePage))
    {
    }

    Answer answer(const FakeVeldane::Request& request)
    {
        const auto& endpoint = request.endpoint;
        if (request.method == "GET" && endpoint == "/demo/approve") {
            return Answer::text("<p>quillet demo service: this device is approved. You can close this page.</p>", 200,
                                "text/html");
        }
        if (request.method == "POST" && endpoint == "auth/devices/init") {
            return Answer::json(json{{"device_code", "demo-device-code"},
                                     {"user_code", "DEMO-0001"},
                                     {"verification_url", approvePage_},
                                     {"interval", 1},
                                     {"expires_in", 600}}
                                    .dump());
        }
        if (request.method == "POST" && endpoint == "auth/devices/token") {
            return Answer::json(
                json{{"status", "approved"}, {"token", "demo_device_token_0001"}, {"scopes", {"kb:read", "kb:write"}}}
                    .dump());
        }
        if (!request.header("Authorization").value_or("").starts_with("Bearer ")) {
            return Answer::json(R"({"error":"unauthorized"})", 401);
        }
        std::lock_guard guard(lock_);
        if (request.method == "POST" && endpoint == "sources") {
            return upload(request.body);
        }
        if (request.method == "GET" && endpoint == "sources") {
            return listing();
        }
        if (request.method == "GET" && endpoint.starts_with("sources/")) {
            std::string key = endpoint.substr(std::strlen("sources/"));
            bool status = key.ends_with("/status");
            if (status) {
                key.resize(key.size() - std::strlen("/status"));
            }
            auto found = names_.find(key);
            if (found == names_.end()) {
                return Answer::json(R"({"detail":"Not found"})", 404);
            }
            return status ? statusOf(key) : detailOf(key, found->second);
        }
        return Answer::json(R"({"detail":"Not found"})", 404);
    }

private:
    Answer upload(const std::string& body)
    {
        std::string marker = "filename=\"";
        auto start = body.find(marker);
        if (start == std::string::npos) {
            return Answer::json(R"({"error":"no file"})", 400);
        }
        start += marker.size();
        std::string name = body.substr(start, body.find('"', start) - start);
        for (const auto& [key, known] : names_) {
            if (known == name) {
                return Answer::json(json{{"status", "duplicate_upload"}, {"cache_key", key}}.dump());
            }
        }
        std::string key = "demo_" + std::to_string(order_.size() + 1);
        names_[key] = name;
        order_.push_back(key);
        return Answer::json(json{{"status", "queued"}, {"cache_key", key}, {"title", name}}.dump());
    }

    Answer statusOf(const std::string&) const
    {
        return Answer::json(
            json{{"status", {{"transcription", {{"status", "completed"}, {"model", "demo"}, {"word_count", wordCount(kTranscript)}}}}}}
                .dump());
    }

    Answer detailOf(const std::string& key, const std::string& name) const
    {
        return Answer::json(json{{"success", true},
                                 {"cache_key", key},
                                 {"result",
                                  {{"text", kTranscript},
                                   {"original_filename", name},
                                   {"language", "en"},
                                   {"duration", 1.5},
                                   {"word_count", wordCount(kTranscript)},
                                   {"model", "demo"},
                                   {"llm_title", "Demo transcript"},
                                   {"status", "completed"}}}}
                                .dump());
    }

    Answer listing() const
    {
        json files = json::array();
        for (auto it = order_.rbegin(); it != order_.rend(); ++it) {
            files.push_back({{"cache_key", *it}, {"original_filename", names_.at(*it)}, {"status", "completed"}});
        }
        return Answer::json(json{{"files", files}, {"count", files.size()}, {"has_more", false}}.dump());
    }

    std::string approvePage_;
    std::mutex lock_;
    std::map<std::string, std::string> names_;
    std::vector<std::string> order_;
};

} // namespace

int main(int argc, char** argv)
{
    FakeVeldane::Options options;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--port") == 0 && i + 1 < argc) {
            options.port = std::atoi(argv[++i]);
        } else {
            std::fprintf(stderr, "usage: quillet-demo-service [--port N]\n");
            return 2;
        }
    }

    // Blocked before the server's threads start, so that only sigwait below takes them.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGTERM);
    sigaddset(&stopSignals, SIGINT);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

    std::unique_ptr<FakeVeldane> service;
    try {
        service = std::make_unique<FakeVeldane>(options);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "quillet-demo-service: %s\n", error.what());
        return 1;
    }
    auto library = std::make_shared<Library>("http://127.0.0.1:" + std::to_string(service->port()) + "/demo/approve");
    service->fallback([library](const FakeVeldane::Request& request) {
        auto answer = library->answer(request);
        std::printf("%s %s -> %d\n", request.method.c_str(), request.path.c_str(), answer.status);
        std::fflush(stdout);
        return answer;
    });
    std::printf("quillet-demo-service: listening on %s\n", service->baseURL().c_str());
    std::fflush(stdout);

    int received = 0;
    sigwait(&stopSignals, &received);
    service.reset();
    return 0;
}
