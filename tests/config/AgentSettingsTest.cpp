#include "quillet_capture/config/AgentSettings.hpp"
#include "quillet_capture/platform/FileSignature.hpp"
#include "quillet_capture/platform/Paths.hpp"
#include "quillet_capture/util/AtomicFile.hpp"

#include "tests/support/LogLines.hpp"
#include "tests/support/Scratch.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <set>
#include <thread>

namespace quillet {
namespace {

namespace fs = std::filesystem;

// Settings an agent can run with: a vault and the Voice Memos folder enabled.
AppSettings usable(const std::string& vault)
{
    auto settings = AppSettings::defaults();
    settings.vaultPath = vault;
    settings.captureVoiceMemosEnabled = true;
    return settings;
}

struct AgentSettingsTest : ::testing::Test {
    test::ScratchHome home;
    fs::path file = Paths::settingsFile();

    AgentSettingsTest() { fs::create_directories(file.parent_path()); }

    void save(const AppSettings& settings) { writeFileAtomically(file, settings.encode()); }
    void saveText(const std::string& text) { writeFileAtomically(file, text); }
    static long unusable() { return test::countLogLines("changed but cannot be used"); }
};

// What the agent works by changes only through a usable version, and the acknowledgement
// names the version taken, so that `setup` can tell the person.
TEST_F(AgentSettingsTest, AUsableVersionReplacesTheSettingsAndIsAcknowledged)
{
    save(usable("/notes/a"));
    AgentSettings settings(usable("/notes/a"), file);
    auto before = settings.current();
    EXPECT_FALSE(settings.followFile()) << "the file the agent started with changes nothing";
    EXPECT_EQ(AgentSettings::acknowledged(), FileSignature::of(file).text());

    auto next = usable("/notes/b");
    next.captureVeldaneEnabled = true;
    next.afterTranscriptCommand = "touch done";
    save(next);
    EXPECT_TRUE(settings.followFile());
    EXPECT_EQ(settings.current()->vaultPath(), "/notes/b");
    EXPECT_TRUE(settings.current()->captureVeldaneEnabled());
    EXPECT_EQ(settings.current()->afterTranscriptCommand(), "touch done");
    EXPECT_EQ(before->vaultPath(), "/notes/a") << "a snapshot taken before never changes";
    EXPECT_EQ(AgentSettings::acknowledged(), FileSignature::of(file).text());
    EXPECT_EQ(test::countLogLines("settings changed; now using vault /notes/b"), 1);
    EXPECT_FALSE(settings.followFile());

    const auto taken = AgentSettings::acknowledged();
    saveText("not json");
    EXPECT_FALSE(settings.followFile());
    EXPECT_EQ(settings.current()->vaultPath(), "/notes/b");
    EXPECT_EQ(AgentSettings::acknowledged(), taken) << "an unusable version is never acknowledged";
}

// Capture tasks read the settings on their own threads while the coordinator's queue applies
// a new version: each read sees one whole version.
TEST_F(AgentSettingsTest, ReadersSeeWholeVersionsWhileTheyChange)
{
    save(usable("/notes/v0"));
    AgentSettings settings(usable("/notes/v0"), file);
    std::set<std::string> written{"/notes/v0"};
    std::atomic<bool> done{false};
    std::atomic<int> torn{0};
    std::vector<std::thread> readers;
    for (int r = 0; r < 2; ++r) {
        readers.emplace_back([&] {
            while (!done) {
                auto snapshot = settings.current();
                auto vault = snapshot->vaultPath();
                if (vault.rfind("/notes/v", 0) != 0 || snapshot->vaultName() != "Halden") {
                    ++torn;
                }
            }
        });
    }
    for (int v = 1; v <= 20; ++v) {
        save(usable("/notes/v" + std::to_string(v)));
        EXPECT_TRUE(settings.followFile());
    }
    done = true;
    for (auto& reader : readers) {
        reader.join();
    }
    EXPECT_EQ(torn, 0);
    EXPECT_EQ(settings.current()->vaultPath(), "/notes/v20");
}

} // namespace
} // namespace quillet
