#include "tests/e2e/CaptureAgentHarness.hpp"

#include "quillet_capture/platform/AgentLock.hpp"

#include "tests/support/LogLines.hpp"
#include "tests/support/Scratch.hpp"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <fstream>
#include <regex>
#include <string>
#include <vector>

namespace quillet {
namespace {

namespace fs = std::filesystem;
using test::CaptureAgentHarness;

// The processes of the process group `group` that have not ended (zombies, which no longer
// run, do not count). Where /proc is missing, any process of the group counts.
std::vector<long> livingMembers(long group)
{
    std::vector<long> members;
    std::error_code error;
    if (!fs::is_directory("/proc/self", error)) {
        if (::kill(static_cast<pid_t>(-group), 0) == 0 || errno == EPERM) {
            members.push_back(group);
        }
        return members;
    }
    for (const auto& entry : fs::directory_iterator("/proc", error)) {
        std::string name = entry.path().filename().string();
        if (name.find_first_not_of("0123456789") != std::string::npos) {
            continue;
        }
        std::ifstream stat(entry.path() / "stat");
        std::string line;
        std::getline(stat, line);
        // "pid (command) state ppid pgrp ...": the command may hold spaces and parentheses.
        auto close = line.rfind(')');
        if (close == std::string::npos) {
            continue;
        }
        char state = 0;
        long parent = 0;
        long pgrp = 0;
        if (std::sscanf(line.c_str() + close + 1, " %c %ld %ld", &state, &parent, &pgrp) == 3 && pgrp == group &&
            state != 'Z' && state != 'X') {
            members.push_back(std::stol(name));
        }
    }
    return members;
}

std::vector<long> pidsIn(const fs::path& file)
{
    std::vector<long> pids;
    for (const auto& line : test::readLines(file)) {
        if (!line.empty()) {
            pids.push_back(std::stol(line));
        }
    }
    return pids;
}

// The agent ends what it started: stopped by SIGTERM (the service manager, `kill`) or by
// SIGINT (Ctrl-C on an agent started by hand), it ends its after-transcript commands and
// everything they started, says so in one line, and exits cleanly, instead of leaving them
// running with no time limit. The grandchild here ignores SIGTERM, so it takes the SIGKILL
// that follows the grace.
TEST(AgentProcess, StopSignalsEndTheAfterTranscriptCommandsAndAllTheyStarted)
{
    for (int signo : {SIGTERM, SIGINT}) {
        const std::string name = signo == SIGTERM ? "SIGTERM" : "SIGINT";
        SCOPED_TRACE(name);
        CaptureAgentHarness agent(40 + static_cast<unsigned>(signo));
        const fs::path pids = agent.home() / "command-pids";
        agent.editSettings([&](AppSettings& settings) {
            settings.afterTranscriptCommand = "echo $$ >> '" + pids.string() + "'; sh -c 'trap \"\" TERM; echo $$ >> \"" +
                                              pids.string() + "\"; sleep 300' & sleep 300";
        });
        agent.setPollInterval(1);
        agent.setPace({.processingPolls = 0});
        ASSERT_TRUE(agent.startAndWait());
        agent.drop(1);
        ASSERT_TRUE(test::eventually([&] { return pidsIn(pids).size() >= 2; }, 60)) << agent.agentOutput();
        const long group = pidsIn(pids).front();
        const long grandchild = pidsIn(pids).back();
        ASSERT_FALSE(livingMembers(group).empty());

        auto stopped = std::chrono::steady_clock::now();
        EXPECT_EQ(agent.stop(signo), 0) << agent.agentOutput();
        double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - stopped).count();
        EXPECT_LT(seconds, 6) << "the agent takes the 2-second grace, not the commands' time limit";
        EXPECT_TRUE(test::eventually([&] { return livingMembers(group).empty(); }, 3))
            << "left running: " << livingMembers(group).size() << " process(es), the grandchild " << grandchild;
        EXPECT_EQ(test::countLogLines("[quillet] capture-cli: stopping (" + name + ")"), 1);
        EXPECT_EQ(test::countLogLines("[quillet] after-transcript: the agent stops; ending 1 running command(s) "
                                      "(SIGTERM, SIGKILL after 2000 ms)"),
                  1);
        agent.expectConsistent(true);
    }
}

// Two agents started in the same instant on one state folder: the one refused names the
// process id of the one that runs, every time, even though the lock file still holds the id
// of the agent of the round before (killed, so the file is never cleaned up).
TEST(AgentProcess, TwoAgentsStartedAtOnceTheRefusedOneNamesTheOneThatRuns)
{
    CaptureAgentHarness agent(52);
    const std::string program = test::programPath();
    const std::regex named(R"(another agent is already running \(pid (\d+)\) -- not starting a second one)");
    for (int round = 0; round < 20; ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        int gate[2];
        ASSERT_EQ(::pipe(gate), 0);
        pid_t started[2];
        for (int which = 0; which < 2; ++which) {
            auto output = agent.home() / ("race-" + std::to_string(which) + ".log");
            started[which] = ::fork();
            if (started[which] == 0) {
                int out = ::open(output.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
                ::dup2(out, STDOUT_FILENO);
                ::dup2(out, STDERR_FILENO);
                ::close(gate[1]);
                char byte;
                // Both wait here and go at the same moment: when the gate closes.
                [[maybe_unused]] auto got = ::read(gate[0], &byte, 1);
                char* argv[] = {const_cast<char*>(program.c_str()), const_cast<char*>("run"), nullptr};
                ::execv(program.c_str(), argv);
                ::_exit(127);
            }
            ASSERT_GT(started[which], 0);
        }
        ::close(gate[0]);
        ::close(gate[1]);

        // The refused one ends at once; the other runs on.
        int refused = -1;
        int status = 0;
        ASSERT_TRUE(test::eventually(
            [&] {
                for (int which = 0; which < 2; ++which) {
                    if (::waitpid(started[which], &status, WNOHANG) == started[which]) {
                        refused = which;
                        return true;
                    }
                }
                return false;
            },
            20));
        const pid_t running = started[1 - refused];
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 1);
        auto text = test::readFile(agent.home() / ("race-" + std::to_string(refused) + ".log"));
        std::smatch match;
        ASSERT_TRUE(std::regex_search(text, match, named)) << text;
        EXPECT_EQ(match[1].str(), std::to_string(running)) << text;

        ::kill(running, SIGKILL);
        ::waitpid(running, &status, 0);
    }
    EXPECT_TRUE(fs::exists(AgentLock::file()));
}

} // namespace
} // namespace quillet
