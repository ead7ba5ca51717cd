#include "quillet_capture/capture/CollisionResolver.hpp"

#include "tests/support/LogLines.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <regex>
#include <set>
#include <string>
#include <vector>

namespace quillet {
namespace {

// A predicate that records every name it is asked about.
struct Asked {
    std::set<std::string> taken;
    std::vector<std::string> names;

    std::function<bool(const std::string&)> predicate()
    {
        return [this](const std::string& name) {
            names.push_back(name);
            return !taken.contains(name);
        };
    }
};

TEST(CollisionResolver, AFreeBaseIsKeptAndTheFirstFreeSuffixFromTwoToNineHundredNinetyNineWins)
{
    Asked free;
    EXPECT_EQ(CollisionResolver::resolve("240131-142530", free.predicate()), "240131-142530");
    EXPECT_EQ(free.names, std::vector<std::string>{"240131-142530"});

    Asked twoTaken;
    twoTaken.taken = {"240131-142530", "240131-142530_2"};
    EXPECT_EQ(CollisionResolver::resolve("240131-142530", twoTaken.predicate()), "240131-142530_3");
    EXPECT_EQ(twoTaken.names, (std::vector<std::string>{"240131-142530", "240131-142530_2", "240131-142530_3"}));

    Asked onlyLast;
    for (int n = 1; n <= 998; ++n) {
        onlyLast.taken.insert(n == 1 ? "id" : "id_" + std::to_string(n));
    }
    EXPECT_EQ(CollisionResolver::resolve("id", onlyLast.predicate()), "id_999");
    ASSERT_EQ(onlyLast.names.size(), 999u);
    EXPECT_EQ(std::count(onlyLast.names.begin(), onlyLast.names.end(), "id_1"), 0);
}

TEST(CollisionResolver, WhenNothingIsFreeFallsBackToAUuidPrefixAndLogsOnce)
{
    test::ScratchHome home;
    int calls = 0;
    auto never = [&calls](const std::string&) {
        ++calls;
        return false;
    };
    std::string first = CollisionResolver::resolve("240131-142530", never);
    EXPECT_EQ(calls, 999);
    EXPECT_TRUE(std::regex_match(first, std::regex("240131-142530_[0-9A-F]{8}"))) << first;

    std::string second = CollisionResolver::resolve("240131-142530", never);
    EXPECT_NE(first, second);

    EXPECT_EQ(test::countLogLines("[quillet] capture: collision resolver hit 1000 attempts on 240131-142530, fallback=" + first), 1);
    EXPECT_EQ(test::countLogLines("collision resolver hit"), 2);
}

} // namespace
} // namespace quillet
