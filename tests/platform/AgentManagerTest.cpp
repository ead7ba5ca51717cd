#include "quillet_capture/platform/AgentManager.hpp"

#include "quillet_capture/config/Log.hpp"
#include "quillet_capture/platform/Paths.hpp"
#include "quillet_capture/platform/Process.hpp"
#include "tests/support/FakeClock.hpp"
#include "tests/support/LogLines.hpp"
#include "tests/support/Scratch.hpp"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>

namespace quillet {
namespace {

namespace fs = std::filesystem;

// A stand-in for launchctl or systemctl: records each call as one line in "calls" beside
// itself, fails the verbs listed in "fail" with a message, and answers "print"/"is-active"
// with success only while a file "loaded" exists. "bootout" removes that file; like launchd,
// the fake may go on reporting the label for a few "print" calls afterwards ("lingering").
struct FakeManager {
    test::ScratchDir dir;
    fs::path program = dir.path() / "manager";

    explicit FakeManager(int verbPosition)
    {
        test::writeFile(program, "#!/bin/sh\n"
                                 "here=$(dirname \"$0\")\n"
                                 "printf '%s\\n' \"$*\" >> \"$here/calls\"\n"
                                 "eval verb=\\${" +
                                     std::to_string(verbPosition) +
                                     "}\n"
                                     "if [ -f \"$here/fail\" ] && grep -qx \"$verb\" \"$here/fail\"; then\n"
                                     "  echo \"Failed to $verb: boom\"; exit 5\n"
                                     "fi\n"
                                     "case \"$verb\" in\n"
                                     "  bootout) rm -f \"$here/loaded\"; [ -f \"$here/linger\" ] && mv \"$here/linger\" "
                                     "\"$here/lingering\";;\n"
                                     "  print) if [ -s \"$here/lingering\" ] && [ \"$(cat \"$here/lingering\")\" -gt 0 ]; then\n"
                                     "           echo $(($(cat \"$here/lingering\") - 1)) > \"$here/lingering\"; exit 0\n"
                                     "         fi\n"
                                     "         [ -f \"$here/loaded\" ] || exit 3;;\n"
                                     "  is-active) [ -f \"$here/loaded\" ] || exit 3;;\n"
                                     "esac\n"
                                     "exit 0\n");
        fs::permissions(program, fs::perms::owner_all);
    }

    std::vector<std::string> calls() const { return test::readLines(dir.path() / "calls"); }
    void clearCalls() const { fs::remove(dir.path() / "calls"); }
    void failVerb(const std::string& verb) const { test::writeFile(dir.path() / "fail", verb + "\n"); }
    // The next bootout leaves the label reported by this many "print" calls.
    void lingerAfterBootout(int prints) const { test::writeFile(dir.path() / "linger", std::to_string(prints)); }
    void setLoaded(bool loaded) const
    {
        if (loaded) {
            test::writeFile(dir.path() / "loaded", "");
        } else {
            fs::remove(dir.path() / "loaded");
        }
    }
};

struct Printed {
    std::vector<std::string> lines;
    AgentManager::Print print()
    {
        return [this](std::string_view line) { lines.emplace_back(line); };
    }
};

// --- shell and friends -------------------------------------------------------------------

TEST(Shell, CollectsBothStreamsAndTheStatusWithoutAShell)
{
    auto echoed = shell("/bin/echo", {"$HOME;", "a b", "*"});
    EXPECT_EQ(echoed.status, 0);
    EXPECT_EQ(echoed.output, "$HOME; a b *\n");

    auto mixed = shell("/bin/sh", {"-c", "echo out; echo err >&2; exit 7"});
    EXPECT_EQ(mixed.status, 7);
    EXPECT_EQ(mixed.output, "out\nerr\n");
    EXPECT_EQ(shell("/bin/sh", {"-c", "kill -KILL $$"}).status, 9);

    // A program that cannot start: -1 and the reason.
    auto missing = shell("/nonexistent/launchctl", {"print"});
    EXPECT_EQ(missing.status, -1);
    EXPECT_EQ(missing.output, "/nonexistent/launchctl: No such file or directory");

    // Output that is not UTF-8 reads as empty.
    auto latin1 = shell("/usr/bin/printf", {"caf\\351\\n"});
    EXPECT_EQ(latin1.status, 0);
    EXPECT_EQ(latin1.output, "");
    EXPECT_EQ(shell("/usr/bin/printf", {"caf\\303\\251"}).output, "caf\xC3\xA9");
}

TEST(ProcessOutputText, RepairReplacesEachBrokenSequenceOnce)
{
    using Process::InvalidUtf8;
    EXPECT_EQ(Process::outputText("plain \xE2\x82\xAC \xF0\x9F\x8E\x99", InvalidUtf8::repair),
              "plain \xE2\x82\xAC \xF0\x9F\x8E\x99");
    // A character cut off at the end, a stray continuation byte, an overlong form and a
    // surrogate each become one replacement character.
    EXPECT_EQ(Process::outputText("ab\xE2\x82", InvalidUtf8::repair), "ab\xEF\xBF\xBD");
    EXPECT_EQ(Process::outputText("\x80x", InvalidUtf8::repair), "\xEF\xBF\xBDx");
    EXPECT_EQ(Process::outputText("\xC0\xAF", InvalidUtf8::repair), "\xEF\xBF\xBD\xEF\xBF\xBD");
    EXPECT_EQ(Process::outputText("\xED\xA0\x80", InvalidUtf8::repair), "\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD");
    EXPECT_EQ(Process::outputText("\xF4\x90\x80\x80", InvalidUtf8::empty), "");
    EXPECT_EQ(Process::outputText("", InvalidUtf8::empty), "");
}

TEST(ProcessFindInPath, TakesTheFirstExecutableFileInPathOrder)
{
    test::ScratchDir dir;
    test::writeFile(dir.path() / "a/tool", "not executable");
    test::writeFile(dir.path() / "b/tool", "#!/bin/sh\n");
    fs::permissions(dir.path() / "b/tool", fs::perms::owner_all);
    test::writeFile(dir.path() / "c/tool", "#!/bin/sh\n");
    fs::permissions(dir.path() / "c/tool", fs::perms::owner_all);
    fs::create_directories(dir.path() / "d/dir-tool");

    std::string saved = std::getenv("PATH") ? std::getenv("PATH") : "";
    std::string path = (dir.path() / "a").string() + ":" + (dir.path() / "b").string() + ":" +
                       (dir.path() / "c").string() + ":" + (dir.path() / "d").string();
    setenv("PATH", path.c_str(), 1);
    auto found = Process::findInPath("tool");
    auto folder = Process::findInPath("dir-tool");
    auto missing = Process::findInPath("systemctl");
    setenv("PATH", saved.c_str(), 1);

    EXPECT_EQ(found, (dir.path() / "b/tool").string());
    EXPECT_EQ(folder, std::nullopt);
    EXPECT_EQ(missing, std::nullopt);
}

// --- launchd -------------------------------------------------------------------------------

struct LaunchdTest : ::testing::Test {
    test::ScratchHome home;
    FakeManager launchctl{1};
    LaunchdAgentManager manager{launchctl.program.string()};
    Printed printed;
    std::string gui = "gui/" + std::to_string(::getuid());
    fs::path plist = home.path() / "Library/LaunchAgents/se.Brannick.quillet.capture.plist";
    fs::path oldPlist = home.path() / "Library/LaunchAgents/se.kestrin.pellam-capture.plist";
};

TEST_F(LaunchdTest, PropertyListHoldsExactlyTheSevenKeys)
{
    std::string out = (home.path() / "Library/Logs/quillet/quillet-capture.out.log").string();
    EXPECT_EQ(manager.definition("/Users/ana/Apps/Tom & Jerry <1>/quillet-capture"),
              "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
              "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
              "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
              "<plist version=\"1.0\">\n"
              "<dict>\n"
              "\t<key>KeepAlive</key>\n"
              "\t<true/>\n"
              "\t<key>Label</key>\n"
              "\t<string>se.Brannick.quillet.capture</string>\n"
              "\t<key>ProgramArguments</key>\n"
              "\t<array>\n"
              "\t\t<string>/Users/ana/Apps/Tom &amp; Jerry &lt;1&gt;/quillet-capture</string>\n"
              "\t\t<string>run</string>\n"
              "\t</array>\n"
              "\t<key>RunAtLoad</key>\n"
              "\t<true/>\n"
              "\t<key>StandardErrorPath</key>\n"
              "\t<string>" +
                  out +
                  "</string>\n"
                  "\t<key>StandardOutPath</key>\n"
                  "\t<string>" +
                  out +
                  "</string>\n"
                  "\t<key>ThrottleInterval</key>\n"
                  "\t<integer>30</integer>\n"
                  "</dict>\n"
                  "</plist>\n");
}

TEST_F(LaunchdTest, InstallWritesBootsOutAndBootstrapsAndCanBeRepeated)
{
    const std::string program = "/opt/quillet/quillet-capture";
    for (int round = 0; round < 2; ++round) {
        launchctl.clearCalls();
        printed.lines.clear();
        manager.install(program, printed.print());
        EXPECT_EQ(launchctl.calls(), (std::vector<std::string>{
                                         "bootout " + gui + " " + plist.string(),
                                         "print " + gui + "/se.Brannick.quillet.capture",
                                         "bootstrap " + gui + " " + plist.string(),
                                     }));
        EXPECT_EQ(printed.lines, (std::vector<std::string>{
                                     "Installed. quillet-capture now runs at login and restarts if it stops.",
                                     "  program: " + program,
                                     "  agent:   " + plist.string(),
                                     "",
                                     "Check it with: quillet-capture status",
                                 }));
        EXPECT_EQ(test::readFile(plist), manager.definition(program));
        struct stat info {};
        ASSERT_EQ(::stat(plist.c_str(), &info), 0);
        EXPECT_EQ(info.st_mode & 0777, 0644u);
    }
    EXPECT_TRUE(fs::is_directory(home.path() / "Library/Logs/quillet"));
    auto messages = test::logMessages();
    EXPECT_EQ(std::count(messages.begin(), messages.end(),
                         "[quillet] capture-cli: LaunchAgent installed (/opt/quillet/quillet-capture)"),
              2);
}

TEST_F(LaunchdTest, RefusedLocationsWriteNothing)
{
    for (const char* program : {"/Users/ana/Downloads/quillet-capture/quillet-capture",
                                "/private/var/folders/x/AppTranslocation/ABC/d/quillet-capture"}) {
        try {
            manager.install(program, printed.print());
            ADD_FAILURE() << "install accepted " << program;
        } catch (const AgentManager::Error& error) {
            EXPECT_STREQ(error.what(),
                         "Move the quillet-capture folder somewhere permanent first (for example\n"
                         "~/Applications/quillet-capture/) and run install from there. The LaunchAgent\n"
                         "and the Full Disk Access grant both point at this exact path.");
        }
    }
    EXPECT_FALSE(fs::exists(plist));
    EXPECT_FALSE(fs::exists(home.path() / "Library/Logs/quillet"));
    EXPECT_TRUE(launchctl.calls().empty());
    // A folder merely named like one is fine.
    EXPECT_NO_THROW(manager.install("/Users/ana/MyDownloads/quillet-capture", printed.print()));
}

TEST_F(LaunchdTest, InstallFailuresEndInstallWithTheirText)
{
    // launchctl refuses: its text, after the plist was written.
    launchctl.failVerb("bootstrap");
    try {
        manager.install("/opt/q/quillet-capture", printed.print());
        ADD_FAILURE() << "install succeeded";
    } catch (const AgentManager::Error& error) {
        EXPECT_STREQ(error.what(), "launchctl bootstrap failed: Failed to bootstrap: boom\n");
    }
    EXPECT_TRUE(printed.lines.empty());
    EXPECT_TRUE(fs::exists(plist));

    // The LaunchAgents folder cannot be written: launchctl is never asked.
    fs::remove_all(home.path() / "Library/LaunchAgents");
    launchctl.clearCalls();
    test::writeFile(home.path() / "Library/LaunchAgents", "a file where the folder should be");
    try {
        manager.install("/opt/q/quillet-capture", printed.print());
        ADD_FAILURE() << "install succeeded";
    } catch (const AgentManager::Error& error) {
        // What the standard library reports for a folder that cannot be made where a file is.
#ifdef _LIBCPP_VERSION
        EXPECT_EQ(std::string(error.what()), "Could not write " + plist.string() + ": File exists");
#else
        EXPECT_EQ(std::string(error.what()), "Could not write " + plist.string() + ": Not a directory");
#endif
    }
    EXPECT_TRUE(launchctl.calls().empty());
}

TEST_F(LaunchdTest, OldPellamAgentIsRemovedFirstAndOnlyWhenPresent)
{
    manager.removeOldPellamAgent(printed.print());
    EXPECT_TRUE(printed.lines.empty());
    EXPECT_TRUE(launchctl.calls().empty());

    test::writeFile(oldPlist, "<plist/>");
    launchctl.failVerb("bootout"); // its result does not matter
    manager.install("/opt/q/quillet-capture", printed.print());
    EXPECT_FALSE(fs::exists(oldPlist));
    ASSERT_FALSE(printed.lines.empty());
    EXPECT_EQ(printed.lines.front(), "Removed the old pellam-capture LaunchAgent.");
    ASSERT_FALSE(launchctl.calls().empty());
    EXPECT_EQ(launchctl.calls().front(), "bootout " + gui + " " + oldPlist.string());
}

TEST_F(LaunchdTest, UninstallAlwaysSucceeds)
{
    launchctl.failVerb("bootout");
    manager.uninstall(printed.print());
    EXPECT_EQ(printed.lines, (std::vector<std::string>{
                                 "Removed. Capture no longer starts at login. Settings and the Keychain token are kept.",
                             }));
    EXPECT_EQ(launchctl.calls(), (std::vector<std::string>{"bootout " + gui + " " + plist.string(),
                                                           "print " + gui + "/se.Brannick.quillet.capture"}));

    test::writeFile(plist, "<plist/>");
    test::writeFile(oldPlist, "<plist/>");
    manager.uninstall(printed.print());
    EXPECT_FALSE(fs::exists(plist));
    EXPECT_TRUE(fs::exists(oldPlist)); // the predecessor's agent is install's business
    EXPECT_EQ(test::logMessages(), (std::vector<std::string>{
                                 "[quillet] capture-cli: LaunchAgent removed",
                                 "[quillet] capture-cli: LaunchAgent removed",
                             }));
}

TEST_F(LaunchdTest, AgentLoadedAsksLaunchctlPrint)
{
    EXPECT_FALSE(manager.agentLoaded());
    launchctl.setLoaded(true);
    EXPECT_TRUE(manager.agentLoaded());
    EXPECT_EQ(launchctl.calls().back(), "print " + gui + "/se.Brannick.quillet.capture");
    EXPECT_FALSE(LaunchdAgentManager("/nonexistent/launchctl").agentLoaded());
}

TEST_F(LaunchdTest, WithAgentStoppedStopsRunsTheBodyAndStartsWhatIsInstalled)
{
    const std::string print = "print " + gui + "/se.Brannick.quillet.capture";
    const std::string bootout = "bootout " + gui + " " + plist.string();
    const std::string bootstrap = "bootstrap " + gui + " " + plist.string();
    using Lines = std::vector<std::string>;
    Lines callsDuringBody;
    auto body = [&] { callsDuringBody = launchctl.calls(); };

    // Loaded without a plist: stopped, the body runs, and it stays stopped.
    launchctl.setLoaded(true);
    manager.withAgentStopped([&] { printed.lines.push_back("body"); }, printed.print());
    EXPECT_EQ(printed.lines, (Lines{"body", "The capture agent is not installed. Run: quillet-capture install"}));
    EXPECT_EQ(launchctl.calls(), (Lines{print, bootout, print}));

    // Loaded: stopped around the body and started again.
    test::writeFile(plist, "<plist/>");
    launchctl.setLoaded(true);
    launchctl.clearCalls();
    printed.lines.clear();
    manager.withAgentStopped(body, printed.print());
    EXPECT_EQ(callsDuringBody, (Lines{print, bootout, print}));
    EXPECT_EQ(launchctl.calls(), (Lines{print, bootout, print, bootstrap}));
    EXPECT_TRUE(printed.lines.empty());

    // Installed but not loaded: the body runs and the agent is started afterwards.
    launchctl.setLoaded(false);
    launchctl.clearCalls();
    manager.withAgentStopped(body, printed.print());
    EXPECT_EQ(callsDuringBody, Lines{print});
    EXPECT_EQ(launchctl.calls(), (Lines{print, bootstrap}));

    // A body that throws still gets the agent started again.
    EXPECT_THROW(manager.withAgentStopped([] { throw std::runtime_error("body failed"); }, printed.print()),
                 std::runtime_error);
    EXPECT_EQ(launchctl.calls().back(), bootstrap);

    // A failed restart is reported, and the call goes on.
    launchctl.failVerb("bootstrap");
    manager.withAgentStopped([] {}, printed.print());
    EXPECT_EQ(printed.lines,
              Lines{"Could not restart the agent (Failed to bootstrap: boom); start it with: quillet-capture install"});
}

TEST_F(LaunchdTest, BootstrapWaitsUntilLaunchdHasLetGoOfTheLabel)
{
    const std::string print = "print " + gui + "/se.Brannick.quillet.capture";
    const std::string bootout = "bootout " + gui + " " + plist.string();
    const std::string bootstrap = "bootstrap " + gui + " " + plist.string();
    using Lines = std::vector<std::string>;
    test::FakeClock clock;
    LaunchdAgentManager waiting(launchctl.program.string(), clock);

    // launchd still reports the label for three looks after the bootout: bootstrap comes only
    // once it no longer does, so a second install in a row works.
    launchctl.setLoaded(true);
    launchctl.lingerAfterBootout(3);
    waiting.install("/opt/q/quillet-capture", printed.print());
    EXPECT_EQ(launchctl.calls(), (Lines{bootout, print, print, print, print, bootstrap}));
    EXPECT_EQ(clock.waits(), (std::vector<double>{0.1, 0.1, 0.1}));

    // A label that never goes away: the wait ends after ten seconds and bootstrap says why.
    launchctl.clearCalls();
    launchctl.lingerAfterBootout(100000);
    test::FakeClock stuckClock;
    LaunchdAgentManager stuck(launchctl.program.string(), stuckClock);
    stuck.install("/opt/q/quillet-capture", printed.print());
    auto calls = launchctl.calls();
    ASSERT_FALSE(calls.empty());
    EXPECT_EQ(calls.back(), bootstrap);
    auto waited = stuckClock.now() - test::FakeClock().now();
    EXPECT_GE(waited, LaunchdAgentManager::kBootoutWait);
    EXPECT_LT(waited, LaunchdAgentManager::kBootoutWait + std::chrono::seconds(1));
    EXPECT_EQ(std::count(calls.begin(), calls.end(), print), static_cast<long>(stuckClock.waits().size()) + 1);
}

TEST_F(LaunchdTest, PathsThatAPropertyListCannotHoldAreRefusedBeforeAnythingIsWritten)
{
    auto refusal = [&](const std::string& program) -> std::string {
        try {
            manager.install(program, printed.print());
        } catch (const AgentManager::Error& error) {
            return error.what();
        }
        return "install accepted it";
    };
    const std::string prefix = "A LaunchAgent cannot hold this path (it has control characters or is not UTF-8): ";
    const std::string advice = ". Move quillet-capture to a folder whose path has neither.";
    EXPECT_EQ(refusal("/opt/q\nx/quillet-capture"), prefix + "/opt/q\\x0Ax/quillet-capture" + advice);
    EXPECT_EQ(refusal("/opt/q\rx/quillet-capture"), prefix + "/opt/q\\x0Dx/quillet-capture" + advice);
    EXPECT_EQ(refusal("/opt/q\tx/quillet-capture"), prefix + "/opt/q\\x09x/quillet-capture" + advice);
    EXPECT_EQ(refusal("/opt/caf\xE9/quillet-capture"), prefix + "/opt/caf\\xE9/quillet-capture" + advice);
    EXPECT_FALSE(fs::exists(plist));
    EXPECT_FALSE(fs::exists(home.path() / "Library/Logs/quillet"));
    EXPECT_TRUE(launchctl.calls().empty());

    // Quotes, blanks and any other UTF-8 text are fine, as they are in XML.
    EXPECT_NO_THROW(manager.install("/Users/ana/Program \"Files\"/caf\xC3\xA9 \xF0\x9F\x8E\x99/quillet-capture",
                                    printed.print()));
    EXPECT_NE(test::readFile(plist).find("caf\xC3\xA9 \xF0\x9F\x8E\x99"), std::string::npos);
}

// --- systemd -------------------------------------------------------------------------------

struct SystemdTest : ::testing::Test {
    test::ScratchHome home;
    FakeManager systemctl{2};
    SystemdAgentManager manager{systemctl.program.string()};
    Printed printed;
    fs::path unit = home.path() / ".config/systemd/user/se.Brannick.quillet.capture.service";
    std::string name = "se.Brannick.quillet.capture.service";
};

TEST_F(SystemdTest, UnitRunsTheProgramAndAppendsItsOutput)
{
    std::string out = (home.path() / ".local/state/quillet/quillet-capture.out.log").string();
    EXPECT_EQ(manager.definitionFile(), unit);
    EXPECT_EQ(manager.layout().oldAgentDefinition,
              home.path() / ".config/systemd/user/se.kestrin.pellam-capture.service");
    EXPECT_EQ(manager.definition("/opt/quillet/quillet-capture"),
              "[Unit]\n"
              "Description=quillet-capture: voice recordings to transcribed notes\n"
              "\n"
              "[Service]\n"
              "ExecStart=/opt/quillet/quillet-capture run\n"
              "Restart=always\n"
              "RestartSec=30\n"
              "StandardOutput=append:" +
                  out +
                  "\n"
                  "StandardError=append:" +
                  out +
                  "\n"
                  "\n"
                  "[Install]\n"
                  "WantedBy=default.target\n");

    // Paths that systemd would split or expand are quoted.
    auto text = manager.definition("/home/ana/My Apps/100% \"q\"/$bin\\quillet-capture");
    EXPECT_NE(text.find("ExecStart=\"/home/ana/My Apps/100%% \\\"q\\\"/$$bin\\\\quillet-capture\" run\n"),
              std::string::npos)
        << text;
}

TEST_F(SystemdTest, FailedReloadOrEnableEndsInstall)
{
    for (const char* verb : {"daemon-reload", "enable"}) {
        systemctl.failVerb(verb);
        try {
            manager.install("/opt/q/quillet-capture", printed.print());
            ADD_FAILURE() << "install succeeded";
        } catch (const AgentManager::Error& error) {
            EXPECT_EQ(std::string(error.what()), std::string("systemctl enable failed: Failed to ") + verb + ": boom\n");
        }
    }
}

// --- where the agent finds the program --------------------------------------------------

TEST(AgentProgramPath, AHomebrewCellarCopyIsNamedByItsOptLink)
{
    for (const std::string prefix : {"/opt/homebrew", "/usr/local", "/home/linuxbrew/.linuxbrew"}) {
        EXPECT_EQ(AgentManager::homebrewOptPath(prefix + "/Cellar/quillet-capture/1.7.3/bin/quillet-capture"),
                  prefix + "/opt/quillet-capture/bin/quillet-capture");
        EXPECT_EQ(AgentManager::homebrewOptPath(prefix + "/Cellar/quillet-capture/1.7.3_1/bin/quillet-capture"),
                  prefix + "/opt/quillet-capture/bin/quillet-capture");
    }
    // Not a Cellar copy of this program: recorded as it is.
    for (const std::string other : {"/usr/bin/quillet-capture", "/opt/homebrew/bin/quillet-capture",
                                    "/opt/homebrew/Cellar/other-tool/1.0/bin/quillet-capture",
                                    "/opt/homebrew/Cellar/quillet-capture/1.7.3/libexec/bin/quillet-capture",
                                    "/opt/homebrew/Cellar/quillet-capture//bin/quillet-capture",
                                    "/opt/homebrew/Cellar/quillet-capture/1.7.3/bin/quillet-capture-old",
                                    "/Cellar/quillet-capture/1.7.3/bin/quillet-capture"}) {
        EXPECT_EQ(AgentManager::homebrewOptPath(other), std::nullopt) << other;
    }
}

TEST(AgentProgramPath, BuildFoldersAreRecognisedByNameOrByTheirCMakeCache)
{
    test::ScratchDir dir;
    fs::path root = fs::canonical(dir.path());
    EXPECT_TRUE(AgentManager::inBuildFolder(root / "src/build/quillet-capture"));
    EXPECT_TRUE(AgentManager::inBuildFolder(root / "src/build-release/bin/quillet-capture"));
    EXPECT_FALSE(AgentManager::inBuildFolder(root / "src/builder/quillet-capture"));
    EXPECT_FALSE(AgentManager::inBuildFolder(root / "bin/quillet-capture"));
    test::writeFile(root / "out/CMakeCache.txt", "");
    EXPECT_TRUE(AgentManager::inBuildFolder(root / "out/bin/quillet-capture"));
    EXPECT_FALSE(AgentManager::inBuildFolder(root / "installed/bin/quillet-capture"));
}

TEST_F(SystemdTest, AHomebrewCopyIsRecordedByItsOptLinkOnlyWhenThatLeadsToIt)
{
    fs::path brew = fs::canonical(home.path()) / "linuxbrew";
    fs::path cellar = brew / "Cellar/quillet-capture/1.7.3/bin/quillet-capture";
    test::writeFile(cellar, "#!/bin/sh\n");
    test::writeFile(brew / "Cellar/quillet-capture/1.7.2/bin/quillet-capture", "#!/bin/sh\n");
    fs::create_directories(brew / "opt");
    std::string opt = (brew / "opt/quillet-capture/bin/quillet-capture").string();

    // No link yet: the Cellar path.
    manager.install(cellar.string(), printed.print());
    EXPECT_NE(test::readFile(unit).find("ExecStart=" + cellar.string() + " run\n"), std::string::npos);

    // The link leads to another version: still the Cellar path, the file that runs now.
    fs::create_directory_symlink("../Cellar/quillet-capture/1.7.2", brew / "opt/quillet-capture");
    manager.install(cellar.string(), printed.print());
    EXPECT_NE(test::readFile(unit).find("ExecStart=" + cellar.string() + " run\n"), std::string::npos);

    // The link leads to this version: the link, which `brew upgrade` moves on to the next.
    fs::remove(brew / "opt/quillet-capture");
    fs::create_directory_symlink("../Cellar/quillet-capture/1.7.3", brew / "opt/quillet-capture");
    printed.lines.clear();
    manager.install(cellar.string(), printed.print());
    EXPECT_NE(test::readFile(unit).find("ExecStart=" + opt + " run\n"), std::string::npos) << test::readFile(unit);
    EXPECT_NE(std::find(printed.lines.begin(), printed.lines.end(), "  program: " + opt), printed.lines.end());
}

TEST_F(SystemdTest, NoUserSessionEndsInstallWithTheWayForwardAndLeavesNoUnit)
{
    FakeManager noBus{2};
    test::writeFile(noBus.program, "#!/bin/sh\necho 'Failed to connect to bus: No medium found'\nexit 1\n");
    SystemdAgentManager without{noBus.program.string()};
    try {
        without.install("/opt/q/quillet-capture", printed.print());
        ADD_FAILURE() << "install succeeded";
    } catch (const AgentManager::Error& error) {
        EXPECT_EQ(std::string(error.what()),
                  "There is no systemd user session here (systemctl --user: Failed to connect to bus: No medium "
                  "found).\n"
                  "Log in to a desktop or SSH session with a user manager, or run `loginctl enable-linger $USER`\n"
                  "once, then install again; or run `quillet-capture run` under another supervisor.");
    }
    EXPECT_FALSE(fs::exists(unit));
    EXPECT_TRUE(test::logMessages().empty());
}

TEST_F(SystemdTest, WithAgentStoppedAroundAnActiveUnitOrWithoutOne)
{
    manager.withAgentStopped([&] { printed.lines.push_back("body"); }, printed.print());
    EXPECT_EQ(systemctl.calls(), (std::vector<std::string>{"--user is-active --quiet " + name}));
    EXPECT_EQ(printed.lines, (std::vector<std::string>{
                                 "body",
                                 "The capture agent is not installed. Run: quillet-capture install",
                             }));

    systemctl.clearCalls();
    printed.lines.clear();
    test::writeFile(unit, "[Unit]\n");
    systemctl.setLoaded(true);
    std::vector<std::string> callsDuringBody;
    manager.withAgentStopped([&] { callsDuringBody = systemctl.calls(); }, printed.print());
    EXPECT_EQ(callsDuringBody, (std::vector<std::string>{
                                   "--user is-active --quiet " + name,
                                   "--user disable --now " + name,
                               }));
    EXPECT_EQ(systemctl.calls(), (std::vector<std::string>{
                                     "--user is-active --quiet " + name,
                                     "--user disable --now " + name,
                                     "--user daemon-reload",
                                     "--user enable --now " + name,
                                 }));
    EXPECT_TRUE(printed.lines.empty());
}

TEST_F(SystemdTest, UninstallForgetsTheUnitOnlyWhenOneWasRemoved)
{
    manager.uninstall(printed.print());
    EXPECT_EQ(systemctl.calls(), (std::vector<std::string>{"--user disable --now " + name}));
    systemctl.clearCalls();
    test::writeFile(unit, "[Unit]\n");
    manager.uninstall(printed.print());
    EXPECT_FALSE(fs::exists(unit));
    EXPECT_EQ(systemctl.calls(), (std::vector<std::string>{"--user disable --now " + name, "--user daemon-reload"}));
}

TEST_F(SystemdTest, SystemctlIsFoundThroughPath)
{
    SystemdAgentManager searching;
    std::string saved = std::getenv("PATH") ? std::getenv("PATH") : "";
    setenv("PATH", (systemctl.dir.path().string() + ":/usr/bin:/bin").c_str(), 1);
    fs::rename(systemctl.program, systemctl.dir.path() / "systemctl");
    systemctl.setLoaded(true);
    bool loaded = searching.agentLoaded();
    setenv("PATH", "/nonexistent", 1);
    bool loadedWithoutSystemctl = searching.agentLoaded();
    setenv("PATH", saved.c_str(), 1);
    EXPECT_TRUE(loaded);
    EXPECT_FALSE(loadedWithoutSystemctl);
    EXPECT_EQ(systemctl.calls(), (std::vector<std::string>{"--user is-active --quiet " + name}));
}

} // namespace
} // namespace quillet
