#include "quillet_capture/config/Keychain.hpp"
#include "quillet_capture/platform/Paths.hpp"
#include "quillet_capture/platform/SecretStore.hpp"

#include "tests/support/Scratch.hpp"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <sys/stat.h>

#include <cstdlib>

namespace quillet {
namespace {

namespace fs = std::filesystem;

mode_t modeOf(const fs::path& path)
{
    struct stat info {};
    EXPECT_EQ(::stat(path.c_str(), &info), 0) << path;
    return info.st_mode & 0777;
}

// The token store with the credentials file of a scratch home.
struct KeychainFileTest : ::testing::Test {
    test::ScratchHome home;
    KeychainFileTest() { setenv("QUILLET_TOKEN_STORE", "file", 1); }
};

TEST_F(KeychainFileTest, StoresReadsReplacesAndDeletesTheToken)
{
    EXPECT_EQ(SecretStore::backendName(), "file");
    EXPECT_FALSE(Keychain::deviceToken());
    EXPECT_FALSE(Keychain::hasCredentials());
    EXPECT_FALSE(Keychain::authorizationHeader());

    ASSERT_TRUE(Keychain::setDeviceToken(std::string("first-token")));
    EXPECT_EQ(Keychain::deviceToken(), "first-token");
    ASSERT_TRUE(Keychain::setDeviceToken(std::string("second-token")));
    EXPECT_EQ(Keychain::deviceToken(), "second-token");
    EXPECT_TRUE(Keychain::hasCredentials());
    EXPECT_TRUE(Keychain::hasDeviceToken());
    EXPECT_EQ(Keychain::authorizationHeader(), "Bearer second-token");

    // Empty and absent values delete; deleting what is not there succeeds.
    ASSERT_TRUE(Keychain::setDeviceToken(std::string()));
    EXPECT_FALSE(Keychain::deviceToken());
    EXPECT_FALSE(fs::exists(Paths::credentialsFile()));
    EXPECT_TRUE(Keychain::setDeviceToken(std::nullopt));
    EXPECT_TRUE(Keychain::write("anything", std::nullopt, "some.other.service"));
}

TEST_F(KeychainFileTest, TheFileIsPrivateAndHoldsEveryServiceApart)
{
    // The folder may already exist, readable by others, because of the settings file.
    fs::create_directories(Paths::credentialsFile().parent_path());
    ::chmod(Paths::credentialsFile().parent_path().c_str(), 0755);
    ASSERT_TRUE(Keychain::write(Keychain::deviceTokenAccount, std::string("mine")));
    ASSERT_TRUE(Keychain::write(Keychain::deviceTokenAccount, std::string("predecessor"), "se.Brannick.pellam.mac"));
    EXPECT_EQ(modeOf(Paths::credentialsFile()), 0600u);
    EXPECT_EQ(modeOf(Paths::credentialsFile().parent_path()), 0700u);

    EXPECT_EQ(Keychain::read(Keychain::deviceTokenAccount), "mine");
    EXPECT_EQ(Keychain::read(Keychain::deviceTokenAccount, "se.Brannick.pellam.mac"), "predecessor");
    EXPECT_FALSE(Keychain::read("other_account"));
    ASSERT_TRUE(Keychain::write(Keychain::deviceTokenAccount, std::nullopt, "se.Brannick.pellam.mac"));
    EXPECT_EQ(Keychain::deviceToken(), "mine");
    EXPECT_FALSE(Keychain::read(Keychain::deviceTokenAccount, "se.Brannick.pellam.mac"));

    auto stored = nlohmann::json::parse(test::readFile(Paths::credentialsFile()));
    EXPECT_EQ(stored, nlohmann::json::parse(R"({"se.Brannick.quillet.mac":{"vd_device_token":"mine"}})"));
}

TEST_F(KeychainFileTest, EveryCallReadsAfreshAndOddContentsReadAsNoToken)
{
    ASSERT_TRUE(Keychain::setDeviceToken(std::string("t1")));
    // Another program changes the item.
    test::writeFile(Paths::credentialsFile(), R"({"se.Brannick.quillet.mac":{"vd_device_token":"t2"}})");
    EXPECT_EQ(Keychain::deviceToken(), "t2");

    test::writeFile(Paths::credentialsFile(), R"({"se.Brannick.quillet.mac":{"vd_device_token":""}})");
    EXPECT_EQ(Keychain::deviceToken(), "");
    EXPECT_FALSE(Keychain::hasCredentials());
    EXPECT_FALSE(Keychain::authorizationHeader());

    for (const char* contents : {"", "not json", "[1,2]", R"({"se.Brannick.quillet.mac":"x"})",
                                 R"({"se.Brannick.quillet.mac":{"vd_device_token":42}})",
                                 "{\"se.Brannick.quillet.mac\":{\"vd_device_token\":\"\xFF\"}}"}) {
        test::writeFile(Paths::credentialsFile(), contents);
        EXPECT_FALSE(Keychain::deviceToken()) << contents;
    }
    // A broken file is replaced by the next write.
    ASSERT_TRUE(Keychain::setDeviceToken(std::string("t3")));
    EXPECT_EQ(Keychain::deviceToken(), "t3");
    // Bytes that are not UTF-8 cannot be stored as text.
    EXPECT_FALSE(Keychain::setDeviceToken(std::string("\xFF\xFE")));
    EXPECT_EQ(Keychain::deviceToken(), "t3");
}

// The Secret Service back end against a real gnome-keyring-daemon; scripts/test-secret-service
// runs these inside a private D-Bus session with QUILLET_LIVE_SECRET_SERVICE=1.
struct SecretServiceLive : ::testing::Test {
    test::ScratchHome home;

    void SetUp() override
    {
        const char* live = std::getenv("QUILLET_LIVE_SECRET_SERVICE");
        if (live == nullptr || std::string_view(live) != "1") {
            GTEST_SKIP() << "needs a Secret Service (scripts/test-secret-service)";
        }
        Keychain::write("live_account", std::nullopt, service);
    }
    void TearDown() override { Keychain::write("live_account", std::nullopt, service); }

    static constexpr const char* service = "se.Brannick.quillet.test";

    // What another program sees: secret-tool's answer (standard output, status).
    static test::ProcessResult lookup()
    {
        return test::runProcess("/usr/bin/secret-tool", {"lookup", "service", service, "account", "live_account"});
    }
    static void storeElsewhere(const std::string& secret)
    {
        auto result = test::runProcess("/bin/sh", {"-c", "printf '%s' \"$1\" | secret-tool store --label=other service "
                                                         "se.Brannick.quillet.test account live_account",
                                                   "sh", secret});
        ASSERT_EQ(result.status, 0) << result.errors;
    }
};

TEST_F(SecretServiceLive, TheTokenLivesInTheSecretServiceNotInAFile)
{
    EXPECT_EQ(SecretStore::backendName(), "secret-service");
    ASSERT_TRUE(Keychain::write("live_account", std::string("live-token-1"), service));
    EXPECT_EQ(lookup().output, "live-token-1");
    EXPECT_FALSE(fs::exists(Paths::credentialsFile()));
    EXPECT_EQ(Keychain::read("live_account", service), "live-token-1");

    // Update in place: still one item, with the new data.
    ASSERT_TRUE(Keychain::write("live_account", std::string("live-token-2"), service));
    EXPECT_EQ(lookup().output, "live-token-2");
    auto all = test::runProcess("/usr/bin/secret-tool",
                                {"search", "--all", "service", service, "account", "live_account"});
    size_t items = 0;
    for (size_t at = all.output.find("[/"); at != std::string::npos; at = all.output.find("[/", at + 1)) {
        ++items;
    }
    EXPECT_EQ(items, 1u) << all.output << all.errors;

    ASSERT_TRUE(Keychain::write("live_account", std::string(), service));
    EXPECT_NE(lookup().status, 0);
    EXPECT_FALSE(Keychain::read("live_account", service));
    EXPECT_TRUE(Keychain::write("live_account", std::nullopt, service));
}

TEST_F(SecretServiceLive, ItemsWrittenByOtherProgramsAreSeenAtOnce)
{
    storeElsewhere("from-elsewhere");
    EXPECT_EQ(Keychain::read("live_account", service), "from-elsewhere");
    storeElsewhere("\xFF\xFE");
    EXPECT_FALSE(Keychain::read("live_account", service));
}

TEST_F(SecretServiceLive, ATokenSavedInTheFileWhileTheServiceWasAwayIsStillFound)
{
    {
        setenv("QUILLET_TOKEN_STORE", "file", 1);
        ASSERT_TRUE(Keychain::write("live_account", std::string("from-ssh"), service));
        unsetenv("QUILLET_TOKEN_STORE");
    }
    EXPECT_EQ(Keychain::read("live_account", service), "from-ssh");
    // Storing through the service removes the file's copy.
    ASSERT_TRUE(Keychain::write("live_account", std::string("fresh"), service));
    setenv("QUILLET_TOKEN_STORE", "file", 1);
    EXPECT_FALSE(Keychain::read("live_account", service));
    unsetenv("QUILLET_TOKEN_STORE");
    EXPECT_EQ(Keychain::read("live_account", service), "fresh");
}

// The login Keychain of a Mac, which no scratch home can stand in for: these tests run only
// when QUILLET_LIVE_KEYCHAIN=1 asks for them (on a developer's Mac, knowing that they add and
// remove one item of their own in the login Keychain).
struct KeychainLive : ::testing::Test {
    test::ScratchHome home;

    void SetUp() override
    {
        const char* live = std::getenv("QUILLET_LIVE_KEYCHAIN");
        if (Paths::current() != Platform::macOS || live == nullptr || std::string_view(live) != "1") {
            GTEST_SKIP() << "needs a Mac's login Keychain and QUILLET_LIVE_KEYCHAIN=1";
        }
        unsetenv("QUILLET_TOKEN_STORE");
        Keychain::write("live_account", std::nullopt, service);
    }
    void TearDown() override { Keychain::write("live_account", std::nullopt, service); }

    static constexpr const char* service = "se.Brannick.quillet.test";

    // What another program sees: whether security(1) finds the item. Its attributes only: the
    // password of an item that this program created would make the system ask the user first.
    static bool foundElsewhere()
    {
        return test::runProcess("/usr/bin/security", {"find-generic-password", "-s", service, "-a", "live_account"})
                   .status == 0;
    }
};

TEST_F(KeychainLive, TheTokenLivesInTheKeychainNotInAFile)
{
    EXPECT_EQ(SecretStore::backendName(), "keychain");
    ASSERT_TRUE(Keychain::write("live_account", std::string("live-token-1"), service));
    EXPECT_TRUE(foundElsewhere());
    EXPECT_FALSE(fs::exists(Paths::credentialsFile()));
    EXPECT_EQ(Keychain::read("live_account", service), "live-token-1");

    // Update in place.
    ASSERT_TRUE(Keychain::write("live_account", std::string("live-token-2"), service));
    EXPECT_EQ(Keychain::read("live_account", service), "live-token-2");

    // An item that another program wrote (open to every application) is read at once.
    ASSERT_TRUE(Keychain::write("live_account", std::nullopt, service));
    EXPECT_FALSE(foundElsewhere());
    auto other = test::runProcess("/usr/bin/security", {"add-generic-password", "-A", "-s", service, "-a",
                                                        "live_account", "-w", "from-elsewhere"});
    ASSERT_EQ(other.status, 0) << other.errors;
    EXPECT_EQ(Keychain::read("live_account", service), "from-elsewhere");

    // An empty token deletes the item.
    ASSERT_TRUE(Keychain::write("live_account", std::string(), service));
    EXPECT_FALSE(foundElsewhere());
    EXPECT_FALSE(Keychain::read("live_account", service));
    EXPECT_TRUE(Keychain::write("live_account", std::nullopt, service));
}

} // namespace
} // namespace quillet
