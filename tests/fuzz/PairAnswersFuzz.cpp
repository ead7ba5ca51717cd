// Feeds arbitrary bytes to the pairing command's answer decoders, PairInit::decode and
// PairPoll::decode, and to PairError as the body of a refused request.
//
// Properties besides "no crash, no sanitizer report":
// - only DecodeError escapes the decoders; exactly the answers that conform to the models
//   decode (see ServiceAnswerOracle.hpp), and every field holds what the answer holds;
// - a refusal's text is "Veldane returned HTTP <status>. " followed by at most the body's
//   first 200 characters when the body is UTF-8, cut between characters, and nothing else.
#include "quillet_capture/cli/PairCommand.hpp"
#include "quillet_capture/util/Utf8.hpp"
#include "tests/fuzz/ServiceAnswerOracle.hpp"

#include <cstdint>

using namespace quillet;
using fuzz::check;

namespace {

void checkInit(std::string_view body, const std::optional<fuzz::json>& document)
{
    fuzz::Oracle oracle;
    PairInit expected;
    if (!document) {
        oracle.conforms = false;
    } else if (const auto* object = oracle.object(*document)) {
        expected.deviceCode = oracle.string(object, "device_code", true).value_or("");
        expected.userCode = oracle.string(object, "user_code", true).value_or("");
        expected.verificationURL = oracle.string(object, "verification_url", true).value_or("");
        expected.interval = oracle.integer(object, "interval", true).value_or(0);
        expected.expiresIn = oracle.integer(object, "expires_in", true).value_or(0);
    }
    auto init = fuzz::decodeChecked<PairInit>(body, document.has_value(), oracle.conforms, PairInit::decode);
    if (!init) {
        return;
    }
    check(init->deviceCode == expected.deviceCode, "device_code");
    check(init->userCode == expected.userCode, "user_code");
    check(init->verificationURL == expected.verificationURL, "verification_url");
    check(init->interval == expected.interval, "interval");
    check(init->expiresIn == expected.expiresIn, "expires_in");
}

void checkPoll(std::string_view body, const std::optional<fuzz::json>& document)
{
    fuzz::Oracle oracle;
    PairPoll expected;
    if (!document) {
        oracle.conforms = false;
    } else if (const auto* object = oracle.object(*document)) {
        expected.status = oracle.string(object, "status", true).value_or("");
        expected.token = oracle.string(object, "token", false);
        expected.scopes = oracle.strings(object, "scopes");
    }
    auto poll = fuzz::decodeChecked<PairPoll>(body, document.has_value(), oracle.conforms, PairPoll::decode);
    if (!poll) {
        return;
    }
    check(poll->status == expected.status, "status");
    check(poll->token == expected.token, "token");
    check(poll->scopes == expected.scopes, "scopes");
}

void checkRefusal(std::string_view body)
{
    bool utf8 = Utf8::isValid(body);
    std::string shown = utf8 ? Utf8::prefix(body, 200) : std::string();
    if (utf8) {
        check(body.starts_with(shown), "what is shown is the body's start");
        check(Utf8::isValid(shown), "the body is cut between characters");
        size_t characters = 0;
        for (unsigned char c : shown) {
            characters += (c & 0xC0) != 0x80;
        }
        check(characters <= 200, "at most 200 characters are shown");
        check(characters == 200 || shown.size() == body.size(), "a shorter body is shown whole");
    }
    for (long status : {400L, 599L}) {
        PairError error(status, body);
        check(error.code() == status, "the code is the status");
        // what() is a C string: a NUL in the body ends the text there.
        std::string expected = "Veldane returned HTTP " + std::to_string(status) + ". " + shown;
        check(std::string_view(error.what()) == std::string_view(expected).substr(0, expected.find('\0')),
              "the text is the status and the body's start, or nothing of a body that is not UTF-8");
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    std::string_view body(reinterpret_cast<const char*>(data), size);
    auto document = fuzz::parsed(body);
    checkInit(body, document);
    checkPoll(body, document);
    checkRefusal(body);
    return 0;
}
