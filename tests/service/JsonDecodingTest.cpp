#include "quillet_capture/service/JsonDecoding.hpp"
#include "quillet_capture/service/SourceMetadata.hpp"

#include <gtest/gtest.h>

namespace quillet {
namespace {

using Kind = DecodeError::Kind;

// The kind and the debug description of the error that decoding `body` as a listing page throws.
std::pair<Kind, std::string> failure(std::string_view body)
{
    try {
        SourceListResponse::decode(body);
    } catch (const DecodeError& error) {
        return {error.kind(), error.debugDescription()};
    }
    ADD_FAILURE() << "decoded: " << body;
    return {Kind::dataCorrupted, ""};
}

TEST(JsonDecoding, AListingPageDecodesWithItsOptionalsAndTheLastOfARepeatedKey)
{
    auto page = SourceListResponse::decode(R"({
        "files": [
            {"cache_key": "a", "timestamp": 1714555800, "duration": 61.5, "is_deleted": false,
             "llm_title": "Caf\u00e9 \"notes\"", "status": null, "unknown": {"deep": [1, 2]}},
            {"cache_key": "b", "cache_key": "b2"}
        ],
        "count": 2.0, "has_more": true, "next_cursor": "c1"})");
    ASSERT_EQ(page.files.size(), 2u);
    EXPECT_EQ(page.files[0].cache_key, "a");
    EXPECT_EQ(page.files[0].timestamp, 1714555800.0) << "an integer reads as a double";
    EXPECT_EQ(page.files[0].duration, 61.5);
    EXPECT_EQ(page.files[0].is_deleted, false);
    EXPECT_EQ(page.files[0].llm_title, "Caf\u00e9 \"notes\"");
    EXPECT_FALSE(page.files[0].status) << "null is absent";
    EXPECT_FALSE(page.files[0].model);
    EXPECT_EQ(page.files[1].cache_key, "b2") << "a repeated key holds its last value";
    EXPECT_EQ(page.count, 2) << "a whole number written with a fraction is an integer";
    EXPECT_TRUE(page.has_more);
    EXPECT_EQ(page.next_cursor, "c1");
}

TEST(JsonDecoding, EachFailureHasItsKindAndThePathToTheValue)
{
    EXPECT_EQ(failure(R"({"files": [], "has_more": false})"),
              std::make_pair(Kind::keyNotFound,
                             std::string(R"(keyNotFound(codingPath: [], debugDescription: "No value associated with key \"count\"."))")));
    EXPECT_EQ(failure(R"({"files": [{"cache_key": "a"}, {"cache_key": 7}], "count": 1, "has_more": false})"),
              std::make_pair(Kind::typeMismatch,
                             std::string(R"(typeMismatch(codingPath: ["files", Index 1, "cache_key"], debugDescription: "Expected to decode String but found number."))")));
    EXPECT_EQ(failure(R"({"files": [{"cache_key": null}], "count": 1, "has_more": false})").first, Kind::valueNotFound);
    EXPECT_EQ(failure(R"({"files": {}, "count": 1, "has_more": false})").first, Kind::typeMismatch);
    EXPECT_EQ(failure(R"({"files": [], "count": 1.5, "has_more": false})").first, Kind::typeMismatch);
    EXPECT_EQ(failure(R"({"files": [], "count": 9223372036854775808, "has_more": false})").first, Kind::typeMismatch)
        << "one past the largest 64-bit integer";
    EXPECT_EQ(failure(R"({"files": [], "count": 1, "has_more": "yes"})").first, Kind::typeMismatch);
    // Integers longer than 64 bits are JSON (read as doubles), so a wrong type, not corrupted data.
    EXPECT_EQ(failure(R"({"files": [], "count": 55555555555555555555555555, "has_more": false})").first,
              Kind::typeMismatch);
    auto page = SourceListResponse::decode(
        R"({"files": [{"cache_key": "k\"1", "duration": -123456789012345678901234}], "count": 1, )"
        R"("has_more": false})");
    EXPECT_EQ(page.files.at(0).cache_key, "k\"1");
    EXPECT_EQ(page.files.at(0).duration, -123456789012345678901234.0);
    EXPECT_EQ(failure(R"([])").second,
              R"(typeMismatch(codingPath: [], debugDescription: "Expected to decode a dictionary but found array."))");
}

TEST(JsonDecoding, OfSeveralBadFieldsThePageReportsTheFirstInItsOrder)
{
    // files, count, has_more, next_cursor: each case breaks one field and every field after it.
    auto path = [](std::string_view body) {
        std::string description = failure(body).second;
        return description.substr(0, description.find(']') + 1);
    };
    EXPECT_EQ(path(R"({"files": {}})"), R"(typeMismatch(codingPath: ["files"])");
    EXPECT_EQ(path(R"({"files": [{}], "count": "x"})"), R"(keyNotFound(codingPath: ["files", Index 0])");
    EXPECT_EQ(path(R"({"files": [], "count": "x"})"), R"(typeMismatch(codingPath: ["count"])");
    EXPECT_EQ(path(R"({"files": [], "count": 1, "has_more": "x", "next_cursor": 5})"),
              R"(typeMismatch(codingPath: ["has_more"])");
    EXPECT_EQ(path(R"({"files": [], "count": 1, "has_more": true, "next_cursor": 5})"),
              R"(typeMismatch(codingPath: ["next_cursor"])");
    // What a user reads: a malformed list of files is "not in the correct format", even with
    // the count missing as well.
    try {
        SourceListResponse::decode(R"({"files": "none"})");
        ADD_FAILURE() << "decoded";
    } catch (const DecodeError& error) {
        EXPECT_STREQ(error.what(), "The data couldn\u2019t be read because it isn\u2019t in the correct format.");
    }
}

TEST(JsonDecoding, TextThatIsNotJsonIsCorruptedData)
{
    using namespace std::string_view_literals;
    for (std::string_view body : {""sv, "<html>502</html>"sv, R"({"files": [)"sv, R"({"count": 1} trailing)"sv,
                                  // A NUL byte does not end the text (the fuzzer's finds).
                                  "{}\0\0\0"sv, "1\0\0"sv,
                                  "{\"files\": [], \"count\": 1, \"has_more\": false, \"x\": \"\xff\"}"sv}) {
        EXPECT_EQ(failure(body).first, Kind::dataCorrupted) << body;
    }
    try {
        SourceListResponse::decode("nope");
    } catch (const DecodeError& error) {
        EXPECT_STREQ(error.what(), "The data couldn\u2019t be read because it isn\u2019t in the correct format.");
    }
}

} // namespace
} // namespace quillet
