#pragma once

#include <cstdint>
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

} // namespace quillet
