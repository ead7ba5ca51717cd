// Upload of a 1 GiB file to a loopback server that discards the body: the client's peak
// resident memory (whole process, budget 32 MB) and its throughput against
// `curl --data-binary @file` to the same server in the same run (budget: at least 0.8x).
// curl's tool refuses to load a file of 1 GiB or more into memory for --data-binary, so its
// file is 1 MiB shorter; throughput is compared in MiB/s. Best of several rounds each.
// Usage: bench_upload [MiB] [rounds]

#include "bench/BenchCommon.hpp"
#include "quillet_capture/config/Keychain.hpp"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

extern char** environ;

namespace {

// A minimal HTTP/1.1 server: reads each request's headers, answers "100 Continue" when asked,
// reads and discards Content-Length bytes of body, answers with a small JSON body, and keeps
// the connection open for the next request.
class DiscardServer {
public:
    DiscardServer()
    {
        listener_ = ::socket(AF_INET, SOCK_STREAM, 0);
        int yes = 1;
        ::setsockopt(listener_, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (::bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
            ::listen(listener_, 16) != 0) {
            std::perror("bind");
            std::exit(1);
        }
        socklen_t length = sizeof address;
        ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length);
        port_ = ntohs(address.sin_port);
        thread_ = std::thread([this] { serve(); });
    }

    ~DiscardServer()
    {
        stop_ = true;
        ::shutdown(listener_, SHUT_RDWR);
        ::close(listener_);
        thread_.join();
    }

    int port() const { return port_; }
    unsigned long long received() const { return received_; }

private:
    void serve()
    {
        std::vector<char> buffer(1 << 20);
        while (!stop_) {
            int connection = ::accept(listener_, nullptr, nullptr);
            if (connection < 0) {
                return;
            }
            int yes = 1;
            ::setsockopt(connection, IPPROTO_TCP, TCP_NODELAY, &yes, sizeof yes);
            std::string pending;
            for (;;) {
                std::size_t end;
                while ((end = pending.find("\r\n\r\n")) == std::string::npos) {
                    ssize_t n = ::recv(connection, buffer.data(), buffer.size(), 0);
                    if (n <= 0) {
                        goto closed;
                    }
                    pending.append(buffer.data(), static_cast<std::size_t>(n));
                }
                std::string head = pending.substr(0, end);
                pending.erase(0, end + 4);
                std::string lower = head;
                std::transform(lower.begin(), lower.end(), lower.begin(), ::tolower);
                unsigned long long remaining = 0;
                if (auto at = lower.find("content-length:"); at != std::string::npos) {
                    remaining = std::strtoull(lower.c_str() + at + 15, nullptr, 10);
                }
                if (lower.find("expect: 100-continue") != std::string::npos) {
                    const char continueLine[] = "HTTP/1.1 100 Continue\r\n\r\n";
                    ::send(connection, continueLine, sizeof continueLine - 1, MSG_NOSIGNAL);
                }
                unsigned long long fromPending = std::min<unsigned long long>(remaining, pending.size());
                pending.erase(0, fromPending);
                remaining -= fromPending;
                received_ += fromPending;
                while (remaining > 0) {
                    ssize_t n = ::recv(connection, buffer.data(),
                                       std::min<unsigned long long>(remaining, buffer.size()), 0);
                    if (n <= 0) {
                        goto closed;
                    }
                    remaining -= static_cast<unsigned long long>(n);
                    received_ += static_cast<unsigned long long>(n);
                }
                const char answer[] = "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: 37\r\n\r\n"
                                      R"({"status":"queued","task_id":"bench"})";
                ::send(connection, answer, sizeof answer - 1, MSG_NOSIGNAL);
            }
        closed:
            ::close(connection);
        }
    }

    int listener_ = -1;
    int port_ = 0;
    std::atomic<bool> stop_{false};
    std::atomic<unsigned long long> received_{0};
    std::thread thread_;
};

} // namespace

int main(int argc, char** argv)
{
    long mebibytes = argc > 1 ? std::atol(argv[1]) : 1024;
    int rounds = argc > 2 ? std::atoi(argv[2]) : 3;
    namespace fs = std::filesystem;

    // A scratch home whose token store is the credentials file; the client inherits it.
    fs::path home = bench::scratchHome("quillet-bench-upload");
    quillet::Keychain::setDeviceToken(std::string("bench-token"));

    // Sparse files: no disk space, and the page cache serves them as fast as memory.
    auto sparse = [](const fs::path& path, long size) {
        int fd = ::open(path.c_str(), O_CREAT | O_WRONLY | O_TRUNC, 0600);
        if (fd < 0 || ::ftruncate(fd, static_cast<off_t>(size) << 20) != 0) {
            std::perror("ftruncate");
            std::exit(1);
        }
        ::close(fd);
    };
    fs::path file = fs::path(home) / "recording.m4a";
    sparse(file, mebibytes);
    long curlMebibytes = std::min(mebibytes, 1023L);
    fs::path curlFile = fs::path(home) / "baseline.bin";
    sparse(curlFile, curlMebibytes);

    DiscardServer server;
    std::string base = "http://127.0.0.1:" + std::to_string(server.port()) + "/api/v1";
    std::vector<bench::Spawned> ours;
    std::vector<bench::Spawned> curl;
    for (int round = 0; round < rounds; ++round) {
        curl.push_back(bench::spawnAndWait({"curl", "-s", "-o", "/dev/null", "-H", "Content-Type: application/octet-stream",
                                 "--data-binary", "@" + curlFile.string(), base + "/sources"}));
        ours.push_back(bench::spawnAndWait({QUILLET_UPLOAD_CLIENT, base, file.string()}));
    }
    fs::remove_all(home);

    for (const auto& run : ours) {
        if (run.status != 0) {
            std::printf("upload: the client failed (status %d)\n", run.status);
            return 1;
        }
    }
    for (const auto& run : curl) {
        if (run.status != 0) {
            std::printf("upload: curl failed (status %d)\n", run.status);
            return 1;
        }
    }
    // Every byte of every body reached the server.
    unsigned long long expected = 0;
    for (int round = 0; round < rounds; ++round) {
        expected += (static_cast<unsigned long long>(mebibytes) << 20) + (static_cast<unsigned long long>(curlMebibytes) << 20);
    }
    if (server.received() < expected) {
        std::printf("upload: the server received %llu bytes, expected at least %llu\n", server.received(), expected);
        return 1;
    }
    auto best = [](const std::vector<bench::Spawned>& runs) {
        return std::min_element(runs.begin(), runs.end(), [](auto& a, auto& b) { return a.seconds < b.seconds; })->seconds;
    };
    long peak = 0;
    for (const auto& run : ours) {
        peak = std::max(peak, run.peakKiB);
    }
    long curlPeak = 0;
    for (const auto& run : curl) {
        curlPeak = std::max(curlPeak, run.peakKiB);
    }
    double size = static_cast<double>(mebibytes);
    double ourRate = size / best(ours);
    double curlRate = static_cast<double>(curlMebibytes) / best(curl);
    double ratio = ourRate / curlRate;
    double peakMB = peak / 1024.0;
    std::printf("upload %ld MiB: quillet %.0f MiB/s, curl --data-binary (%ld MiB) %.0f MiB/s, ratio %.2f "
                "(budget >= 0.80) %s\n",
                mebibytes, ourRate, curlMebibytes, curlRate, ratio, ratio >= 0.8 ? "PASS" : "FAIL");
    std::printf("upload %ld MiB: quillet peak resident %.1f MiB (curl --data-binary %.1f MiB) (budget <= 32 MB) %s\n",
                mebibytes, peakMB, curlPeak / 1024.0, peak * 1024.0 <= 32e6 ? "PASS" : "FAIL");
    return 0;
}
