#include "quillet_capture/cli/Commands.hpp"
#include "quillet_capture/platform/Paths.hpp"

#include "tests/support/FakeVeldane.hpp"
#include "tests/support/Scratch.hpp"
#include "tests/support/SettingsFile.hpp"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <regex>
#include <thread>

namespace quillet {
namespace {

namespace fs = std::filesystem;

// Words of things that only a Mac has. On Linux none of them applies, so no text of the
// program may use them there: a person following it would look for what is not there. zsh
// counts where Linux has none: the after-transcript command then runs in bash.
std::string macWordsIn(const std::string& text)
{
    static const std::regex macWords(
        std::string(R"(\bMac\b|macOS|Keychain|keychain|LaunchAgent|launchctl|launchd|\.plist|iCloud|)"
                    R"(Full Disk Access|System Settings|Finder|\bTerminal\b|Application Support)") +
        (fs::exists("/bin/zsh") ? "" : "|/bin/zsh"));
    std::string found;
    for (auto it = std::sregex_iterator(text.begin(), text.end(), macWords); it != std::sregex_iterator(); ++it) {
        auto start = text.rfind('\n', it->position());
        auto end = text.find('\n', it->position());
        start = start == std::string::npos ? 0 : start + 1;
        found += "  \"" + it->str() + "\" in: " + text.substr(start, end - start) + "\n";
    }
    return found;
}

// Every command of the program as a newcomer meets it on Linux, in the order of the README:
// help first, then setup, pair, install, status and the rest, with a fake service and a fake
// `systemctl`; the terminal's output, the log and the files the program writes for the person
// (the settings summary, the unit) are read for Mac words.
TEST(LinuxWords, NoTextOfAnyCommandNamesAThingOnlyAMacHas)
{
    test::ScratchHome home;
    test::FakeVeldane fake;
    test::ScratchDir bin;
    test::writeFile(bin.path() / "systemctl", "#!/bin/sh\nexit 0\n");
    fs::permissions(bin.path() / "systemctl", fs::perms::owner_all);
    const std::map<std::string, std::optional<std::string>> environment = {
        {"PATH", bin.path().string() + ":" + std::getenv("PATH")},
        {"QUILLET_TOKEN_STORE", "file"},
        {"QUILLET_URL_OPENER", "true"},
    };
    std::string seen;
    auto run = [&](const std::vector<std::string>& arguments) {
        auto result = test::runProcess(test::programPath(), arguments, environment, 30);
        auto found = macWordsIn(result.output + "\n" + result.errors);
        EXPECT_EQ(found, "") << testing::PrintToString(arguments);
        seen += result.output + result.errors;
        return result;
    };

    run({});
    for (const auto& command : commandTable()) {
        run({command.words.front(), "--help"});
    }
    // Before any setup.
    run({"status"});
    run({"install"});
    run({"retry"});
    run({"sync"});
    run({"audit"});
    run({"import-existing"});
    run({"run"});

    const fs::path recordings = home.path() / "Recordings";
    fs::create_directories(recordings);
    run({"setup"});
    run({"setup", "--vault", (home.path() / "Notes").string(), "--watch", recordings.string()});
    test::writeSettings([&](AppSettings& s) {
        s.vaultPath = (home.path() / "Notes").string();
        s.veldaneBaseURL = fake.baseURL();
        s.captureVeldaneEnabled = true;
        s.watchedFoldersRaw = std::vector{WatchedFolder::generic(recordings.string())};
    });
    // Not paired yet: each command that needs the token says how to get one.
    run({"status"});
    run({"retry"});
    run({"sync"});
    run({"import-existing"});
    run({"audit"});
    {
        test::ChildProcess agent(test::programPath(), {"run"}, environment);
        ASSERT_TRUE(test::eventually([] { return fs::exists(Paths::logFile()); }, 20));
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
        agent.signal(SIGTERM);
        auto result = agent.wait(20);
        EXPECT_EQ(macWordsIn(result.output + result.errors), "") << "run";
    }
    fake.enqueue("POST", "auth/devices/init", test::FakeVeldane::Answer::json(R"({"error": "nope"})", 400));
    run({"pair"});
    run({"install"});
    run({"status"});
    run({"uninstall"});

    EXPECT_EQ(macWordsIn(test::readFile(Paths::logFile())), "") << "the log";
    EXPECT_NE(seen.find("systemd"), std::string::npos) << "the texts never named the systemd unit:\n" << seen;
}

} // namespace
} // namespace quillet
