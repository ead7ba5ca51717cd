#include "quillet_capture/platform/Paths.hpp"

#include "tests/support/Scratch.hpp"
#include "tests/support/SettingsFile.hpp"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>

namespace quillet {
namespace {

namespace fs = std::filesystem;

// The program as `cmake --install` lays it out in a scratch prefix, started from there (and
// through a link to it elsewhere, as a link in ~/.local/bin would be), with a scratch home.
// An installed copy must not depend on the build folder it came from: the background agent
// keeps running it after that folder is rebuilt or removed.
struct InstalledProgram : ::testing::Test {
    test::ScratchDir prefixDir;
    test::ScratchHome home;
    fs::path prefix = fs::canonical(prefixDir.path());
    fs::path program = prefix / "bin/quillet-capture";
    fs::path module = prefix / "lib/quillet-capture/libquillet-taglib.so";

    void SetUp() override
    {
        auto installed = test::runProcess(QUILLET_CMAKE_COMMAND, {"--install", QUILLET_BUILD_DIR, "--prefix", prefix});
        ASSERT_EQ(installed.status, 0) << installed.output << installed.errors;
    }

    // A link to the installed program in another folder.
    fs::path linkInHome() const
    {
        fs::path link = home.path() / ".local/bin/quillet-capture";
        fs::create_directories(link.parent_path());
        fs::create_symlink(program, link);
        return link;
    }
};


// The files of a shared object that a running process has mapped, by name.
std::set<std::string> mappedFiles(int pid, const std::string& name)
{
    std::set<std::string> files;
    for (const auto& line : test::readLines("/proc/" + std::to_string(pid) + "/maps")) {
        auto slash = line.find('/');
        if (slash != std::string::npos && fs::path(line.substr(slash)).filename() == name) {
            files.insert(line.substr(slash));
        }
    }
    return files;
}

TEST_F(InstalledProgram, LaysOutTheProgramTheManualAndTheCompletionsAndSaysItsPackageVersion)
{
    EXPECT_EQ(fs::status(program).permissions() & fs::perms::others_exec, fs::perms::others_exec);
    EXPECT_EQ(fs::exists(module), Paths::current() == Platform::linux);
    // Where man, bash-completion, zsh and fish look for them under a prefix.
    const std::string source = QUILLET_SOURCE_DIR;
    EXPECT_EQ(test::readFile(prefix / "share/man/man1/quillet-capture.1"), test::readFile(source + "/man/quillet-capture.1"));
    EXPECT_EQ(test::readFile(prefix / "share/bash-completion/completions/quillet-capture"),
              test::readFile(source + "/completions/quillet-capture.bash"));
    EXPECT_EQ(test::readFile(prefix / "share/zsh/site-functions/_quillet-capture"),
              test::readFile(source + "/completions/_quillet-capture"));
    EXPECT_EQ(test::readFile(prefix / "share/fish/vendor_completions.d/quillet-capture.fish"),
              test::readFile(source + "/completions/quillet-capture.fish"));
    // A Debian package names its licence in the file the Debian tools look for.
    if (Paths::current() == Platform::linux) {
        EXPECT_EQ(test::readFile(prefix / "share/doc/quillet-capture/copyright"), test::readFile(source + "/LICENSE"));
    }

    // The version the program prints is the one the package and the formula are named after.
    auto version = test::runProcess(linkInHome(), {"version"});
    EXPECT_EQ(version.status, 0) << version.errors;
    EXPECT_EQ(version.output, std::string(QUILLET_PROJECT_VERSION) + "\n");
}

TEST_F(InstalledProgram, InstallPointsTheAgentAtTheInstalledProgram)
{
    if (Paths::current() != Platform::linux) {
        GTEST_SKIP() << "the program manages a systemd unit only on Linux";
    }
    test::ScratchDir bin;
    test::writeFile(bin.path() / "systemctl", "#!/bin/sh\nexit 0\n");
    fs::permissions(bin.path() / "systemctl", fs::perms::owner_all);
    const char* system = std::getenv("PATH");
    std::string path = bin.path().string() + ":" + (system ? system : "/usr/bin:/bin");

    test::writeSettings();
    // Started through a link, as from PATH: the unit names the installed file itself.
    auto result = test::runProcess(linkInHome(), {"install"}, {{"PATH", path}});
    ASSERT_EQ(result.status, 0) << result.errors;
    EXPECT_NE(result.output.find("  program: " + program.string() + "\n"), std::string::npos) << result.output;
    auto unit = test::readFile(home.path() / ".config/systemd/user/se.Brannick.quillet.capture.service");
    EXPECT_NE(unit.find("\nExecStart=" + program.string() + " run\n"), std::string::npos) << unit;
}

TEST_F(InstalledProgram, ReadsDurationsWithTheModuleOfItsOwnPrefix)
{
    if (Paths::current() != Platform::linux) {
        GTEST_SKIP() << "the TagLib module exists only on Linux";
    }
    fs::path incoming = home.path() / "incoming";
    fs::create_directories(incoming);
    fs::path started = linkInHome();
    auto setup = test::runProcess(started, {"setup", "--vault", (home.path() / "vault").string(), "--no-upload",
                                            "--watch", incoming.string()});
    ASSERT_EQ(setup.status, 0) << setup.output << setup.errors;
    // 0.3 s of audio: the agent measures it and skips it as too short, naming the length.
    test::writeWav(incoming / "short.wav", 8000, 2400);

    test::ChildProcess agent(started, {"run"}, {{"QUILLET_POLL_INTERVAL_SECONDS", "0.2"}});
    fs::path log = home.path() / ".local/state/quillet/quillet.log";
    bool measured = test::eventually(
        [&] {
            return fs::exists(log) &&
                   test::readFile(log).find("skipping short.wav (audio too short (0.30s < 0.50s))") != std::string::npos;
        },
        30);
    // Read while the agent runs: the module it loaded is the installed one, not the build's.
    auto mapped = mappedFiles(agent.pid(), "libquillet-taglib.so");
    agent.signal(SIGTERM);
    auto ended = agent.wait();
    ASSERT_TRUE(measured) << ended.output << ended.errors << (fs::exists(log) ? test::readFile(log) : "no log");
    EXPECT_EQ(mapped, std::set<std::string>{module.string()});
    EXPECT_EQ(ended.status, 0) << ended.errors;
}

} // namespace
} // namespace quillet
