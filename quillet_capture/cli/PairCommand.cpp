#include "quillet_capture/cli/PairCommand.hpp"

#include "quillet_capture/cli/Commands.hpp"
#include "quillet_capture/cli/Console.hpp"
#include "quillet_capture/config/Keychain.hpp"
#include "quillet_capture/platform/SecretStore.hpp"
#include "quillet_capture/config/Settings.hpp"
#include "quillet_capture/config/Log.hpp"
#include "quillet_capture/platform/Paths.hpp"
#include "quillet_capture/platform/System.hpp"
#include "quillet_capture/runtime/Clock.hpp"
#include "quillet_capture/runtime/MainLoop.hpp"
#include "quillet_capture/runtime/Tasks.hpp"
#include "quillet_capture/service/JsonDecoding.hpp"
#include "quillet_capture/service/VeldaneClient.hpp"
#include "quillet_capture/util/AtomicFile.hpp"
#include "quillet_capture/util/Utf8.hpp"

#include <curl/curl.h>

#include <algorithm>

namespace quillet {

namespace {

// Only this much of the token is ever shown or logged.
constexpr std::size_t kTokenPrefix = 12;
// Bounds for values the service sends, so that the clock arithmetic cannot overflow.
constexpr std::int64_t kLongestWait = 10LL * 365 * 24 * 3600;

std::string deviceName()
{
    std::string host = System::hostName();
    if (host.empty() || host == "?") {
        host = Paths::current() == Platform::macOS ? "Mac" : "computer";
    }
    return host + " (quillet-capture)";
}

// Only web pages are handed to the desktop: the URL comes from the network, and the opener
// would act on a file: or application URL just as readily.
bool openableWebURL(const std::string& text)
{
    CURLU* url = curl_url();
    if (url == nullptr) {
        return false;
    }
    bool ok = false;
    if (curl_url_set(url, CURLUPART_URL, text.c_str(), CURLU_NON_SUPPORT_SCHEME) == CURLUE_OK) {
        char* scheme = nullptr;
        if (curl_url_get(url, CURLUPART_SCHEME, &scheme, 0) == CURLUE_OK && scheme != nullptr) {
            std::string_view s(scheme);
            ok = s == "http" || s == "https";
            curl_free(scheme);
        }
    }
    curl_url_cleanup(url);
    return ok;
}

std::string what(const std::exception_ptr& error)
{
    try {
        std::rethrow_exception(error);
    } catch (const DecodeError& e) {
        return e.localizedDescription();
    } catch (const std::exception& e) {
        return e.what();
    } catch (...) {
        return "unknown error";
    }
}

runtime::Clock::Seconds seconds(std::int64_t value)
{
    return runtime::Clock::Seconds(static_cast<double>(std::clamp<std::int64_t>(value, -kLongestWait, kLongestWait)));
}

// The device-code flow. Ends the process: fail() on every failure, status 0 on success.
asio::awaitable<void> pairFlow(runtime::Clock& clock)
{
    VeldaneClient endpoints(configuredBaseURL(), clock);

    std::string answer;
    try {
        nlohmann::json start = {
            {"client_type", VeldaneClient::clientType},
            {"name", deviceName()},
            {"scopes", nlohmann::json::array({"kb:read", "kb:write"})},
        };
        answer = co_await postJSON(endpoints.endpoint("auth/devices/init"), std::move(start));
    } catch (...) {
        fail("Pairing failed: " + what(std::current_exception()));
    }
    PairInit init;
    try {
        init = PairInit::decode(answer);
    } catch (...) {
        fail("Pairing failed: " + what(std::current_exception()));
    }

    out("Open this page, sign in to Veldane, and approve:");
    out("  " + init.verificationURL);
    out();
    out("Check that the page shows this code:  " + init.userCode);
    out();
    if (openableWebURL(init.verificationURL)) {
        System::openURL(init.verificationURL);
    }
    out("Waiting for approval (expires in " + std::to_string(init.expiresIn / 60) + " min)...");
    std::fflush(stdout);

    auto deadline = clock.now() + std::chrono::duration_cast<runtime::Clock::TimePoint::duration>(seconds(init.expiresIn));
    auto pause = seconds(std::max<std::int64_t>(init.interval, 1));
    PairPoll poll;
    for (;;) {
        if (!(clock.now() < deadline)) {
            fail("Pairing expired. Run pair again.");
        }
        try {
            co_await clock.wait(pause);
        } catch (...) {
            fail("Pairing failed: " + what(std::current_exception()));
        }
        try {
            nlohmann::json pollBody = {{"device_code", init.deviceCode}};
            answer = co_await postJSON(endpoints.endpoint("auth/devices/token"), std::move(pollBody));
            poll = PairPoll::decode(answer);
        } catch (...) {
            fail("Pairing failed: " + what(std::current_exception()));
        }
        if (poll.status == "authorization_pending") {
            continue;
        }
        if (poll.status == "approved") {
            break;
        }
        if (poll.status == "denied") {
            fail("Pairing was denied in the browser.");
        }
        if (poll.status == "expired") {
            fail("Pairing expired. Run pair again.");
        }
        fail("Unexpected pairing status: " + poll.status);
    }

    if (!poll.token || poll.token->empty()) {
        fail("Approved, but Veldane returned no token. Run pair again.");
    }
    auto save = [token = *poll.token] { return Keychain::setDeviceToken(token); };
    bool saved = co_await runtime::blocking(std::move(save));
    if (!saved) {
        fail("Could not save the token to " + SecretStore::place() + ". Run pair again.");
    }
    std::string shown = Utf8::prefix(*poll.token, kTokenPrefix);
    rlog("[quillet] capture-cli: paired (%@)", shown);
    out("Connected. Token " + shown + "... saved to " + SecretStore::place() + ".");
    runtime::exitProcess(0);
}

} // namespace

PairError::PairError(long status, std::string_view body)
    : std::runtime_error("Veldane returned HTTP " + std::to_string(status) + ". " +
                         (Utf8::isValid(body) ? Utf8::prefix(body, 200) : std::string()))
    , code_(status)
{
}

PairInit PairInit::decode(std::string_view body)
{
    auto json = JsonDecoding::parse(body);
    JsonDecoding::Object object(json);
    PairInit init;
    init.deviceCode = object.requiredString("device_code");
    init.userCode = object.requiredString("user_code");
    init.verificationURL = object.requiredString("verification_url");
    init.interval = object.requiredInt("interval");
    init.expiresIn = object.requiredInt("expires_in");
    return init;
}

PairPoll PairPoll::decode(std::string_view body)
{
    auto json = JsonDecoding::parse(body);
    JsonDecoding::Object object(json);
    PairPoll poll;
    poll.status = object.requiredString("status");
    poll.token = object.optionalString("token");
    poll.scopes = object.optionalStringArray("scopes");
    return poll;
}

asio::awaitable<std::string> postJSON(std::string url, nlohmann::json body, double timeoutSeconds)
{
    HttpTransport::Request request;
    request.method = "POST";
    request.url = std::move(url);
    request.headers = {{"Content-Type", "application/json"}};
    request.body = body.dump();
    request.timeout = std::chrono::duration<double>(timeoutSeconds);
    auto answer = co_await VeldaneClient::compatData(std::move(request));
    if (answer.status && (*answer.status < 200 || *answer.status > 299)) {
        throw PairError(*answer.status, answer.body);
    }
    co_return std::move(answer.body);
}

void cmdPair()
{
    runtime::spawn(pairFlow(runtime::systemClock()), "pair");
    runtime::runMainLoop();
}

void requirePairedForUpload()
{
    if (!Settings::shared().captureVeldaneEnabled() || Keychain::hasCredentials()) {
        return;
    }
    if (Paths::current() == Platform::macOS) {
        out("No device token readable here: either this Mac is not paired (run pair first), or the keychain is "
            "locked because this runs over SSH (the agent can still read it).");
    } else if (auto file = Keychain::unreadableTokenFile()) {
        out("No device token readable here: " + file->string() + " cannot be read (run pair again).");
    } else {
        out("No device token readable here: this computer is not paired (run pair first).");
    }
}

} // namespace quillet
