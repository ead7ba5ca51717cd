#include "quillet_capture/service/SourceMetadata.hpp"

#include "quillet_capture/service/JsonDecoding.hpp"

#include <algorithm>

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

struct SourceListPage::Parsed {
    JsonDecoding::Document document;
    JsonDecoding::Object page;

    explicit Parsed(std::string_view body) : document(body), page(document) {}
};

SourceListPage::SourceListPage(std::string_view body) : parsed_(std::make_unique<Parsed>(body))
{
    const auto& page = parsed_->page;
    count_ = page.requiredInt("count");
    hasMore_ = page.requiredBool("has_more");
    nextCursor_ = page.optionalString("next_cursor");
}

SourceListPage::SourceListPage(SourceListPage&&) noexcept = default;
SourceListPage::~SourceListPage() = default;

std::vector<SourceMetadata> SourceListPage::files() const
{
    std::vector<SourceMetadata> files;
    // The page's count of files, within reason, saves growing the list item by item.
    files.reserve(static_cast<std::size_t>(std::clamp<std::int64_t>(count_, 0, 1000)));
    parsed_->page.forEachObject("files", [&files](const JsonDecoding::Object& item) { files.push_back(decodeItem(item)); });
    return files;
}

SourceListResponse SourceListResponse::decode(std::string_view body)
{
    SourceListPage page(body);
    SourceListResponse response;
    response.files = page.files();
    response.count = page.count();
    response.has_more = page.hasMore();
    response.next_cursor = page.nextCursor();
    return response;
}

} // namespace quillet
