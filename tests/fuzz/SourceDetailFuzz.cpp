// Feeds arbitrary bytes to VeldaneClient::SourceDetail::decode as the answer of the source
// endpoint. Properties besides "no crash, no sanitizer report": only DecodeError escapes;
// exactly the answers that conform to the model decode (see ServiceAnswerOracle.hpp), and
// every field holds what the answer holds under its key.
#include "quillet_capture/service/VeldaneClient.hpp"
#include "tests/fuzz/ServiceAnswerOracle.hpp"

#include <cstdint>

using namespace quillet;
using fuzz::check;
using Detail = VeldaneClient::SourceDetail;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    std::string_view body(reinterpret_cast<const char*>(data), size);
    auto document = fuzz::parsed(body);

    fuzz::Oracle oracle;
    Detail expected;
    if (!document) {
        oracle.conforms = false;
    } else if (const auto* object = oracle.object(*document)) {
        expected.success = oracle.boolean(object, "success", true).value_or(false);
        if (const auto* result = oracle.child(object, "result", true)) {
            auto& block = expected.result;
            block.text = oracle.string(result, "text", false);
            block.original_filename = oracle.string(result, "original_filename", false);
            block.language = oracle.string(result, "language", false);
            block.duration = oracle.number(result, "duration", false);
            block.word_count = oracle.integer(result, "word_count", false);
            block.model = oracle.string(result, "model", false);
            block.llm_title = oracle.string(result, "llm_title", false);
            block.llm_summary = oracle.string(result, "llm_summary", false);
            block.status = oracle.string(result, "status", false);
        }
        expected.cache_key = oracle.string(object, "cache_key", true).value_or("");
    }

    auto detail = fuzz::decodeChecked<Detail>(body, document.has_value(), oracle.conforms, Detail::decode);
    if (!detail) {
        return 0;
    }
    check(detail->success == expected.success, "success");
    check(detail->cache_key == expected.cache_key, "cache_key");
    const auto& got = detail->result;
    const auto& want = expected.result;
    check(got.text == want.text, "result.text");
    check(got.original_filename == want.original_filename, "result.original_filename");
    check(got.language == want.language, "result.language");
    check(got.duration == want.duration, "result.duration");
    check(got.word_count == want.word_count, "result.word_count");
    check(got.model == want.model, "result.model");
    check(got.llm_title == want.llm_title, "result.llm_title");
    check(got.llm_summary == want.llm_summary, "result.llm_summary");
    check(got.status == want.status, "result.status");
    return 0;
}
