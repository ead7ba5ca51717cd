#include "quillet_capture/platform/Paths.hpp"

#include "tests/support/Scratch.hpp"

#include <gtest/gtest.h>

#include <map>

namespace quillet {
namespace {

Paths::EnvLookup env(std::map<std::string, std::string> values)
{
    return [values](const char* name) -> std::optional<std::string> {
        auto found = values.find(name);
        if (found == values.end()) {
            return std::nullopt;
        }
        return found->second;
    };
}

TEST(Paths, MacLayoutLivesInTheLibrary)
{
    auto l = Paths::layoutFor(Platform::macOS, env({{"HOME", "/Users/ana"}, {"XDG_CONFIG_HOME", "/ignored"}}));
    EXPECT_EQ(l.settingsFile, "/Users/ana/Library/Application Support/quillet/settings.json");
    EXPECT_EQ(l.stateFile, "/Users/ana/Library/Application Support/quillet/state.json");
    EXPECT_EQ(l.logFile, "/Users/ana/Library/Logs/quillet/quillet.log");
    EXPECT_EQ(l.rotatedLogFile, "/Users/ana/Library/Logs/quillet/quillet.1.log");
    EXPECT_EQ(l.agentOutputFile, "/Users/ana/Library/Logs/quillet/quillet-capture.out.log");
    EXPECT_EQ(l.agentDefinition, "/Users/ana/Library/LaunchAgents/se.Brannick.quillet.capture.plist");
    EXPECT_EQ(l.recordingsRoot, "/Users/ana/Library/Application Support/quillet/Recordings");
    EXPECT_EQ(l.legacyWatcherFile, "/Users/ana/.voice_memo_watcher_state.json");
    ASSERT_EQ(l.voiceMemosCandidates.size(), 2u);
    EXPECT_EQ(l.voiceMemosCandidates[0],
              "/Users/ana/Library/Group Containers/group.com.apple.VoiceMemos.shared/Recordings");
    EXPECT_EQ(l.voiceMemosCandidates[1], "/Users/ana/Library/Application Support/com.apple.voicememos/Recordings");
    EXPECT_EQ(l.iCloudDrive, "/Users/ana/Library/Mobile Documents/com~apple~CloudDocs");
}

TEST(Paths, LinuxLayoutFollowsXdg)
{
    auto l = Paths::layoutFor(Platform::linux, env({{"HOME", "/home/ana"},
                                                    {"XDG_CONFIG_HOME", "/cfg"},
                                                    {"XDG_STATE_HOME", "/st"},
                                                    {"XDG_DATA_HOME", "/data"}}));
    EXPECT_EQ(l.settingsFile, "/cfg/quillet/settings.json");
    EXPECT_EQ(l.stateFile, "/st/quillet/state.json");
    EXPECT_EQ(l.logFile, "/st/quillet/quillet.log");
    EXPECT_EQ(l.rotatedLogFile, "/st/quillet/quillet.1.log");
    EXPECT_EQ(l.agentOutputFile, "/st/quillet/quillet-capture.out.log");
    EXPECT_EQ(l.agentDefinition, "/cfg/systemd/user/se.Brannick.quillet.capture.service");
    EXPECT_EQ(l.credentialsFile, "/cfg/quillet/credentials.json");
    EXPECT_EQ(l.defaultsFile, "/st/quillet/defaults.json");
    EXPECT_EQ(l.recordingsRoot, "/data/quillet/Recordings");
    // Apple's folders keep their places under home, so a test can create them.
    EXPECT_EQ(l.voiceMemosCandidates[0],
              "/home/ana/Library/Group Containers/group.com.apple.VoiceMemos.shared/Recordings");
    EXPECT_EQ(l.iCloudDrive, "/home/ana/Library/Mobile Documents/com~apple~CloudDocs");
    EXPECT_EQ(l.legacyWatcherFile, "/home/ana/.voice_memo_watcher_state.json");
}

TEST(Paths, UnsetEmptyOrRelativeXdgFallsBackUnderHomeAndAnEmptyHomeToTheUserDatabase)
{
    auto l = Paths::layoutFor(Platform::linux,
                              env({{"HOME", "/home/ana"}, {"XDG_CONFIG_HOME", ""}, {"XDG_STATE_HOME", "rel/state"}}));
    EXPECT_EQ(l.settingsFile, "/home/ana/.config/quillet/settings.json");
    EXPECT_EQ(l.stateFile, "/home/ana/.local/state/quillet/state.json");
    EXPECT_EQ(l.recordingsRoot, "/home/ana/.local/share/quillet/Recordings");

    auto homeless = Paths::layoutFor(Platform::linux, env({{"HOME", ""}}));
    EXPECT_FALSE(homeless.home.empty());
    EXPECT_TRUE(homeless.home.is_absolute());
}

TEST(Paths, TildeExpansion)
{
    test::ScratchHome home;
    const std::string h = home.path().string();
    EXPECT_EQ(Paths::expandTilde("~"), h);
    EXPECT_EQ(Paths::expandTilde("~/Notes/x"), h + "/Notes/x");
    EXPECT_EQ(Paths::expandTilde("/abs/~/x"), "/abs/~/x");
    EXPECT_EQ(Paths::expandTilde("~other/x"), "~other/x");
    EXPECT_EQ(Paths::expandTilde(""), "");
    EXPECT_EQ(Paths::settingsFile(), Paths::current() == Platform::macOS
                                         ? home.path() / "Library/Application Support/quillet/settings.json"
                                         : home.path() / ".config/quillet/settings.json");
}

} // namespace
} // namespace quillet
