// Start-up cost of the whole process: `quillet-capture version` against `/bin/true`, each run
// many times in alternation; prints both medians and their ratio. Budget: at most 3x.

#include "bench/BenchCommon.hpp"

#include <spawn.h>
#include <sys/wait.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <string>
#include <vector>

namespace {

double runOnce(const char* program, const char* argument)
{
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    char* argv[] = {const_cast<char*>(program), const_cast<char*>(argument), nullptr};
    auto start = std::chrono::steady_clock::now();
    pid_t pid = 0;
    if (posix_spawn(&pid, program, &actions, nullptr, argv, environ) != 0) {
        std::perror(program);
        std::exit(1);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    auto elapsed = std::chrono::steady_clock::now() - start;
    posix_spawn_file_actions_destroy(&actions);
    return std::chrono::duration<double, std::micro>(elapsed).count();
}

} // namespace

int main(int argc, char** argv)
{
    int runs = argc > 1 ? std::atoi(argv[1]) : 200;
    std::vector<double> program;
    std::vector<double> baseline;
    for (int i = 0; i < runs; ++i) {
        baseline.push_back(runOnce("/bin/true", nullptr));
        program.push_back(runOnce(QUILLET_CAPTURE_BINARY, "version"));
    }
    double p = bench::median(program);
    double b = bench::median(baseline);
    double ratio = p / b;
    std::printf("startup: quillet-capture version median %.0f us, /bin/true median %.0f us, ratio %.2f (budget 3.00) %s\n",
                p, b, ratio, bench::verdict(ratio <= 3.0));
    return 0;
}
