// Feeds arbitrary bytes to SourceListResponse::decode as one page of the library listing.
// Properties besides "no crash, no sanitizer report": only DecodeError escapes; exactly the
// pages that conform to the model decode (see ServiceAnswerOracle.hpp); the files keep the
// service's order and every field of every file holds what the page holds under its key.
#include "quillet_capture/service/SourceMetadata.hpp"
#include "tests/fuzz/ServiceAnswerOracle.hpp"

#include <cstdint>

using namespace quillet;
using fuzz::check;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    std::string_view body(reinterpret_cast<const char*>(data), size);
    auto document = fuzz::parsed(body);

    fuzz::Oracle oracle;
    SourceListResponse expected;
    if (!document) {
        oracle.conforms = false;
    } else if (const auto* page = oracle.object(*document)) {
        for (const auto* element : oracle.array(page, "files")) {
            const auto* item = oracle.object(*element);
            SourceMetadata file;
            file.cache_key = oracle.string(item, "cache_key", true).value_or("");
            file.timestamp = oracle.number(item, "timestamp", false);
            file.created_at = oracle.number(item, "created_at", false);
            file.llm_title = oracle.string(item, "llm_title", false);
            file.llm_summary = oracle.string(item, "llm_summary", false);
            file.status = oracle.string(item, "status", false);
            file.model = oracle.string(item, "model", false);
            file.duration = oracle.number(item, "duration", false);
            file.is_deleted = oracle.boolean(item, "is_deleted", false);
            file.original_filename = oracle.string(item, "original_filename", false);
            expected.files.push_back(std::move(file));
        }
        expected.count = oracle.integer(page, "count", true).value_or(0);
        expected.has_more = oracle.boolean(page, "has_more", true).value_or(false);
        expected.next_cursor = oracle.string(page, "next_cursor", false);
    }

    auto response = fuzz::decodeChecked<SourceListResponse>(body, document.has_value(), oracle.conforms,
                                                            SourceListResponse::decode);
    if (!response) {
        return 0;
    }
    check(response->count == expected.count, "count");
    check(response->has_more == expected.has_more, "has_more");
    check(response->next_cursor == expected.next_cursor, "next_cursor");
    check(response->files.size() == expected.files.size(), "every file, none added");
    for (size_t i = 0; i < expected.files.size(); ++i) {
        const auto& got = response->files[i];
        const auto& want = expected.files[i];
        check(got.cache_key == want.cache_key, "cache_key, in the service's order");
        check(got.timestamp == want.timestamp, "timestamp");
        check(got.created_at == want.created_at, "created_at");
        check(got.llm_title == want.llm_title, "llm_title");
        check(got.llm_summary == want.llm_summary, "llm_summary");
        check(got.status == want.status, "status");
        check(got.model == want.model, "model");
        check(got.duration == want.duration, "duration");
        check(got.is_deleted == want.is_deleted, "is_deleted");
        check(got.original_filename == want.original_filename, "original_filename");
    }
    return 0;
}
