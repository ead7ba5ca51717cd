#include "tests/service/ServiceTestSupport.hpp"

#include <gmock/gmock.h>

#include <nlohmann/json.hpp>

namespace quillet {
namespace {

using test::FakeVeldane;
using test::await;
using test::awaitError;
using Answer = FakeVeldane::Answer;
using ClientError = VeldaneClient::ClientError;
using nlohmann::json;

struct LibraryListingTest : test::ServiceFixture {
    // A page of `count` items named prefix-0, prefix-1, ...
    static std::string page(const std::string& prefix, int count, std::optional<std::string> next)
    {
        json files = json::array();
        for (int i = 0; i < count; ++i) {
            files.push_back({{"cache_key", prefix + "-" + std::to_string(i)}, {"created_at", 1714555800.5}});
        }
        json body = {{"files", files}, {"count", count}, {"has_more", next.has_value()}};
        if (next) {
            body["next_cursor"] = *next;
        }
        return body.dump();
    }

    // Serves `pages` pages of one item each; page n's cursor is "c<n>".
    void servePages(int pages)
    {
        fake.route("GET", "sources", [pages](const FakeVeldane::Request& request) {
            int n = 1;
            if (auto before = request.queryItem("before")) {
                n = std::stoi(before->substr(1)) + 1;
            }
            std::optional<std::string> next;
            if (n < pages) {
                next = "c" + std::to_string(n);
            }
            return Answer::json(page("p" + std::to_string(n), 1, next));
        });
    }
};

TEST_F(LibraryListingTest, TaskKeyIsPolledEveryFiveSecondsUntilANonEmptyKeyOrTheDeadline)
{
    fake.enqueue("GET", "sources/tasks/t1", Answer::text("busy", 503));
    fake.enqueue("GET", "sources/tasks/t1", Answer::json("not json"));
    fake.enqueue("GET", "sources/tasks/t1", Answer::json(R"({"status":"running"})"));
    // The empty top-level key wins over the nested one, so this answer is not accepted.
    fake.enqueue("GET", "sources/tasks/t1", Answer::json(R"({"cache_key":"","result":{"cache_key":"nested"}})"));
    fake.enqueue("GET", "sources/tasks/t1", Answer::json(R"({"status":"done","result":{"cache_key":"k-42"}})"));
    auto key = await(client.cacheKey("t1", 600));
    EXPECT_EQ(key, "k-42");
    EXPECT_EQ(fake.requests("GET", "sources/tasks/t1").size(), 5u);
    EXPECT_THAT(clock.waits(), ::testing::ElementsAre(5, 5, 5, 5));

    fake.enqueue("GET", "sources/tasks/t2", Answer::json(R"({"cache_key":"top","result":{"cache_key":"nested"}})"));
    EXPECT_EQ(await(client.cacheKey("t2", 600)), "top");

    // At the deadline it gives up without throwing.
    fake.reset();
    EXPECT_EQ(await(client.cacheKey("t", 0)), std::nullopt);
    EXPECT_EQ(fake.requestCount(), 0u);

    fake.route("GET", "sources/tasks/t", [](const FakeVeldane::Request&) { return Answer::json(R"({"status":"pending"})"); });
    // Asked at 0, 5 and 10 seconds; at 15 the deadline of 12 has passed.
    EXPECT_EQ(await(client.cacheKey("t", 12)), std::nullopt);
    EXPECT_EQ(fake.requestCount(), 3u);

    ASSERT_TRUE(Keychain::setDeviceToken(std::nullopt));
    EXPECT_EQ(await(client.cacheKey("t", 7)), std::nullopt);
    EXPECT_EQ(fake.requestCount(), 3u);
}

TEST_F(LibraryListingTest, ListingWalksThePagesInOrderWithTheirQuery)
{
    fake.enqueue("GET", "sources", Answer::json(page("a", 2, "cur+1/=&x")));
    fake.enqueue("GET", "sources", Answer::json(page("b", 1, "cur2")));
    fake.enqueue("GET", "sources", Answer::json(page("c", 1, std::nullopt)));
    auto items = await(client.listAllSources(VeldaneClient::IncludeDeleted::yes));
    std::vector<std::string> keys;
    for (const auto& item : items) {
        keys.push_back(item.cache_key);
    }
    EXPECT_THAT(keys, ::testing::ElementsAre("a-0", "a-1", "b-0", "c-0"));
    EXPECT_EQ(items[0].created_at, 1714555800.5);
    auto requests = fake.requests("GET", "sources");
    ASSERT_EQ(requests.size(), 3u);
    EXPECT_EQ(requests[0].query, "limit=100&include_deleted=true");
    EXPECT_EQ(requests[1].query, "limit=100&include_deleted=true&before=cur%2B1%2F%3D%26x");
    EXPECT_EQ(requests[1].queryItem("before"), "cur+1/=&x");
    EXPECT_EQ(requests[2].query, "limit=100&include_deleted=true&before=cur2");

    // Without deleted items the query says nothing about them; has_more without a cursor ends.
    fake.reset();
    fake.enqueue("GET", "sources", Answer::json(R"({"files":[],"count":0,"has_more":true})"));
    EXPECT_TRUE(await(client.listAllSources(VeldaneClient::IncludeDeleted::no)).empty());
    EXPECT_EQ(fake.requests()[0].query, "limit=100");
}

TEST_F(LibraryListingTest, The200thPageIsAlwaysAnError)
{
    servePages(199);
    EXPECT_EQ(await(client.listAllSources(VeldaneClient::IncludeDeleted::no)).size(), 199u);

    fake.reset();
    servePages(200);
    auto error = awaitError<ClientError>(client.listAllSources(VeldaneClient::IncludeDeleted::no));
    ASSERT_TRUE(error);
    EXPECT_STREQ(error->what(), "VD response malformed: list: pagination exceeded 200 pages");
    EXPECT_EQ(fake.requestCount(), 200u);
}

TEST_F(LibraryListingTest, ListingFailuresAreThrown)
{
    fake.enqueue("GET", "sources", Answer::json(page("a", 1, "c1")));
    fake.enqueue("GET", "sources", Answer::json(R"({"files":[{"status":"done"}],"count":1,"has_more":false})"));
    auto error = awaitError<ClientError>(client.listAllSources(VeldaneClient::IncludeDeleted::no));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->errorDescription(), "VD response malformed: list: The data couldn\u2019t be read because it is missing.");

    fake.enqueue("GET", "sources", Answer::text("nope", 401));
    error = awaitError<ClientError>(client.listAllSources(VeldaneClient::IncludeDeleted::no));
    ASSERT_TRUE(error);
    EXPECT_STREQ(error->what(), "VD request failed (401): nope");

    VeldaneClient broken("http://[::1", clock);
    error = awaitError<ClientError>(broken.listAllSources(VeldaneClient::IncludeDeleted::no));
    ASSERT_TRUE(error);
    EXPECT_STREQ(error->what(), "VD response malformed: list: could not build URL");
}

TEST_F(LibraryListingTest, CurrentKeySkipsUnusableItemsAndFollowsPagesUpToTheLimit)
{
    json first = {{"files",
                   {{{"cache_key", "other"}, {"original_filename", "x.m4a"}},
                    {{"cache_key", "f1"}, {"original_filename", "a.m4a"}, {"status", "FAILED"}},
                    {{"cache_key", "f2"}, {"original_filename", "a.m4a"}, {"status", "Error"}},
                    {{"cache_key", "d1"}, {"original_filename", "a.m4a"}, {"is_deleted", true}},
                    {{"cache_key", ""}, {"original_filename", "a.m4a"}},
                    {{"cache_key", "bad"}, {"original_filename", "a.m4a"}},
                    {{"cache_key", "case"}, {"original_filename", "A.m4a"}},
                    {{"cache_key", "good"}, {"original_filename", "a.m4a"}, {"status", "processing"}, {"is_deleted", false}},
                    {{"cache_key", "later"}, {"original_filename", "a.m4a"}}}},
                  {"count", 9},
                  {"has_more", false}};
    fake.enqueue("GET", "sources", Answer::json(first.dump()));
    EXPECT_EQ(await(client.currentKey("a.m4a", std::string("bad"), 3)), "good");
    EXPECT_EQ(fake.requests()[0].query, "limit=100");

    // Found on the second page; the third is never asked for.
    fake.reset();
    fake.enqueue("GET", "sources", Answer::json(page("x", 3, "n1")));
    fake.enqueue("GET", "sources",
                 Answer::json(R"({"files":[{"cache_key":"hit","original_filename":"z.m4a"}],"count":1,"has_more":true,"next_cursor":"n2"})"));
    EXPECT_EQ(await(client.currentKey("z.m4a", std::nullopt, 5)), "hit");
    ASSERT_EQ(fake.requestCount(), 2u);
    EXPECT_EQ(fake.requests()[1].query, "limit=100&before=n1");

    // maxPages bounds the pages fetched.
    fake.reset();
    servePages(10);
    EXPECT_EQ(await(client.currentKey("z.m4a", std::nullopt, 2)), std::nullopt);
    EXPECT_EQ(fake.requestCount(), 2u);
    fake.reset();
    EXPECT_EQ(await(client.currentKey("z.m4a", std::nullopt, 0)), std::nullopt);
    EXPECT_EQ(fake.requestCount(), 0u);
}

TEST_F(LibraryListingTest, CurrentKeyTurnsEveryFailureIntoNoKey)
{
    fake.enqueue("GET", "sources", Answer::text("down", 500));
    EXPECT_EQ(await(client.currentKey("a.m4a", std::nullopt, 3)), std::nullopt);
    fake.enqueue("GET", "sources", Answer::json(R"({"files":"none"})"));
    EXPECT_EQ(await(client.currentKey("a.m4a", std::nullopt, 3)), std::nullopt);
    ASSERT_TRUE(Keychain::setDeviceToken(std::nullopt));
    EXPECT_EQ(await(client.currentKey("a.m4a", std::nullopt, 3)), std::nullopt);
    EXPECT_EQ(fake.requestCount(), 2u);
}

TEST_F(LibraryListingTest, ANegativePageLimitIsAProgrammingError)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(await(client.currentKey("a.m4a", std::nullopt, -1)), "maxPages must not be negative");
}

} // namespace
} // namespace quillet
