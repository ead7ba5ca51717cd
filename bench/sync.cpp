// `quillet-capture sync` of a library of 5,000 items into an empty vault, against a loopback
// fake service: the whole command (start, listing of 50 pages, 5,000 detail requests, 5,000
// notes written) against `curl` fetching the same 5,000 detail URLs over one kept-alive
// connection, in the same run (budget: at most 1.5x). Median of several rounds each.
// Usage: bench_sync [rounds] [folder for the vaults, default the temporary folder]

#include "bench/BenchCommon.hpp"
#include "quillet_capture/config/AppSettings.hpp"
#include "quillet_capture/config/Keychain.hpp"
#include "quillet_capture/platform/Paths.hpp"
#include "quillet_capture/runtime/Tasks.hpp"
#include "quillet_capture/service/HttpTransport.hpp"
#include "quillet_capture/service/VeldaneClient.hpp"
#include "quillet_capture/util/AtomicFile.hpp"

#include "tests/support/FakeVeldane.hpp"

#include <asio/co_spawn.hpp>
#include <asio/use_future.hpp>
#include <nlohmann/json.hpp>

#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
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

namespace fs = std::filesystem;
using quillet::test::FakeVeldane;

constexpr int kItems = 5000;
constexpr int kPageSize = 100;

std::string key(int index)
{
    return "src_" + std::to_string(1000000 + index);
}

// A transcript of about 2 KB, as a few minutes of speech give.
std::string transcript(int index)
{
    std::string text;
    for (int sentence = 0; text.size() < 2000; ++sentence) {
        text += "In recording " + std::to_string(index) + " the speaker says sentence " + std::to_string(sentence) +
                " about the plan for the week and what comes next. ";
    }
    return text;
}

std::string page(int n)
{
    nlohmann::json files = nlohmann::json::array();
    for (int i = 0; i < kPageSize; ++i) {
        int index = n * kPageSize + i;
        files.push_back({{"cache_key", key(index)},
                         {"timestamp", 1714555800.0 + 60.0 * index},
                         {"created_at", 1714555800.0 + 60.0 * index},
                         {"llm_title", "Recording number " + std::to_string(index)},
                         {"status", "completed"},
                         {"duration", 181.5},
                         {"is_deleted", false},
                         {"original_filename", "recording-" + std::to_string(index) + ".m4a"}});
    }
    bool more = (n + 1) * kPageSize < kItems;
    nlohmann::json body = {{"files", files}, {"count", kPageSize}, {"has_more", more}};
    if (more) {
        body["next_cursor"] = std::to_string(n + 1);
    }
    return body.dump();
}

std::string detail(int index)
{
    nlohmann::json body = {{"success", true},
                           {"cache_key", key(index)},
                           {"result",
                            {{"text", transcript(index)},
                             {"language", "en"},
                             {"duration", 181.5},
                             {"word_count", 350},
                             {"model", "whisper-large-v3"},
                             {"llm_title", "Recording number " + std::to_string(index)},
                             {"llm_summary", "What was said in recording " + std::to_string(index) + "."},
                             {"status", "completed"}}}};
    return body.dump();
}

} // namespace

int main(int argc, char** argv)
{
    int rounds = argc > 1 ? std::atoi(argv[1]) : 5;
    fs::path vaults = argc > 2 ? fs::path(argv[2]) : fs::temp_directory_path();
    fs::path home = bench::scratchHome("quillet-bench-sync");
    quillet::Keychain::setDeviceToken(std::string("bench-token"));

    std::vector<std::string> pages;
    for (int n = 0; n * kPageSize < kItems; ++n) {
        pages.push_back(page(n));
    }
    std::vector<std::string> details;
    std::size_t bytes = 0;
    for (int i = 0; i < kItems; ++i) {
        details.push_back(detail(i));
        bytes += details.back().size();
    }

    FakeVeldane::Options options;
    options.keepAliveSeconds = 5;
    FakeVeldane fake(options);
    fake.route("GET", "sources", [&pages](const FakeVeldane::Request& request) {
        std::size_t n = request.queryItem("before") ? std::stoul(*request.queryItem("before")) : 0;
        return FakeVeldane::Answer::json(pages.at(n));
    });
    fake.fallback([&details](const FakeVeldane::Request& request) {
        int index = std::atoi(request.endpoint.c_str() + std::string("sources/src_").size()) - 1000000;
        if (index < 0 || index >= kItems) {
            return FakeVeldane::Answer::json("{}", 404);
        }
        return FakeVeldane::Answer::json(details[static_cast<std::size_t>(index)]);
    });

    // Each round gets a vault of its own, and the old ones are removed only at the end: on a
    // file system without a journal, ext4 skips inodes freed in the last 30 seconds when it
    // allocates new ones, so notes created right after 5,000 were deleted cost many times more.
    fs::path vaultsHome = bench::scratchFolder("quillet-bench-vaults", vaults);
    int count = 0;
    auto freshVault = [&] {
        fs::path vault = vaultsHome / ("vault-" + std::to_string(count++));
        auto settings = quillet::AppSettings::defaults();
        settings.vaultPath = vault.string();
        settings.veldaneBaseURL = fake.baseURL();
        fs::create_directories(quillet::Paths::settingsFile().parent_path());
        quillet::writeFileAtomically(quillet::Paths::settingsFile(), settings.toJSON().dump(2));
        return vault;
    };

    // curl: the same 5,000 detail URLs in one invocation, which reuses one connection.
    fs::path config = fs::path(home) / "details.curl";
    {
        std::ofstream out(config);
        for (int i = 0; i < kItems; ++i) {
            out << "url = \"" << fake.baseURL() << "/sources/" << key(i) << "\"\noutput = \"/dev/null\"\n";
        }
    }
    auto runCurl = [&] {
        auto timing = bench::spawnAndWait({"/usr/bin/curl", "-s", "-f", "-H", "Authorization: Bearer bench-token", "-K",
                             config.string()});
        if (timing.status != 0) {
            std::printf("sync: curl failed (%d)\n", timing.status);
            std::exit(1);
        }
        return timing;
    };
    auto runOurs = [&] {
        fs::path vault = freshVault();
        auto timing = bench::spawnAndWait({QUILLET_CAPTURE_BINARY, "sync"});
        std::size_t notes = 0;
        for (const auto& entry : fs::directory_iterator(vault / "_inbox")) {
            notes += entry.path().extension() == ".md";
        }
        if (timing.status != 0 || notes != kItems) {
            std::printf("sync: status %d, %zu notes instead of %d\n", timing.status, notes, kItems);
            std::exit(1);
        }
        return timing;
    };

    // The breakdown: the 5,000 detail requests in this process, through the client's transport
    // alone on one thread, and through VeldaneClient::source as the sync makes them.
    auto runTransport = [&] {
        auto start = std::chrono::steady_clock::now();
        for (int i = 0; i < kItems; ++i) {
            quillet::HttpTransport::Request request;
            request.url = fake.baseURL() + "/sources/" + key(i);
            request.headers = {{"Authorization", "Bearer bench-token"}};
            if (quillet::HttpTransport::perform(request).status != 200) {
                std::printf("sync: transport: unexpected answer\n");
                std::exit(1);
            }
        }
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    };
    quillet::VeldaneClient client(fake.baseURL());
    auto runClient = [&] {
        auto start = std::chrono::steady_clock::now();
        auto fetchAll = [](quillet::VeldaneClient* client) -> asio::awaitable<void> {
            for (int i = 0; i < kItems; ++i) {
                std::string k = key(i);
                co_await client->source(std::move(k));
            }
        };
        asio::co_spawn(quillet::runtime::utilityExecutor(), fetchAll(&client), asio::use_future).get();
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    };

    runCurl();  // warm-up of both, so that neither pays for first use alone
    runOurs();
    std::vector<double> ours;
    std::vector<double> curl;
    std::vector<double> oursCpu;
    std::vector<double> curlCpu;
    std::vector<double> transport;
    std::vector<double> viaClient;
    for (int round = 0; round < rounds; ++round) {
        auto c = runCurl();
        auto o = runOurs();
        curl.push_back(c.seconds);
        curlCpu.push_back(c.cpuSeconds);
        ours.push_back(o.seconds);
        oursCpu.push_back(o.cpuSeconds);
        transport.push_back(runTransport());
        viaClient.push_back(runClient());
    }
    fs::remove_all(home);
    fs::remove_all(vaultsHome);

    double o = bench::median(ours) * 1000;
    double c = bench::median(curl) * 1000;
    double ratio = o / c;
    std::printf("sync %d items (%.1f MB of details) into an empty vault in %s: quillet %.0f ms, curl %.0f ms, "
                "ratio %.2f (budget <= 1.50) %s\n",
                kItems, bytes / 1e6, vaults.c_str(), o, c, ratio, bench::verdict(ratio <= 1.5));
    std::printf("  processor time (user + system): quillet %.0f ms, curl %.0f ms\n", bench::median(oursCpu) * 1000,
                bench::median(curlCpu) * 1000);
    std::printf("  breakdown: the %d detail requests alone, in one thread through the client's transport %.0f ms, "
                "through VeldaneClient::source %.0f ms\n",
                kItems, bench::median(transport) * 1000, bench::median(viaClient) * 1000);
    std::fflush(nullptr);
    std::_Exit(0);
}
