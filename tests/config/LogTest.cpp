#include "quillet_capture/config/Log.hpp"

#include "quillet_capture/platform/Paths.hpp"
#include "tests/capture/TimeZone.hpp"
#include "tests/support/LogLines.hpp"
#include "tests/support/Scratch.hpp"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <thread>

namespace quillet {
namespace {

namespace fs = std::filesystem;

TEST(LogFormat, ConversionsArgumentsAndOddities)
{
    EXPECT_EQ(formatLog("[quillet] capture: %@ -> %@", {"a.m4a", "id"}), "[quillet] capture: a.m4a -> id");
    EXPECT_EQ(formatLog("%d entries", {42}), "42 entries");
    EXPECT_EQ(formatLog("%d", {static_cast<size_t>(7)}), "7");
    EXPECT_EQ(formatLog("%g s", {2.5}), "2.5 s");
    EXPECT_EQ(formatLog("%g s", {30}), "30 s");
    EXPECT_EQ(formatLog("%.0f s", {1.6}), "2 s");
    EXPECT_EQ(formatLog("%.2f", {0.125}), "0.12");
    EXPECT_EQ(formatLog("100%% done", {}), "100% done");
    EXPECT_EQ(formatLog("%ld bytes, %lld", {5, 6}), "5 bytes, 6");
    // A percent sign inside an argument is never read as a format.
    EXPECT_EQ(formatLog("file %@ (%d)", {"100%d %@ %s.m4a", 3}), "file 100%d %@ %s.m4a (3)");
    // Missing arguments and unknown conversions do not crash.
    EXPECT_EQ(formatLog("%@ and %@", {"one"}), "one and (null)");
    EXPECT_EQ(formatLog("50%", {}), "50%");
    EXPECT_EQ(formatLog("%q", {}), "%q");
    EXPECT_EQ(formatLog("%d", {"text"}), "text");
}

using test::TimeZone;

TEST(LogStamp, OffsetWithColonAndZAtUtc)
{
    auto time = std::chrono::system_clock::from_time_t(1710404813); // 2024-03-14T08:26:53Z
    for (auto [zoneName, stamp] : {std::pair{"Europe/Stockholm", "2024-03-14T09:26:53+01:00"},
                                   std::pair{"UTC", "2024-03-14T08:26:53Z"},
                                   std::pair{"America/St_Johns", "2024-03-14T05:56:53-02:30"}}) {
        TimeZone zone(zoneName);
        EXPECT_EQ(QuilletLog::stamp(time), stamp) << zoneName;
    }
}

TEST(LogFile, FirstLineCreatesTheFolderAndTheFile)
{
    test::ScratchHome home;
    ASSERT_FALSE(fs::exists(Paths::logFolder()));
    rlog("[quillet] capture: first %@", "line");
    QuilletLog::drain();
    auto lines = test::readLines(Paths::logFile());
    ASSERT_EQ(lines.size(), 1u);
    auto blank = lines[0].find(' ');
    ASSERT_NE(blank, std::string::npos);
    EXPECT_EQ(lines[0].substr(blank + 1), "[quillet] capture: first line");
    EXPECT_EQ(QuilletLog::fileURL(), Paths::logFile());
}

// Every line is one line: a name cannot start a line of its own, and a service's error page
// of megabytes takes about 2 KB of the log, saying how much was left out.
TEST(LogFile, EachMessageIsOneLineAndLongTextsAreCut)
{
    test::ScratchHome home;
    rlog("[quillet] capture: new file -- %@", "memo\n2024-01-01T00:00:00Z [quillet] capture-cli: forged.m4a");
    rlog("[quillet] capture pipeline: status poll error for %@: %@", "240101-000000",
         "HTTP 502: " + std::string(2'800'000, 'x'));
    QuilletLog::drain();
    auto lines = test::readLines(Paths::logFile());
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_TRUE(lines[0].ends_with("[quillet] capture: new file -- memo\\n2024-01-01T00:00:00Z [quillet] "
                                   "capture-cli: forged.m4a"))
        << lines[0];
    EXPECT_LT(lines[1].size(), 2200u);
    EXPECT_TRUE(lines[1].ends_with("x... (" + std::to_string(2'800'000 + 10 - 2048) + " more bytes)")) << lines[1];
}

TEST(LogFile, LinesFromManyThreadsAreWholeAndInOrderPerThread)
{
    test::ScratchHome home;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([t] {
            for (int i = 0; i < 50; ++i) {
                rlog("[quillet] test: thread %d line %d", t, i);
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    QuilletLog::drain();
    auto lines = test::readLines(Paths::logFile());
    ASSERT_EQ(lines.size(), 200u);
    std::vector<int> next(4, 0);
    for (const auto& line : lines) {
        int t = -1;
        int i = -1;
        ASSERT_EQ(std::sscanf(line.substr(line.find(' ') + 1).c_str(), "[quillet] test: thread %d line %d", &t, &i), 2)
            << line;
        EXPECT_EQ(i, next[t]++);
    }
}

TEST(LogFile, RotatesOnlyAboveFiveMillionBytesAndIgnoresAnUnwritableFolder)
{
    test::ScratchDir dir;
    auto file = dir.path() / "quillet.log";
    auto rotated = dir.path() / "quillet.1.log";

    test::writeFile(file, std::string(5'000'000, 'x'));
    QuilletLog::append(file, "next\n");
    EXPECT_FALSE(fs::exists(rotated));
    EXPECT_EQ(fs::file_size(file), 5'000'005u);

    // Now above the limit: the old generation is replaced and the line starts a fresh file.
    test::writeFile(rotated, "older generation\n");
    QuilletLog::append(file, "fresh\n");
    EXPECT_EQ(test::readFile(file), "fresh\n");
    EXPECT_EQ(fs::file_size(rotated), 5'000'005u);

    // One byte above is above.
    test::writeFile(file, std::string(5'000'001, 'x'));
    QuilletLog::append(file, "fresh\n");
    EXPECT_EQ(test::readFile(file), "fresh\n");
    EXPECT_EQ(fs::file_size(rotated), 5'000'001u);

    test::writeFile(dir.path() / "blocker", "a file where the folder should be");
    EXPECT_NO_THROW(QuilletLog::append(dir.path() / "blocker" / "quillet.log", "lost\n"));
}

TEST(EnvironmentCheck, NotifiesOncePerIdUntilCleared)
{
    test::ScratchHome home;
    EnvironmentCheck::notifyOnce("folder-denied", "Voice Memos", "grant access");
    EnvironmentCheck::notifyOnce("folder-denied", "Voice Memos", "grant access");
    EnvironmentCheck::notifyOnce("other", "Other", "body");
    EnvironmentCheck::clearNotifyOnce("folder-denied");
    EnvironmentCheck::notifyOnce("folder-denied", "Voice Memos", "again");
    EnvironmentCheck::clearNotifyOnce("folder-denied");
    EnvironmentCheck::clearNotifyOnce("other");
    EXPECT_EQ(test::logMessages(), (std::vector<std::string>{
                            "[quillet] attention: Voice Memos -- grant access",
                            "[quillet] attention: Other -- body",
                            "[quillet] attention: Voice Memos -- again",
                        }));
}

} // namespace
} // namespace quillet
