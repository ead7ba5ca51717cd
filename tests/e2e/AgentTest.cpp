#include "quillet_capture/platform/Paths.hpp"

#include "tests/support/LogLines.hpp"
#include "tests/support/Scratch.hpp"
#include "tests/support/SettingsFile.hpp"

#include <gtest/gtest.h>

#include <filesystem>

namespace quillet {
namespace {

namespace fs = std::filesystem;

// `install` and `uninstall` through the built program, with a scratch home and a fake
// `systemctl` first in PATH that records its calls and fails the verbs it is told to.
struct AgentTest : ::testing::Test {
    test::ScratchHome home;
    test::ScratchDir bin;
    fs::path unit = home.path() / ".config/systemd/user/se.Brannick.quillet.capture.service";
    fs::path outputFile = home.path() / ".local/state/quillet/quillet-capture.out.log";
    std::string name = "se.Brannick.quillet.capture.service";

    void SetUp() override
    {
        if (Paths::current() != Platform::linux) {
            GTEST_SKIP() << "the program manages a systemd unit only on Linux";
        }
        test::writeFile(bin.path() / "systemctl", "#!/bin/sh\n"
                                                  "here=$(dirname \"$0\")\n"
                                                  "printf '%s\\n' \"$*\" >> \"$here/calls\"\n"
                                                  "if [ -f \"$here/fail\" ] && grep -qx \"$2\" \"$here/fail\"; then\n"
                                                  "  echo \"Failed to $2: boom\"; exit 1\n"
                                                  "fi\n");
        fs::permissions(bin.path() / "systemctl", fs::perms::owner_all);
        // install needs a setup to run the agent with.
        test::writeSettings();
    }

    std::string path() const
    {
        const char* system = std::getenv("PATH");
        return bin.path().string() + ":" + (system ? system : "/usr/bin:/bin");
    }

    test::ProcessResult run(const std::vector<std::string>& arguments, const std::string& program = test::programPath())
    {
        return test::runProcess(program, arguments, {{"PATH", path()}});
    }

    std::vector<std::string> calls() const { return test::readLines(bin.path() / "calls"); }

    // The test program lies in the build folder.
    static std::string buildFolderWarning()
    {
        return "Warning: this program lies in a build folder; the agent will run this very file, which a rebuild or a "
               "cleaned checkout removes.\n";
    }

    std::string installedText(const std::string& program) const
    {
        return buildFolderWarning() + "Installed. quillet-capture now runs at login and restarts if it stops.\n  program: " + program +
               "\n  agent:   " + unit.string() + "\n\nCheck it with: quillet-capture status\n";
    }
};

TEST_F(AgentTest, InstallTwiceReplacesTheUnitAndRestartsItAndUninstallAlwaysSucceeds)
{
    // The second time through a symbolic link: the unit holds the resolved program.
    const std::string program = fs::canonical(test::programPath()).string();
    fs::create_directories(home.path() / "bin");
    fs::create_symlink(test::programPath(), home.path() / "bin/quillet-capture");
    for (const auto& started : {test::programPath(), (home.path() / "bin/quillet-capture").string()}) {
        auto result = run({"install"}, started);
        EXPECT_EQ(result.status, 0) << result.errors;
        EXPECT_EQ(result.output, installedText(program));
    }
    EXPECT_EQ(calls(), (std::vector<std::string>{
                           "--user disable --now " + name,
                           "--user daemon-reload",
                           "--user enable --now " + name,
                           "--user disable --now " + name,
                           "--user daemon-reload",
                           "--user enable --now " + name,
                       }));
    auto text = test::readFile(unit);
    EXPECT_NE(text.find("ExecStart=" + program + " run\n"), std::string::npos) << text;
    EXPECT_NE(text.find("StandardOutput=append:" + outputFile.string() + "\n"), std::string::npos) << text;
    EXPECT_NE(text.find("StandardError=append:" + outputFile.string() + "\n"), std::string::npos) << text;
    EXPECT_TRUE(fs::is_directory(outputFile.parent_path()));
    EXPECT_EQ(test::logMessages(), (std::vector<std::string>{
                                       "[quillet] capture-cli: systemd user unit installed (" + program + ")",
                                       "[quillet] capture-cli: systemd user unit installed (" + program + ")",
                                   }));

    // Uninstall, and again when nothing is installed.
    for (int round = 0; round < 2; ++round) {
        fs::remove(bin.path() / "calls");
        auto result = run({"uninstall"});
        EXPECT_EQ(result.status, 0);
        EXPECT_EQ(result.output, "Removed. Capture no longer starts at login. Settings and the device token are kept.\n");
        EXPECT_EQ(test::logMessages().back(), "[quillet] capture-cli: systemd user unit removed");
        EXPECT_FALSE(fs::exists(unit));
    }
    EXPECT_EQ(calls(), (std::vector<std::string>{"--user disable --now " + name}));
}

TEST_F(AgentTest, InstallFailuresEndWithTheirOwnText)
{
    // From Downloads: refused before anything is written.
    fs::path copy = home.path() / "Downloads/quillet-capture/quillet-capture";
    fs::create_directories(copy.parent_path());
    fs::copy_file(test::programPath(), copy);
    fs::permissions(copy, fs::perms::owner_all);
    auto result = run({"install"}, copy.string());
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.output, "");
    EXPECT_EQ(result.errors, "Move quillet-capture somewhere permanent first (for example ~/.local/bin/) and run\n"
                             "install from there. The systemd user unit points at this exact path.\n");
    EXPECT_FALSE(fs::exists(unit));
    EXPECT_FALSE(fs::exists(home.path() / ".local/state/quillet"));

    // A file where the unit's folder should be stops even root, unlike a permission bit.
    test::writeFile(home.path() / ".config/systemd", "not a folder");
    result = run({"install"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.errors, "Could not write " + unit.string() + ": Not a directory\n");
    EXPECT_TRUE(calls().empty());
    fs::remove(home.path() / ".config/systemd");

    // A failing service manager: its own text, and nothing logged.
    test::writeFile(bin.path() / "fail", "enable\n");
    result = run({"install"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.output, buildFolderWarning());
    EXPECT_EQ(result.errors, "systemctl enable failed: Failed to enable: boom\n\n");
    EXPECT_TRUE(test::logMessages().empty());

    // No service manager at all: install fails, uninstall does not.
    fs::remove(bin.path() / "systemctl");
    result = test::runProcess(test::programPath(), {"install"}, {{"PATH", bin.path().string()}});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.errors, "systemctl enable failed: systemctl: not found in PATH\n");
    result = test::runProcess(test::programPath(), {"uninstall"}, {{"PATH", bin.path().string()}});
    EXPECT_EQ(result.status, 0);
    EXPECT_FALSE(fs::exists(unit));
}

TEST_F(AgentTest, ThePredecessorsUnitIsRemovedBeforeInstallRuns)
{
    fs::path old = home.path() / ".config/systemd/user/se.kestrin.pellam-capture.service";
    test::writeFile(old, "[Unit]\n");
    auto result = run({"install"});
    ASSERT_EQ(result.status, 0) << result.errors;
    // The migration from Pellam, first thing at start, has removed it and logged so.
    EXPECT_TRUE(result.output.starts_with(buildFolderWarning() + "Installed. ")) << result.output;
    EXPECT_EQ(test::countLogLines("[quillet] migration from Pellam: Removed the old pellam-capture systemd user unit."), 1);
    EXPECT_FALSE(fs::exists(old));
    auto all = calls();
    ASSERT_GE(all.size(), 2u);
    EXPECT_EQ(all[0], "--user disable --now se.kestrin.pellam-capture.service");
    EXPECT_EQ(all[1], "--user daemon-reload");
}

TEST_F(AgentTest, InstallBeforeSetupIsRefusedAndEnablesNothing)
{
    fs::remove(Paths::settingsFile());
    auto result = run({"install"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.output, "");
    EXPECT_EQ(result.errors, "Nothing is set up yet. Run quillet-capture setup first.\n");
    EXPECT_FALSE(fs::exists(unit));
    EXPECT_FALSE(fs::exists(outputFile));
    EXPECT_TRUE(calls().empty());
}

TEST_F(AgentTest, InstallWithoutAUserSessionExplainsTheWayForwardAndLeavesNoUnit)
{
    // systemd's own words when the login has no user manager (su, a container, SSH without
    // lingering).
    test::writeFile(bin.path() / "systemctl", "#!/bin/sh\n"
                                              "printf '%s\\n' \"$*\" >> \"$(dirname \"$0\")/calls\"\n"
                                              "echo 'Failed to connect to bus: No medium found' >&2\n"
                                              "exit 1\n");
    auto result = run({"install"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.output, buildFolderWarning());
    EXPECT_EQ(result.errors,
              "There is no systemd user session here (systemctl --user: Failed to connect to bus: No medium found).\n"
              "Log in to a desktop or SSH session with a user manager, or run `loginctl enable-linger $USER`\n"
              "once, then install again; or run `quillet-capture run` under another supervisor.\n");
    EXPECT_FALSE(fs::exists(unit));
    EXPECT_TRUE(fs::is_empty(unit.parent_path()));
}

TEST_F(AgentTest, InstallWarnsOnlyWhenTheProgramLiesInABuildFolder)
{
    // Copies of the program: one installed, one in a build folder by name, one beside a
    // CMakeCache.txt. Each is installed, with the warning only for the two build folders.
    fs::path root = fs::canonical(home.path());
    fs::path installed = root / ".local/bin/quillet-capture";
    fs::path named = root / "src/quillet/build-debug/quillet-capture";
    fs::path cached = root / "src/quillet/out/bin/quillet-capture";
    test::writeFile(root / "src/quillet/out/CMakeCache.txt", "");
    for (const auto& copy : {installed, named, cached}) {
        fs::create_directories(copy.parent_path());
        fs::copy_file(test::programPath(), copy);
        fs::permissions(copy, fs::perms::owner_all);
        auto result = run({"install"}, copy.string());
        EXPECT_EQ(result.status, 0) << copy << result.errors;
        std::string plain = installedText(copy.string()).substr(buildFolderWarning().size());
        EXPECT_EQ(result.output, copy == installed ? plain : buildFolderWarning() + plain) << copy;
        EXPECT_NE(test::readFile(unit).find("ExecStart=" + copy.string() + " run\n"), std::string::npos);
    }
}

} // namespace
} // namespace quillet
