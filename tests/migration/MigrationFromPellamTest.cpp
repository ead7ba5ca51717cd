#include "quillet_capture/migration/MigrationFromPellam.hpp"

#include "quillet_capture/config/Keychain.hpp"
#include "quillet_capture/migration/ItemMover.hpp"
#include "quillet_capture/platform/AgentManager.hpp"
#include "tests/support/LogLines.hpp"
#include "tests/support/Scratch.hpp"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <memory>

namespace quillet {
namespace {

namespace fs = std::filesystem;
using MigrationFromPellam::pellamService;

const std::string kAccount = Keychain::deviceTokenAccount;
const std::string kPellamToken = "pellam-token-0123456789";

// One thing Pellam left and where it belongs now.
struct Item {
    fs::path old;
    fs::path now;
    std::string text;
};

// The migration of each platform's layout (both are plain paths under the scratch home), with
// the token in the credentials file and a fake launchctl or systemctl that records its calls.
struct MigrationTest : ::testing::TestWithParam<Platform> {
    test::ScratchHome home;
    test::ScratchDir bin;
    fs::path manager = bin.path() / "manager";
    Paths::Layout layout;
    std::unique_ptr<AgentManager> agents;

    MigrationTest()
    {
        setenv("QUILLET_TOKEN_STORE", "file", 1);
        test::writeFile(manager, "#!/bin/sh\nprintf '%s\\n' \"$*\" >> \"$(dirname \"$0\")/calls\"\n");
        fs::permissions(manager, fs::perms::owner_all);
        layout = Paths::layout(GetParam());
        if (GetParam() == Platform::macOS) {
            agents = std::make_unique<LaunchdAgentManager>(manager.string());
        } else {
            agents = std::make_unique<SystemdAgentManager>(manager.string());
        }
    }

    const Paths::PellamLayout& pellam() const { return layout.pellam; }

    // Pellam's folder whose contents go to `folder`.
    fs::path oldFolderFor(const fs::path& folder) const
    {
        for (const auto& [from, to] : pellam().folders) {
            if (to == folder) {
                return from;
            }
        }
        ADD_FAILURE() << "no Pellam folder for " << folder;
        return {};
    }

    std::vector<Item> items() const
    {
        fs::path recordings = oldFolderFor(layout.recordingsRoot.parent_path()) / "Recordings";
        return {
            {pellam().settingsFile, layout.settingsFile, R"({"vaultPath": "~/pellam-vault"})"},
            {pellam().logFile, layout.logFile, "2024-01-01T00:00:00Z [pellam] old line\n"},
            {pellam().rotatedLogFile, layout.rotatedLogFile, "2023-12-31T00:00:00Z [pellam] older line\n"},
            {oldFolderFor(layout.stateFolder) / "state.json", layout.stateFile, R"({"version": 2})"},
            {recordings / "2025/r1.m4a", layout.recordingsRoot / "2025/r1.m4a", "first recording"},
            {recordings / "2025/r2.m4a", layout.recordingsRoot / "2025/r2.m4a", "second recording"},
            {oldFolderFor(layout.logFolder) / "pellam-capture.out.log", layout.logFolder / "pellam-capture.out.log",
             "agent output\n"},
        };
    }

    void installPellam() const
    {
        for (const auto& item : items()) {
            test::writeFile(item.old, item.text);
        }
        test::writeFile(pellam().agentDefinition, "old agent");
        ASSERT_TRUE(Keychain::write(kAccount, kPellamToken, pellamService));
    }

    void migrate() const
    {
        MigrationFromPellam::run(layout, *agents);
        QuilletLog::drain();
    }

    std::vector<std::string> calls() const { return test::readLines(bin.path() / "calls"); }

    // Every file, link and folder under the home with the contents of files.
    std::map<std::string, std::string> tree() const
    {
        std::map<std::string, std::string> all;
        for (auto& entry : fs::recursive_directory_iterator(home.path())) {
            auto name = fs::relative(entry.path(), home.path()).string();
            all[name] = entry.is_regular_file() ? test::readFile(entry.path()) : "<folder>";
        }
        return all;
    }

    long namesContaining(const std::string& part) const
    {
        auto all = tree();
        return std::count_if(all.begin(), all.end(), [&](const auto& e) { return e.first.find(part) != std::string::npos; });
    }

    static std::vector<std::string> migrationLines()
    {
        std::vector<std::string> lines;
        for (auto& message : test::logMessages()) {
            if (message.starts_with("[quillet] migration from Pellam: ")) {
                lines.push_back(message);
            }
        }
        return lines;
    }

    static bool logged(const std::string& text)
    {
        auto lines = migrationLines();
        return std::any_of(lines.begin(), lines.end(), [&](const auto& line) { return line.find(text) != std::string::npos; });
    }

    // The credentials file, written directly: the services and their accounts.
    void writeCredentials(const nlohmann::json& services) const
    {
        test::writeFile(Paths::credentialsFile(), services.dump());
        fs::permissions(Paths::credentialsFile(), fs::perms::owner_read | fs::perms::owner_write);
    }
};

TEST_P(MigrationTest, EveryItemMovesOnceAndASecondRunDoesNothing)
{
    installPellam();
    ASSERT_TRUE(MigrationFromPellam::hasLeftovers(pellam()));
    migrate();

    for (const auto& item : items()) {
        EXPECT_FALSE(fs::exists(item.old)) << item.old;
        // The program's own log lines follow the moved log, never in place of it.
        EXPECT_TRUE(test::readFile(item.now).starts_with(item.text)) << item.now;
    }
    for (const auto& [from, to] : pellam().folders) {
        EXPECT_FALSE(fs::exists(from)) << from;
    }
    EXPECT_FALSE(fs::exists(pellam().settingsFile.parent_path()));
    EXPECT_FALSE(fs::exists(pellam().agentDefinition));
    ASSERT_FALSE(calls().empty());
    EXPECT_NE(calls().front().find("pellam-capture"), std::string::npos) << calls().front();
    EXPECT_EQ(Keychain::deviceToken(), kPellamToken);
    EXPECT_EQ(Keychain::read(kAccount, pellamService), std::nullopt);
    EXPECT_EQ(namesContaining("pellam-old"), 0);
    EXPECT_FALSE(MigrationFromPellam::hasLeftovers(pellam()));

    EXPECT_TRUE(logged(std::string("Removed the old pellam-capture ") +
                       (GetParam() == Platform::macOS ? "LaunchAgent" : "systemd user unit") + "."));
    EXPECT_TRUE(logged("capture no longer starts at login. Run: quillet-capture install"));
    EXPECT_TRUE(logged("moved " + pellam().settingsFile.string() + " to " + layout.settingsFile.string()));
    EXPECT_TRUE(logged("moved the device token from se.kestrin.pellam.mac to se.Brannick.quillet.mac"));
    EXPECT_EQ(migrationLines().back(), "[quillet] migration from Pellam: done");
    // The token itself is never logged.
    EXPECT_FALSE(logged(kPellamToken));

    auto before = tree();
    auto lines = test::logMessages().size();
    auto callCount = calls().size();
    migrate();
    EXPECT_EQ(tree(), before);
    EXPECT_EQ(test::logMessages().size(), lines);
    EXPECT_EQ(calls().size(), callCount);
}

TEST_P(MigrationTest, WhereTheNewPlaceIsTakenTheOldItemIsKeptBeside)
{
    installPellam();
    const auto all = items();
    const Item& settings = all[0];
    const Item& log = all[1];
    const Item& state = all[3];
    const Item& sameRecording = all[4];
    test::writeFile(settings.now, R"({"vaultPath": "~/quillet-vault"})");
    test::writeFile(ItemMover(".pellam-old").keptName(settings.now, 1), "an earlier kept copy");
    test::writeFile(log.now, "quillet's own log\n");
    test::writeFile(state.now, R"({"version": 3})");
    test::writeFile(sameRecording.now, sameRecording.text); // the same bytes: nothing to keep
    ASSERT_TRUE(Keychain::setDeviceToken("quillet-token"));

    migrate();

    EXPECT_EQ(test::readFile(settings.now), R"({"vaultPath": "~/quillet-vault"})");
    EXPECT_EQ(test::readFile(settings.now.string() + ".pellam-old"), "an earlier kept copy");
    EXPECT_EQ(test::readFile(settings.now.string() + ".2.pellam-old"), settings.text);
    EXPECT_TRUE(test::readFile(log.now).starts_with("quillet's own log\n"));
    EXPECT_EQ(test::readFile(log.now.string() + ".pellam-old"), log.text);
    EXPECT_EQ(test::readFile(state.now), R"({"version": 3})");
    EXPECT_EQ(test::readFile(state.now.string() + ".pellam-old"), state.text);
    EXPECT_EQ(test::readFile(sameRecording.now), sameRecording.text);
    EXPECT_FALSE(fs::exists(sameRecording.now.string() + ".pellam-old"));
    // The recordings folders were merged: the other recording joined the existing folder.
    EXPECT_EQ(test::readFile(all[5].now), all[5].text);
    for (const auto& item : all) {
        EXPECT_FALSE(fs::exists(item.old)) << item.old;
    }
    EXPECT_EQ(namesContaining("pellam-old"), 4);

    EXPECT_EQ(Keychain::deviceToken(), "quillet-token");
    EXPECT_EQ(Keychain::read(kAccount + ".pellam-old"), kPellamToken);
    EXPECT_EQ(Keychain::read(kAccount, pellamService), std::nullopt);
    EXPECT_TRUE(logged(settings.now.string() + " is taken; kept " + settings.old.string() + " as " +
                       settings.now.string() + ".2.pellam-old"));
    EXPECT_TRUE(logged("a device token is stored already; kept the old one as vd_device_token.pellam-old"));
    EXPECT_EQ(migrationLines().back(), "[quillet] migration from Pellam: done");

    auto before = tree();
    migrate();
    EXPECT_EQ(tree(), before);
}

TEST_P(MigrationTest, AnInterruptedRunIsFinishedWithoutLossOrDuplicates)
{
    installPellam();
    const auto all = items();
    // Where a run was cut short: the agent gone; settings and the log moved; the state file
    // linked at its new name but not yet unlinked at the old one; one recording moved and a
    // copy of the other begun on another file system; the token stored anew but the old item
    // not yet deleted.
    fs::remove(pellam().agentDefinition);
    for (const Item* moved : {&all[0], &all[1], &all[4]}) {
        fs::create_directories(moved->now.parent_path());
        fs::rename(moved->old, moved->now);
    }
    fs::create_directories(all[3].now.parent_path());
    fs::create_hard_link(all[3].old, all[3].now);
    test::writeFile(ItemMover::temporaryName(all[5].now), "second rec");
    ASSERT_TRUE(Keychain::setDeviceToken(kPellamToken));

    migrate();

    for (const auto& item : all) {
        EXPECT_FALSE(fs::exists(item.old)) << item.old;
        EXPECT_TRUE(test::readFile(item.now).starts_with(item.text)) << item.now;
    }
    EXPECT_EQ(namesContaining("pellam-old"), 0);
    EXPECT_EQ(namesContaining(".moving"), 0);
    for (const auto& [from, to] : pellam().folders) {
        EXPECT_FALSE(fs::exists(from)) << from;
    }
    EXPECT_EQ(Keychain::deviceToken(), kPellamToken);
    EXPECT_EQ(Keychain::read(kAccount, pellamService), std::nullopt);
    EXPECT_EQ(Keychain::read(kAccount + ".pellam-old"), std::nullopt);
    EXPECT_TRUE(calls().empty()); // the agent was gone already
    EXPECT_EQ(migrationLines().back(), "[quillet] migration from Pellam: done");
}

TEST_P(MigrationTest, ATokenThatCannotBeMovedYetIsTriedAgainAtTheNextStart)
{
    installPellam();
    // Every name the old token could be kept under holds a different token.
    nlohmann::json current = {{kAccount, "quillet-token"}};
    for (int attempt = 1; attempt <= 100; ++attempt) {
        current[ItemMover(".pellam-old").keptName(kAccount, attempt).string()] = "other-" + std::to_string(attempt);
    }
    writeCredentials({{Keychain::service, current}, {pellamService, {{kAccount, kPellamToken}}}});

    migrate();
    EXPECT_EQ(Keychain::read(kAccount, pellamService), kPellamToken);
    EXPECT_TRUE(logged("could not keep the old device token: too many old tokens"));
    EXPECT_EQ(migrationLines().back(), "[quillet] migration from Pellam: not finished; the next start tries again");
    // The files moved; an empty Pellam folder is what tells the next start to go on.
    for (const auto& item : items()) {
        EXPECT_FALSE(fs::exists(item.old)) << item.old;
    }
    EXPECT_TRUE(fs::is_empty(pellam().folders.front().first));
    EXPECT_TRUE(MigrationFromPellam::hasLeftovers(pellam()));

    writeCredentials({{Keychain::service, {{kAccount, "quillet-token"}}}, {pellamService, {{kAccount, kPellamToken}}}});
    migrate();
    EXPECT_EQ(Keychain::read(kAccount + ".pellam-old"), kPellamToken);
    EXPECT_EQ(Keychain::read(kAccount, pellamService), std::nullopt);
    EXPECT_FALSE(MigrationFromPellam::hasLeftovers(pellam()));
    EXPECT_EQ(migrationLines().back(), "[quillet] migration from Pellam: done");
}

INSTANTIATE_TEST_SUITE_P(Layouts, MigrationTest, ::testing::Values(Platform::macOS, Platform::linux),
                         [](const auto& info) { return info.param == Platform::macOS ? "macOS" : "Linux"; });

TEST(Migration, PellamsPlacesAreTheTwinsOfOurs)
{
    auto env = [](const char* name) -> std::optional<std::string> {
        if (std::string_view(name) == "HOME") {
            return "/Users/ana";
        }
        return std::nullopt;
    };
    auto mac = Paths::layoutFor(Platform::macOS, env).pellam;
    using Pair = std::pair<fs::path, fs::path>;
    EXPECT_EQ(mac.folders, (std::vector<Pair>{
                               {"/Users/ana/Library/Application Support/pellam", "/Users/ana/Library/Application Support/quillet"},
                               {"/Users/ana/Library/Logs/pellam", "/Users/ana/Library/Logs/quillet"}}));
    EXPECT_EQ(mac.settingsFile, "/Users/ana/.pellam/settings.json");
    EXPECT_EQ(mac.logFile, "/Users/ana/Library/Logs/pellam/pellam.log");
    EXPECT_EQ(mac.rotatedLogFile, "/Users/ana/Library/Logs/pellam/pellam.1.log");
    EXPECT_EQ(mac.agentDefinition, "/Users/ana/Library/LaunchAgents/se.kestrin.pellam-capture.plist");

    auto xdg = Paths::layoutFor(Platform::linux, env).pellam;
    EXPECT_EQ(xdg.folders, (std::vector<Pair>{{"/Users/ana/.config/pellam", "/Users/ana/.config/quillet"},
                                                {"/Users/ana/.local/state/pellam", "/Users/ana/.local/state/quillet"},
                                                {"/Users/ana/.local/share/pellam", "/Users/ana/.local/share/quillet"}}));
    EXPECT_EQ(xdg.settingsFile, "/Users/ana/.config/pellam/settings.json");
    EXPECT_EQ(xdg.logFile, "/Users/ana/.local/state/pellam/pellam.log");
    EXPECT_EQ(xdg.agentDefinition, "/Users/ana/.config/systemd/user/se.kestrin.pellam-capture.service");
}

TEST(Migration, ACleanMachineIsOnlyLookedAt)
{
    test::ScratchHome home;
    EXPECT_FALSE(MigrationFromPellam::hasLeftovers(Paths::pellam()));
    MigrationFromPellam::run();
    QuilletLog::drain();
    EXPECT_TRUE(fs::is_empty(home.path())); // no log, no folder, no credentials file
}

TEST(Migration, RunsFirstForEveryCommandVersionIncluded)
{
    if (Paths::current() != Platform::linux) {
        GTEST_SKIP() << "the Linux locations are spelled out below";
    }
    test::ScratchHome home;
    const fs::path h = home.path();
    test::writeFile(h / ".config/pellam/settings.json", "{}");
    test::writeFile(h / ".local/state/pellam/pellam.log", "2024-01-01T00:00:00Z [pellam] old line\n");
    test::writeFile(h / ".local/state/pellam/state.json", "{}");

    auto result = test::runProcess(test::programPath(), {"version"}, {{"QUILLET_TOKEN_STORE", "file"}});
    ASSERT_EQ(result.status, 0) << result.errors;
    EXPECT_EQ(result.output, "1.7.3\n");
    EXPECT_NE(result.errors.find("[quillet] migration from Pellam: done"), std::string::npos) << result.errors;
    EXPECT_EQ(test::readFile(h / ".config/quillet/settings.json"), "{}");
    EXPECT_EQ(test::readFile(h / ".local/state/quillet/state.json"), "{}");
    auto log = test::readLines(h / ".local/state/quillet/quillet.log");
    ASSERT_GE(log.size(), 2u);
    EXPECT_EQ(log.front(), "2024-01-01T00:00:00Z [pellam] old line");
    EXPECT_NE(log.back().find(" [quillet] migration from Pellam: done"), std::string::npos);
    EXPECT_FALSE(fs::exists(h / ".config/pellam"));
    EXPECT_FALSE(fs::exists(h / ".local/state/pellam"));

    // Nothing left: the next start is silent.
    result = test::runProcess(test::programPath(), {"version"}, {{"QUILLET_TOKEN_STORE", "file"}});
    EXPECT_EQ(result.output, "1.7.3\n");
    EXPECT_EQ(result.errors, "");
}

} // namespace
} // namespace quillet
