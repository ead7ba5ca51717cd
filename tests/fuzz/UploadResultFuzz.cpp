// Feeds arbitrary bytes to VeldaneClient::UploadResult::decode as the answer to an upload.
// Properties besides "no crash, no sanitizer report": only DecodeError escapes; exactly the
// answers that conform to the model decode (see ServiceAnswerOracle.hpp), and every field
// holds what the answer holds under its key.
#include "quillet_capture/service/VeldaneClient.hpp"
#include "tests/fuzz/ServiceAnswerOracle.hpp"

#include <cstdint>

using namespace quillet;
using fuzz::check;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    std::string_view body(reinterpret_cast<const char*>(data), size);
    auto document = fuzz::parsed(body);

    fuzz::Oracle oracle;
    VeldaneClient::UploadResult expected;
    if (!document) {
        oracle.conforms = false;
    } else if (const auto* object = oracle.object(*document)) {
        expected.status = oracle.string(object, "status", true).value_or("");
        expected.task_id = oracle.string(object, "task_id", false);
        expected.cache_key = oracle.string(object, "cache_key", false);
        expected.message = oracle.string(object, "message", false);
        expected.title = oracle.string(object, "title", false);
    }

    auto result = fuzz::decodeChecked<VeldaneClient::UploadResult>(
        body, document.has_value(), oracle.conforms, VeldaneClient::UploadResult::decode);
    if (!result) {
        return 0;
    }
    check(result->status == expected.status, "status");
    check(result->task_id == expected.task_id, "task_id");
    check(result->cache_key == expected.cache_key, "cache_key");
    check(result->message == expected.message, "message");
    check(result->title == expected.title, "title");
    check(result->isDuplicate() == (expected.status == "duplicate_upload"), "isDuplicate");
    return 0;
}
