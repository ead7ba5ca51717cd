#include "quillet_capture/pipeline/CaptureStatus.hpp"
#include "quillet_capture/vault/InboxWriter.hpp"

#include "tests/support/Scratch.hpp"

#include <gtest/gtest.h>

namespace quillet {
namespace {

namespace fs = std::filesystem;

void note(const fs::path& inbox, const std::string& id, std::optional<std::string> status,
          std::optional<std::string> title = std::nullopt)
{
    InboxWriter writer(inbox.parent_path());
    auto frontmatter = InboxWriter::Frontmatter::forCapture(id, std::chrono::system_clock::now());
    frontmatter.vdJobStatus = std::move(status);
    frontmatter.title = std::move(title);
    writer.writeStub(frontmatter);
}

TEST(CaptureStatus, CountsNotesByJobStatus)
{
    test::ScratchDir vault;
    auto inbox = vault.path() / "_inbox";
    EXPECT_EQ(CaptureStatus::count(inbox, std::chrono::system_clock::now()), CaptureStatus::Snapshot{});

    note(inbox, "a", std::nullopt);
    note(inbox, "b", "queued");
    note(inbox, "c", "completed");
    note(inbox, "d", "processing");
    note(inbox, "e", "done");
    note(inbox, "f", "upload_failed");
    note(inbox, "g", "poll_timeout");
    note(inbox, "h", "paywalled");
    note(inbox, "i", "failed");
    test::writeFile(inbox / "broken.md", "no frontmatter at all");
    test::writeFile(inbox / "other.txt", "not a note");

    auto snapshot = CaptureStatus::count(inbox, std::chrono::system_clock::now());
    EXPECT_EQ(snapshot.pending, 4); // a, b, c and the broken note
    EXPECT_EQ(snapshot.processing, 1);
    EXPECT_EQ(snapshot.done, 1);
    EXPECT_EQ(snapshot.failed, 4);
    EXPECT_EQ(snapshot.totalToday, 10);
    EXPECT_TRUE(snapshot.mostRecentId.has_value());

    // Notes made before today do not count for today.
    auto tomorrow = std::chrono::system_clock::now() + std::chrono::hours(30);
    EXPECT_EQ(CaptureStatus::count(inbox, tomorrow).totalToday, 0);
}

TEST(CaptureStatus, PublishedValuesChangeThroughThePublisher)
{
    test::ScratchDir vault;
    std::vector<std::function<void()>> pending;
    CaptureStatus status([&] { return vault.path() / "_inbox"; },
                         [&](std::function<void()> change) { pending.push_back(std::move(change)); });
    status.poll(0);
    status.updateAccess(CaptureAccess::State::denied());
    EXPECT_FALSE(status.lastPoll().has_value()) << "nothing changes before the main loop runs it";
    for (auto& change : pending) {
        change();
    }
    EXPECT_TRUE(status.lastPoll().has_value());
    EXPECT_FALSE(status.lastNewCapture().has_value()) << "a poll without captures";
    EXPECT_EQ(status.access(), CaptureAccess::State::denied());
    pending.clear();
    status.poll(2);
    for (auto& change : pending) {
        change();
    }
    EXPECT_TRUE(status.lastNewCapture().has_value());
}

} // namespace
} // namespace quillet
