#include "quillet_capture/service/SourceMetadata.hpp"

#include "quillet_capture/service/JsonDecoding.hpp"

namespace quillet {

namespace {

SourceMetadata decodeItem(const JsonDecoding::Object& item)
{
    SourceMetadata metadata;
    metadata.cache_key = item.requiredString("cache_key");
    metadata.timestamp = item.optionalDouble("timestamp");
    metadata.created_at = item.optionalDouble("created_at");
    metadata.llm_title = item.optionalString("llm_title");
    metadata.llm_summary = item.optionalString("llm_summary");
    metadata.status = item.optionalString("status");
    metadata.model = item.optionalString("model");
    metadata.duration = item.optionalDouble("duration");
    metadata.is_deleted = item.optionalBool("is_deleted");
    metadata.original_filename = item.optionalString("original_filename");
    return metadata;
}

} // namespace

SourceListResponse SourceListResponse::decode(std::string_view body)
{
    JsonDecoding::Document document(body);
    JsonDecoding::Object page(document);
    SourceListResponse response;
    // In the page's order of fields, so that of two bad fields the first one is reported.
    page.forEachObject("files", [&response](const JsonDecoding::Object& item) {
        response.files.push_back(decodeItem(item));
    });
    response.count = page.requiredInt("count");
    response.has_more = page.requiredBool("has_more");
    response.next_cursor = page.optionalString("next_cursor");
    return response;
}

} // namespace quillet
