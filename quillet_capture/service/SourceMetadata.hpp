#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quillet {

/// One source of the Veldane library as a listing page describes it. Times are seconds since
/// 1970-01-01 00:00 UTC; durations are seconds. Field names are the service's keys.
struct SourceMetadata {
    std::string cache_key;
    std::optional<double> timestamp;
    std::optional<double> created_at;
    std::optional<std::string> llm_title;
    std::optional<std::string> llm_summary;
    std::optional<std::string> status;
    std::optional<std::string> model;
    std::optional<double> duration;
    std::optional<bool> is_deleted;
    std::optional<std::string> original_filename;
};

/// One page of the library listing (GET sources).
struct SourceListResponse {
    std::vector<SourceMetadata> files;  // in the service's order
    std::int64_t count = 0;
    bool has_more = false;
    std::optional<std::string> next_cursor;

    /// Decodes a page; throws DecodeError (service/JsonDecoding.hpp) when `body` is not one.
    static SourceListResponse decode(std::string_view body);
};

/// A listing page read in two steps: what leads to the next page at once, the files after.
/// A listing asks for the next page between the two, so that decoding one page and fetching
/// the next overlap.
class SourceListPage {
public:
    /// Parses `body` and decodes everything but the files; throws DecodeError.
    explicit SourceListPage(std::string_view body);
    SourceListPage(SourceListPage&&) noexcept;
    ~SourceListPage();

    std::int64_t count() const { return count_; }
    bool hasMore() const { return hasMore_; }
    const std::optional<std::string>& nextCursor() const { return nextCursor_; }

    /// The files, in the service's order; throws DecodeError.
    std::vector<SourceMetadata> files() const;

private:
    struct Parsed;
    std::unique_ptr<Parsed> parsed_;
    std::int64_t count_ = 0;
    bool hasMore_ = false;
    std::optional<std::string> nextCursor_;
};

} // namespace quillet
