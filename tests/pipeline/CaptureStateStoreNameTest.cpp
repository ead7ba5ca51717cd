#include "quillet_capture/pipeline/CaptureStateStore.hpp"

#include "tests/support/FakeClock.hpp"
#include "tests/support/Scratch.hpp"

#include <gtest/gtest.h>

namespace quillet {
namespace {

// The file keeps a name that is not UTF-8 with U+FFFD for each stray byte. The store looks
// names up in that same form, so a store read back at the next start still knows the file
// (which would otherwise be captured again after every restart).
TEST(CaptureStateStoreNames, ANameThatIsNotUtf8IsStillSeenAfterARestart)
{
    test::ScratchHome home;
    test::FakeClock clock;
    auto file = home.path() / "state.json";
    auto legacy = home.path() / "legacy.json";
    const std::string name = "memo \xff\xfe.m4a";
    {
        CaptureStateStore store(file, legacy, clock);
        store.markSeen(name, "240131-142530", "phone");
        store.markIndexed({{"old \x80.m4a", ""}}, "phone");
        EXPECT_TRUE(store.hasSeen(name, "phone"));
    }
    CaptureStateStore again(file, legacy, clock);
    EXPECT_TRUE(again.hasSeen(name, "phone"));
    EXPECT_TRUE(again.hasSeen("old \x80.m4a", "phone"));
    EXPECT_TRUE(again.holdsCanonicalId("240131-142530"));
    EXPECT_FALSE(again.hasSeen("memo .m4a", "phone"));
    EXPECT_EQ(again.forget({name}, "phone"), 1u);
    EXPECT_FALSE(again.hasSeen(name, "phone"));
    EXPECT_TRUE(again.state().seenByFolder.at("phone").contains("old \xEF\xBF\xBD.m4a"));
}

} // namespace
} // namespace quillet
