#include "quillet_capture/cli/Commands.hpp"
#include "quillet_capture/config/Keychain.hpp"
#include "quillet_capture/platform/Paths.hpp"

#include "tests/support/FakeVeldane.hpp"
#include "tests/support/Scratch.hpp"
#include "tests/support/SettingsFile.hpp"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>

namespace quillet {
namespace {

namespace fs = std::filesystem;
using test::FakeVeldane;
using Answer = FakeVeldane::Answer;
using nlohmann::json;

constexpr const char* kToken = "tok_abcdefghijklmnopqrstuvwxyz";

// `pair` run as a user would: the built program, a scratch home whose settings point at the
// fake service, the token store in the credentials file, and a URL opener that only notes
// what it was asked to open.
struct PairTest : ::testing::Test {
    test::ScratchHome home;
    FakeVeldane fake;
    fs::path opener = home.path() / "open-url";
    fs::path opened = home.path() / "opened.txt";
    double seconds = 0;

    PairTest()
    {
        test::writeSettings([&](AppSettings& s) { s.veldaneBaseURL = fake.baseURL(); });
        test::writeFile(opener, "#!/bin/sh\nprintf '%s\\n' \"$1\" >> '" + opened.string() + "'\n");
        fs::permissions(opener, fs::perms::owner_all);
    }

    test::ProcessResult pair(std::map<std::string, std::optional<std::string>> environment = {})
    {
        environment.emplace("QUILLET_TOKEN_STORE", "file");
        environment.emplace("QUILLET_URL_OPENER", opener.string());
        auto started = std::chrono::steady_clock::now();
        auto result = test::runProcess(test::programPath(), {"pair"}, environment, 60);
        seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
        return result;
    }

    void start(std::int64_t interval, std::int64_t expiresIn, const std::string& url = "https://veldane.test/device")
    {
        json body = {{"device_code", "dev-code-1"},
                     {"user_code", "WDJB-MJHT"},
                     {"verification_url", url},
                     {"interval", interval},
                     {"expires_in", expiresIn}};
        fake.enqueue("POST", "auth/devices/init", Answer::json(body.dump()));
    }

    void poll(const std::string& body, int status = 200)
    {
        fake.enqueue("POST", "auth/devices/token", Answer::json(body, status));
    }

    std::size_t polls() const { return fake.requests("POST", "auth/devices/token").size(); }

    // The token as stored, read the way the program reads it.
    std::optional<std::string> stored()
    {
        setenv("QUILLET_TOKEN_STORE", "file", 1);
        return Keychain::deviceToken();
    }

    static std::string intro(const std::string& url, const std::string& minutes)
    {
        return "Open this page, sign in to Veldane, and approve:\n  " + url +
               "\n\nCheck that the page shows this code:  WDJB-MJHT\n\nWaiting for approval (expires in " + minutes +
               " min)...\n";
    }
};

TEST_F(PairTest, ApprovalStoresTheTokenAndShowsOnlyItsStart)
{
    start(0, 900);
    poll(R"({"status":"authorization_pending"})");
    poll(json{{"status", "approved"}, {"token", kToken}, {"scopes", {"kb:read", "kb:write"}}}.dump());
    auto result = pair();
    EXPECT_EQ(result.status, 0) << result.errors;
    EXPECT_EQ(result.output, intro("https://veldane.test/device", "15") +
                                 "Connected. Token tok_abcdefgh... saved to " + Paths::credentialsFile().string() + ".\n");
    EXPECT_EQ(stored(), kToken);
    // An interval of 0 waits one second before each poll.
    EXPECT_EQ(polls(), 2u);
    EXPECT_GE(seconds, 2.0);
    EXPECT_LT(seconds, 10.0);

    auto log = test::readFile(Paths::logFile());
    EXPECT_NE(log.find("[quillet] capture-cli: paired (tok_abcdefgh)\n"), std::string::npos) << log;
    EXPECT_EQ(log.find(kToken), std::string::npos);
    EXPECT_EQ(result.errors.find(kToken), std::string::npos);
    EXPECT_TRUE(test::eventually([&] { return test::readFile(opened) == "https://veldane.test/device\n"; }));

    auto init = fake.requests("POST", "auth/devices/init");
    ASSERT_EQ(init.size(), 1u);
    EXPECT_EQ(init[0].header("Content-Type"), "application/json");
    for (const char* absent : {"Authorization", "X-Client-Type", "X-Client-Version", "X-Client-Platform"}) {
        EXPECT_FALSE(init[0].header(absent)) << absent;
    }
    auto body = json::parse(init[0].body);
    EXPECT_EQ(body["client_type"], "quillet-mac");
    EXPECT_EQ(body["scopes"], json({"kb:read", "kb:write"}));
    EXPECT_TRUE(body["name"].get<std::string>().ends_with(" (quillet-capture)")) << body;
    EXPECT_EQ(body.size(), 3u);
    for (const auto& request : fake.requests("POST", "auth/devices/token")) {
        EXPECT_EQ(json::parse(request.body), json({{"device_code", "dev-code-1"}}));
        EXPECT_FALSE(request.header("Authorization"));
    }
}

TEST_F(PairTest, EveryRefusalEndsWithItsMessageAndStoresNothing)
{
    struct Case {
        std::string answer;
        int status;
        std::string message;
    };
    std::string longBody = "{\"error\":\"invalid_grant\",\"detail\":\"" + std::string(300, 'd') + "\"}";
    const std::vector<Case> cases = {
        {R"({"status":"denied"})", 200, "Pairing was denied in the browser."},
        {R"({"status":"expired"})", 200, "Pairing expired. Run pair again."},
        {R"({"status":"slow_down"})", 200, "Unexpected pairing status: slow_down"},
        {R"({"status":"Approved","token":"x"})", 200, "Unexpected pairing status: Approved"},
        {R"({"status":"approved","token":""})", 200, "Approved, but Veldane returned no token. Run pair again."},
        {R"({"status":"approved"})", 200, "Approved, but Veldane returned no token. Run pair again."},
        {longBody, 400, "Pairing failed: Veldane returned HTTP 400. " + longBody.substr(0, 200)},
        {"\xFF\xFE", 503, "Pairing failed: Veldane returned HTTP 503. "},
        {R"({"token":"x"})", 200, "Pairing failed: The data couldn\u2019t be read because it is missing."},
        {R"({"status":"approved","token":7})", 200,
         "Pairing failed: The data couldn\u2019t be read because it isn\u2019t in the correct format."},
    };
    ASSERT_TRUE((setenv("QUILLET_TOKEN_STORE", "file", 1), Keychain::setDeviceToken(std::string("earlier-token"))));
    for (const auto& c : cases) {
        fake.reset();
        start(0, 59);
        poll(c.answer, c.status);
        auto result = pair();
        EXPECT_EQ(result.status, 1) << c.message;
        EXPECT_EQ(result.errors, c.message + "\n");
        EXPECT_EQ(result.output, intro("https://veldane.test/device", "0")) << c.message;
        EXPECT_EQ(polls(), 1u) << "no poll is retried: " << c.message;
        EXPECT_EQ(stored(), "earlier-token") << c.message;
    }
}

TEST_F(PairTest, TheDeadlineIsCheckedBeforeEverySleep)
{
    start(5, 0);
    auto result = pair();
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.errors, "Pairing expired. Run pair again.\n");
    EXPECT_EQ(polls(), 0u);
    EXPECT_LT(seconds, 5.0);

    fake.reset();
    start(1, 1);
    poll(R"({"status":"authorization_pending"})");
    result = pair();
    EXPECT_EQ(result.errors, "Pairing expired. Run pair again.\n");
    EXPECT_EQ(polls(), 1u);
}

TEST_F(PairTest, TheStartCanFailInEveryWayAndOnlyWebPagesAreOpened)
{
    Answer cut = Answer::json(R"({"device_code":"d"})");
    cut.cut = FakeVeldane::Cut::midBody;
    // An empty text: any one-line failure in the transport's own words.
    const std::vector<std::pair<Answer, std::string>> cases = {
        {Answer::text("oops", 500), "Pairing failed: Veldane returned HTTP 500. oops\n"},
        {Answer::json(R"({"device_code":"d","user_code":"u","verification_url":"v","interval":5})"),
         "Pairing failed: The data couldn\u2019t be read because it is missing.\n"},
        {Answer::json(R"({"device_code":"d","user_code":"u","verification_url":"v","interval":"5","expires_in":9})"),
         "Pairing failed: The data couldn\u2019t be read because it isn\u2019t in the correct format.\n"},
        {cut, ""},
    };
    for (const auto& [answer, errors] : cases) {
        fake.enqueue("POST", "auth/devices/init", answer);
        auto result = pair();
        EXPECT_EQ(result.status, 1) << errors;
        EXPECT_EQ(result.output, "");
        if (errors.empty()) {
            EXPECT_TRUE(result.errors.starts_with("Pairing failed: ")) << result.errors;
        } else {
            EXPECT_EQ(result.errors, errors);
        }
    }

    for (const char* url : {"file:///etc/passwd", "-not a url"}) {
        start(0, 600, url);
        poll(R"({"status":"denied"})");
        EXPECT_EQ(pair().output, intro(url, "10"));
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_FALSE(fs::exists(opened));

    test::writeSettings([](AppSettings& s) { s.veldaneBaseURL = "http://127.0.0.1:1/api/v1"; });
    auto result = pair();
    EXPECT_EQ(result.status, 1);
    EXPECT_TRUE(result.errors.starts_with("Pairing failed: ")) << result.errors;
    EXPECT_EQ(result.errors.find('\n'), result.errors.size() - 1) << "one line: " << result.errors;
}

TEST_F(PairTest, WhereTheTokenIsSaved)
{
    fs::create_directories(Paths::credentialsFile());  // a folder where the file should go
    start(0, 600);
    poll(json{{"status", "approved"}, {"token", kToken}}.dump());
    auto result = pair();
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.errors, "Could not save the token to " + Paths::credentialsFile().string() + ". Run pair again.\n");
    EXPECT_EQ(test::readFile(Paths::logFile()).find("paired"), std::string::npos);
    fs::remove(Paths::credentialsFile());

    // A session bus that accepts connections and then says nothing: the file is used instead.
    // (macOS keeps the token in the login Keychain: KeychainLive.)
    if (Paths::current() != Platform::linux) {
        return;
    }
    fs::path socketPath = home.path() / "silent-bus";
    int listener = ::socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::snprintf(address.sun_path, sizeof address.sun_path, "%s", socketPath.c_str());
    ASSERT_EQ(::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(::listen(listener, 16), 0);

    start(0, 600);
    poll(json{{"status", "approved"}, {"token", kToken}}.dump());
    result = pair({{"QUILLET_TOKEN_STORE", std::nullopt},
                   {"DBUS_SESSION_BUS_ADDRESS", "unix:path=" + socketPath.string()}});
    ::close(listener);
    EXPECT_EQ(result.status, 0) << result.errors;
    EXPECT_LT(seconds, 15.0);
    EXPECT_EQ(stored(), kToken);
    struct stat info {};
    ASSERT_EQ(::stat(Paths::credentialsFile().c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0600u);
}

TEST(RequirePairedForUpload, WarnsOnlyWhenUploadingIsOnAndNoTokenReads)
{
    test::ScratchHome home;
    setenv("QUILLET_TOKEN_STORE", "file", 1);
    // On Linux there is no Keychain that SSH would lock.
    const bool mac = Paths::current() == Platform::macOS;
    const std::string warning =
        mac ? "No device token readable here: either this Mac is not paired (run pair first), or the keychain is "
              "locked because this runs over SSH (the agent can still read it).\n"
            : "No device token readable here: this computer is not paired (run pair first).\n";
    auto printed = [] {
        ::testing::internal::CaptureStdout();
        requirePairedForUpload();
        return ::testing::internal::GetCapturedStdout();
    };
    EXPECT_EQ(printed(), "");
    test::writeSettings([](AppSettings& s) { s.captureVeldaneEnabled = true; });
    EXPECT_EQ(printed(), warning);
    ASSERT_TRUE(Keychain::setDeviceToken(std::string("t")));
    EXPECT_EQ(printed(), "");
    test::writeSettings([](AppSettings& s) { s.captureVeldaneEnabled = false; });
    ASSERT_TRUE(Keychain::setDeviceToken(std::nullopt));
    EXPECT_EQ(printed(), "");

    // A token file that cannot be read is named, so that the user knows what pair replaces.
    test::writeSettings([](AppSettings& s) { s.captureVeldaneEnabled = true; });
    test::writeFile(Paths::credentialsFile(), "{\"se.Brannick.quillet.mac\": {\"vd_dev");
    EXPECT_EQ(printed(), mac ? warning
                             : "No device token readable here: " + Paths::credentialsFile().string() +
                                   " cannot be read (run pair again).\n");
}

} // namespace
} // namespace quillet
