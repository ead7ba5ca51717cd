// `quillet-capture status` over an inbox of 10,000 notes against `grep -r -m1 vd_job_status`
// over the same notes, each run as a whole process, in alternation over warm files; prints
// both medians and their ratio. Budget: at most 2x.
//
// The notes are a mix like a real inbox: stubs, and notes whose transcripts run from 2 to 40 KB.
//
// Usage: bench_status [rounds]   (default 7)

#include "quillet_capture/vault/InboxWriter.hpp"

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fcntl.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

extern char** environ;

using namespace quillet;
namespace fs = std::filesystem;

namespace {

constexpr int kNotes = 10'000;

double median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

std::string note(int i, std::mt19937& random)
{
    char id[32];
    std::snprintf(id, sizeof id, "24%02d%02d-%06d", 1 + i % 12, 1 + i % 28, i);
    auto fm = InboxWriter::Frontmatter::forCapture(id, std::chrono::system_clock::now());
    fm.status = "pending";
    std::string body;
    switch (random() % 10) {
    case 0:
        fm.vdJobStatus = "queued";
        break;
    case 1:
        fm.vdJobStatus = "upload_failed";
        break;
    default: {
        fm.vdJobStatus = "done";
        fm.externalId = "DOC_" + std::to_string(random());
        size_t length = 2'000 + random() % 38'000;
        static const std::string words = "and the meeting was about the plan for next quarter so we ";
        while (body.size() < length) {
            body += words;
        }
    }
    }
    return InboxWriter::renderMarkdown(fm, body);
}

// Runs `arguments` with its output thrown away; the exit status, or -1.
int run(const std::vector<std::string>& arguments)
{
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    std::vector<char*> argv;
    for (const auto& argument : arguments) {
        argv.push_back(const_cast<char*>(argument.c_str()));
    }
    argv.push_back(nullptr);
    pid_t pid = 0;
    if (posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ) != 0) {
        std::perror(argv[0]);
        std::exit(1);
    }
    posix_spawn_file_actions_destroy(&actions);
    int status = 0;
    ::waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

double timed(const std::vector<std::string>& arguments, int expected)
{
    auto start = std::chrono::steady_clock::now();
    int status = run(arguments);
    double elapsed = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
    if (status != expected) {
        std::printf("status: %s ended with %d\n", arguments.front().c_str(), status);
        std::exit(1);
    }
    return elapsed;
}

} // namespace

int main(int argc, char** argv)
{
    int rounds = argc > 1 ? std::atoi(argv[1]) : 7;
    std::string home = (fs::temp_directory_path() / "quillet-bench-status-XXXXXX").string();
    if (::mkdtemp(home.data()) == nullptr) {
        std::perror("mkdtemp");
        return 1;
    }
    ::setenv("HOME", home.c_str(), 1);
    for (const char* variable : {"XDG_CONFIG_HOME", "XDG_STATE_HOME", "XDG_DATA_HOME"}) {
        ::unsetenv(variable);
    }
    ::setenv("QUILLET_TOKEN_STORE", "file", 1);
    fs::path vault = fs::path(home) / "vault";
    fs::path inbox = vault / "_inbox";
    fs::create_directories(inbox);
    const std::string program = QUILLET_CAPTURE_BINARY;
    timed({program, "setup", "--vault", vault.string(), "--no-upload"}, 0);

    std::mt19937 random(7);
    std::size_t bytes = 0;
    for (int i = 0; i < kNotes; ++i) {
        auto text = note(i, random);
        bytes += text.size();
        char name[32];
        std::snprintf(name, sizeof name, "24%02d%02d-%06d.md", 1 + i % 12, 1 + i % 28, i);
        std::ofstream(inbox / name) << text;
    }

    const std::vector<std::string> status = {program, "status"};
    const std::vector<std::string> grep = {"grep", "-r", "-m1", "--include=*.md", "vd_job_status", inbox.string()};
    timed(status, 0);  // warm-up of both: the files in the page cache, the libraries loaded
    timed(grep, 0);
    std::vector<double> ours, theirs;
    for (int round = 0; round < rounds; ++round) {
        ours.push_back(timed(status, 0));
        theirs.push_back(timed(grep, 0));
    }
    fs::remove_all(home);

    double o = median(ours), g = median(theirs), ratio = o / g;
    std::printf("status over %d notes (%.1f MB): quillet-capture status %.1f ms, grep -r -m1 vd_job_status %.1f ms, "
                "ratio %.2f (budget at most 2.00) %s\n",
                kNotes, bytes / 1e6, o, g, ratio, ratio <= 2.0 ? "PASS" : "FAIL");
    return 0;
}
