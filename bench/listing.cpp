// Listing of a library of 19,900 items (199 pages of 100) from a loopback fake service:
// VeldaneClient::listAllSources against `curl` fetching the same 199 pages over one kept-alive
// connection, in the same run (budget: at most 1.5x). Median of several rounds each.
// Usage: bench_listing [rounds]

#include "bench/BenchCommon.hpp"
#include "quillet_capture/config/Keychain.hpp"
#include "quillet_capture/runtime/Tasks.hpp"
#include "quillet_capture/service/VeldaneClient.hpp"

#include "tests/support/FakeVeldane.hpp"

#include <asio/co_spawn.hpp>
#include <asio/use_future.hpp>
#include <nlohmann/json.hpp>

#include <sys/wait.h>
#include <stdexcept>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace {

constexpr int kPages = 199;

// Page n (1-based) of the library, with the fields a real listing carries.
std::string page(int n)
{
    nlohmann::json files = nlohmann::json::array();
    for (int i = 0; i < 100; ++i) {
        int index = (n - 1) * 100 + i;
        files.push_back({{"cache_key", "src_" + std::to_string(1000000 + index)},
                         {"timestamp", 1714555800.0 + index},
                         {"created_at", 1714555800.0 + index},
                         {"llm_title", "Recording number " + std::to_string(index)},
                         {"llm_summary", "A short summary of what was said in recording " + std::to_string(index) +
                                             ", about as long as the service writes them."},
                         {"status", "completed"},
                         {"model", "whisper-large-v3"},
                         {"duration", 61.5 + i},
                         {"is_deleted", false},
                         {"original_filename", "2405" + std::to_string(10 + i % 20) + "-093000.m4a"}});
    }
    nlohmann::json body = {{"files", files}, {"count", 100}, {"has_more", n < kPages}};
    if (n < kPages) {
        body["next_cursor"] = "c" + std::to_string(n);
    }
    return body.dump();
}

// Accepts every event: what reading the pages costs with nothing kept.
struct Tokens : nlohmann::json_sax<nlohmann::json> {
    bool null() override { return true; }
    bool boolean(bool) override { return true; }
    bool number_integer(number_integer_t) override { return true; }
    bool number_unsigned(number_unsigned_t) override { return true; }
    bool number_float(number_float_t, const string_t&) override { return true; }
    bool string(string_t&) override { return true; }
    bool binary(binary_t&) override { return true; }
    bool start_object(std::size_t) override { return true; }
    bool key(string_t&) override { return true; }
    bool end_object() override { return true; }
    bool start_array(std::size_t) override { return true; }
    bool end_array() override { return true; }
    bool parse_error(std::size_t, const std::string&, const nlohmann::detail::exception&) override { return false; }
};

double seconds(std::chrono::steady_clock::time_point since)
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - since).count();
}

} // namespace

int main(int argc, char** argv)
{
    int rounds = argc > 1 ? std::atoi(argv[1]) : 7;
    namespace fs = std::filesystem;
    fs::path home = bench::scratchHome("quillet-bench-listing");
    quillet::Keychain::setDeviceToken(std::string("bench-token"));

    std::vector<std::string> pages;
    std::size_t bytes = 0;
    for (int n = 1; n <= kPages; ++n) {
        pages.push_back(page(n));
        bytes += pages.back().size();
    }
    quillet::test::FakeVeldane::Options options;
    options.keepAliveSeconds = 5;
    quillet::test::FakeVeldane fake(options);
    fake.route("GET", "sources", [&pages](const quillet::test::FakeVeldane::Request& request) {
        int n = 1;
        if (auto before = request.queryItem("before")) {
            n = std::atoi(before->c_str() + 1) + 1;
        }
        return quillet::test::FakeVeldane::Answer::json(pages.at(static_cast<std::size_t>(n - 1)));
    });

    // curl: the same 199 URLs in one invocation, which reuses one connection.
    fs::path config = fs::path(home) / "pages.curl";
    {
        std::ofstream out(config);
        for (int n = 1; n <= kPages; ++n) {
            std::string url = fake.baseURL() + "/sources?limit=100";
            if (n > 1) {
                url += "&before=c" + std::to_string(n - 1);
            }
            out << "url = \"" << url << "\"\noutput = \"/dev/null\"\n";
        }
    }
    auto runCurl = [&] {
        auto start = std::chrono::steady_clock::now();
        std::string command = "curl -s -f -H 'Authorization: Bearer bench-token' -K '" + config.string() + "'";
        int status = std::system(command.c_str());
        if (status != 0) {
            std::printf("listing: curl failed (%d)\n", status);
            std::exit(1);
        }
        return seconds(start);
    };
    quillet::VeldaneClient client(fake.baseURL());
    auto runOurs = [&] {
        auto start = std::chrono::steady_clock::now();
        auto items = asio::co_spawn(quillet::runtime::utilityExecutor(),
                                    client.listAllSources(quillet::VeldaneClient::IncludeDeleted::no), asio::use_future)
                         .get();
        double elapsed = seconds(start);
        if (items.size() != 100u * kPages) {
            std::printf("listing: %zu items instead of %d\n", items.size(), 100 * kPages);
            std::exit(1);
        }
        return elapsed;
    };

    // The breakdown: the same requests through the client's transport without decoding, and
    // the decoding of the pages without requests.
    auto runTransport = [&] {
        auto start = std::chrono::steady_clock::now();
        auto fetchAll = [](std::string base) -> asio::awaitable<void> {
            for (int n = 1; n <= kPages; ++n) {
                quillet::HttpTransport::Request request;
                request.url = base + "/sources?limit=100" + (n > 1 ? "&before=c" + std::to_string(n - 1) : "");
                request.headers = {{"Authorization", "Bearer bench-token"}};
                auto answer = co_await quillet::VeldaneClient::compatData(std::move(request));
                if (answer.status != 200) {
                    throw std::runtime_error("transport: unexpected answer");
                }
            }
        };
        asio::co_spawn(quillet::runtime::utilityExecutor(), fetchAll(fake.baseURL()), asio::use_future).get();
        return seconds(start);
    };
    auto runDecode = [&] {
        auto start = std::chrono::steady_clock::now();
        std::size_t count = 0;
        for (const auto& body : pages) {
            count += quillet::SourceListResponse::decode(body).files.size();
        }
        if (count != 100u * kPages) {
            std::exit(1);
        }
        return seconds(start);
    };

    auto runTokens = [&] {
        auto start = std::chrono::steady_clock::now();
        for (const auto& body : pages) {
            Tokens tokens;
            nlohmann::json::sax_parse(body, &tokens);
        }
        return seconds(start);
    };

    runCurl();  // warm-up of both, so that neither pays for first use alone
    runOurs();
    std::vector<double> ours;
    std::vector<double> curl;
    std::vector<double> transport;
    std::vector<double> decode;
    std::vector<double> tokens;
    for (int round = 0; round < rounds; ++round) {
        curl.push_back(runCurl());
        ours.push_back(runOurs());
        transport.push_back(runTransport());
        decode.push_back(runDecode());
        tokens.push_back(runTokens());
    }
    fs::remove_all(home);

    double o = bench::median(ours) * 1000;
    double c = bench::median(curl) * 1000;
    double ratio = o / c;
    std::printf("listing %d pages (%d items, %.1f MB): quillet %.0f ms, curl %.0f ms, ratio %.2f (budget <= 1.50) %s\n",
                kPages, 100 * kPages, bytes / 1e6, o, c, ratio, bench::verdict(ratio <= 1.5));
    std::printf("  breakdown: the %d requests alone %.0f ms; decoding the pages alone %.0f ms, of which "
                "nlohmann/json's tokenizer with nothing kept %.0f ms\n",
                kPages, bench::median(transport) * 1000, bench::median(decode) * 1000, bench::median(tokens) * 1000);
    std::fflush(nullptr);
    std::_Exit(0);
}
