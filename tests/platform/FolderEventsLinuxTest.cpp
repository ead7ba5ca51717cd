#include "quillet_capture/platform/FolderEventsLinux.hpp"

#include <gtest/gtest.h>

#include <sys/inotify.h>

#include <cstring>
#include <string>

namespace quillet::inotify {
namespace {

// Records laid out as read(2) hands them over: the fixed part, then the name padded with
// zeros to a multiple of 16 bytes.
struct Records {
    std::vector<std::byte> bytes;

    Records& add(int wd, uint32_t mask, const std::string& name = {})
    {
        inotify_event record{};
        record.wd = wd;
        record.mask = mask;
        record.len = name.empty() ? 0 : static_cast<uint32_t>((name.size() + 1 + 15) / 16 * 16);
        const size_t at = bytes.size();
        bytes.resize(at + sizeof record + record.len);
        std::memcpy(bytes.data() + at, &record, sizeof record);
        std::memcpy(bytes.data() + at + sizeof record, name.data(), name.size());
        return *this;
    }
};

TEST(FolderEventsInotify, EntryChangesWakeAndEndedWatchesAreForgottenOnce)
{
    Records records;
    records.add(1, IN_CREATE, "Recording 2024-05-01 at 09.41.17.m4a")
        .add(1, IN_CLOSE_WRITE, "Recording 2024-05-01 at 09.41.17.m4a")
        .add(3, IN_DELETE_SELF)
        .add(3, IN_IGNORED)
        .add(4, IN_MOVE_SELF)
        .add(5, IN_UNMOUNT)
        .add(5, IN_IGNORED)
        .add(6, IN_CREATE | IN_ISDIR, "x");
    auto batch = decode(records.bytes);
    EXPECT_TRUE(batch.changed);
    EXPECT_EQ(batch.gone, (std::vector<int>{3, 4, 5}));
}

TEST(FolderEventsInotify, AnOverflowWakesAndEndsNoWatch)
{
    auto batch = decode(Records().add(-1, IN_Q_OVERFLOW).bytes);
    EXPECT_TRUE(batch.changed) << "the kernel dropped events: the owner must look at everything";
    EXPECT_TRUE(batch.gone.empty());

    batch = decode(Records().add(2, IN_ATTRIB, "a.m4a").add(-1, IN_Q_OVERFLOW).bytes);
    EXPECT_TRUE(batch.changed);
    EXPECT_TRUE(batch.gone.empty());
}

TEST(FolderEventsInotify, AWatchRemovedByItsOwnerEndsWithoutAWake)
{
    // inotify_rm_watch of a folder dropped from the list brings an IN_IGNORED, and nothing
    // happened in any folder that is still watched.
    auto batch = decode(Records().add(7, IN_IGNORED).add(8, IN_IGNORED).bytes);
    EXPECT_FALSE(batch.changed);
    EXPECT_EQ(batch.gone, (std::vector<int>{7, 8}));
}

TEST(FolderEventsInotify, ADatabaseIndexClosedAfterReadingWakesNothing)
{
    // What a read of the Voice Memos library leaves: its "-shm" closed after writing.
    auto batch = decode(Records().add(2, IN_CLOSE_WRITE, "CloudRecordings.db-shm").bytes);
    EXPECT_FALSE(batch.changed);
    // Made, deleted or another file closed: changes.
    EXPECT_TRUE(decode(Records().add(2, IN_CREATE, "CloudRecordings.db-shm").bytes).changed);
    EXPECT_TRUE(decode(Records().add(2, IN_CLOSE_WRITE, "20250314 092600.qta").bytes).changed);
    EXPECT_TRUE(decode(Records().add(2, IN_CLOSE_WRITE, "CloudRecordings.db-shm")
                           .add(2, IN_CLOSE_WRITE, "CloudRecordings.db-wal")
                           .bytes)
                    .changed);
}

TEST(FolderEventsInotify, ARecordCutOffIsIgnored)
{
    Records records;
    records.add(1, IN_IGNORED).add(2, IN_CREATE, "a-long-name-that-takes-two-blocks.m4a");
    // Cut in the middle of the name, then in the middle of the fixed part.
    auto cut = records.bytes;
    cut.resize(cut.size() - 20);
    auto batch = decode(cut);
    EXPECT_FALSE(batch.changed);
    EXPECT_EQ(batch.gone, std::vector<int>{1});

    cut.resize(sizeof(inotify_event) + 4);
    batch = decode(cut);
    EXPECT_FALSE(batch.changed);
    EXPECT_EQ(batch.gone, std::vector<int>{1});

    EXPECT_FALSE(decode({}).changed);
}

} // namespace
} // namespace quillet::inotify
