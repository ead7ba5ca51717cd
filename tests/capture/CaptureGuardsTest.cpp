#include "quillet_capture/capture/CaptureGuards.hpp"

#include "tests/support/FakeClock.hpp"
#include "tests/support/Scratch.hpp"
#include "tests/support/WavBytes.hpp"

#include <gtest/gtest.h>

#include <map>

#include <fcntl.h>
#include <sys/stat.h>

#include <cmath>
#include <cstdint>
#include <deque>
#include <filesystem>
#include <fstream>
#include <limits>
#include <ostream>
#include <set>

namespace quillet::CaptureGuards {

void PrintTo(const Verdict& verdict, std::ostream* out)
{
    static const char* const kinds[] = {"defer", "skip", "proceed"};
    *out << kinds[static_cast<int>(verdict.kind)] << "(" << verdict.reason << ")";
}

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

// A file whose probes are scripted: the sizes are handed out in order (the last one repeats),
// and every probe call is counted.
struct ScriptedFile {
    std::deque<std::optional<std::int64_t>> sizes{1000};
    std::set<fs::path> existing;
    std::optional<TimePoint> modified;
    std::optional<double> duration = 60.0;
    std::vector<fs::path> existsAsked;
    int sizeCalls = 0;
    int durationCalls = 0;

    Probes probes()
    {
        Probes probes;
        probes.fileExists = [this](const fs::path& file) {
            existsAsked.push_back(file);
            return existing.contains(file);
        };
        probes.size = [this](const fs::path&) {
            ++sizeCalls;
            auto size = sizes.front();
            if (sizes.size() > 1) {
                sizes.pop_front();
            }
            return size;
        };
        probes.modified = [this](const fs::path&) { return modified; };
        probes.duration = [this](const fs::path&) {
            ++durationCalls;
            return duration;
        };
        return probes;
    }
};

struct Guards {
    test::FakeClock clock;
    TimePoint now = clock.now();
    ScriptedFile file;

    Verdict evaluate(const fs::path& path) { return CaptureGuards::evaluate(path, now, file.probes(), clock); }
    Verdict evaluate(const fs::path& path, Probes probes) { return CaptureGuards::evaluate(path, now, probes, clock); }
};

const fs::path kRecording = "/vm/20240131 142530.m4a";
const fs::path kTemporary = "/vm/20240131 142530.qta";
const fs::path kTwin = "/vm/20240131 142530.m4a";

TEST(CaptureGuards, SizeChecksComeBeforeEverythingElse)
{
    Guards unreadable;
    unreadable.file.sizes = {std::nullopt};
    EXPECT_EQ(unreadable.evaluate("/vm/not a recording name.txt"), Verdict::defer("cannot stat file"));
    EXPECT_EQ(unreadable.file.durationCalls, 0);
    EXPECT_TRUE(unreadable.clock.waits().empty());

    Guards empty;
    empty.file.sizes = {0};
    EXPECT_EQ(empty.evaluate(kRecording), Verdict::defer("0-byte file, sync in flight"));

    // An empty .qta with its finished twin is still deferred for being empty, not skipped.
    Guards emptyWithTwin;
    emptyWithTwin.file.sizes = {0};
    emptyWithTwin.file.existing = {kTwin};
    EXPECT_EQ(emptyWithTwin.evaluate(kTemporary), Verdict::defer("0-byte file, sync in flight"));
    EXPECT_TRUE(emptyWithTwin.file.existsAsked.empty());
}

TEST(CaptureGuards, AQtaWithItsTwinIsSkippedWhateverTheCaseOfItsExtension)
{
    Guards guards;
    guards.file.existing = {kTwin};
    EXPECT_EQ(guards.evaluate(kTemporary), Verdict::skip("20240131 142530.m4a is the canonical twin"));
    EXPECT_EQ(guards.evaluate("/vm/20240131 142530.QTA"), Verdict::skip("20240131 142530.m4a is the canonical twin"));
    EXPECT_EQ(guards.evaluate("/vm/20240131 142530.Qta"), Verdict::skip("20240131 142530.m4a is the canonical twin"));
    EXPECT_EQ(guards.file.existsAsked, (std::vector<fs::path>{kTwin, kTwin, kTwin}));
    EXPECT_TRUE(guards.clock.waits().empty());
}

TEST(CaptureGuards, AYoungQtaIsDeferredWithItsAgeInWholeSeconds)
{
    Guards young;
    young.file.modified = young.now - std::chrono::duration_cast<std::chrono::system_clock::duration>(599.6s);
    EXPECT_EQ(young.evaluate(kTemporary), Verdict::defer("young .qta (600s < 600s), may still be recording"));
    young.file.modified = young.now - 3s;
    EXPECT_EQ(young.evaluate(kTemporary), Verdict::defer("young .qta (3s < 600s), may still be recording"));
    EXPECT_TRUE(young.clock.waits().empty());

    // Old enough, or of unknown age: it goes on to the later checks.
    Guards old;
    old.file.modified = old.now - 600s;
    EXPECT_EQ(old.evaluate(kTemporary), Verdict::proceed());
    Guards unknownAge;
    EXPECT_EQ(unknownAge.evaluate(kTemporary), Verdict::proceed());

    // Only .qta files have an age limit.
    Guards freshRecording;
    freshRecording.file.modified = freshRecording.now - 1s;
    EXPECT_EQ(freshRecording.evaluate(kRecording), Verdict::proceed());
    EXPECT_TRUE(freshRecording.file.existsAsked.empty());
}

TEST(CaptureGuards, SizeIsSampledEveryTwoSecondsUntilTwoSamplesAgree)
{
    Guards settled;
    EXPECT_EQ(settled.evaluate(kRecording), Verdict::proceed());
    EXPECT_EQ(settled.clock.waits(), std::vector<double>{2.0});
    EXPECT_EQ(settled.file.sizeCalls, 2);

    Guards settlesLate;
    settlesLate.file.sizes = {100, 200, 300, 300};
    EXPECT_EQ(settlesLate.evaluate(kRecording), Verdict::proceed());
    EXPECT_EQ(settlesLate.clock.waits(), (std::vector<double>{2.0, 2.0, 2.0}));

    Guards growing;
    growing.file.sizes = {100, 200, 300, 400, 500, 600, 600};
    EXPECT_EQ(growing.evaluate(kRecording), Verdict::defer("size still changing"));
    EXPECT_EQ(growing.clock.waits(), std::vector<double>(5, 2.0));
    EXPECT_EQ(growing.file.durationCalls, 0);

    Guards vanishing;
    vanishing.file.sizes = {100, 200, 300, std::nullopt, 300};
    EXPECT_EQ(vanishing.evaluate(kRecording), Verdict::defer("size still changing"));
    EXPECT_EQ(vanishing.clock.waits().size(), 3u);
}

// Thirty recordings arriving together (a phone syncing a day of memos) share one stability
// wait; each keeps the verdict it would get alone, in the order given.
TEST(CaptureGuards, ABurstOfFilesSharesOneStabilityWait)
{
    test::FakeClock clock;
    std::vector<fs::path> files;
    std::map<fs::path, std::vector<std::optional<std::int64_t>>> sizes;
    for (int index = 0; index < 30; ++index) {
        files.push_back("/vm/20240131 1425" + std::to_string(10 + index) + ".m4a");
        sizes[files.back()] = {1000 + index};
    }
    Probes probes;
    probes.size = [&](const fs::path& file) {
        auto& script = sizes.at(file);
        auto size = script.front();
        if (script.size() > 1) {
            script.erase(script.begin());
        }
        return size;
    };
    probes.fileExists = [](const fs::path&) { return false; };
    probes.modified = [&](const fs::path&) { return std::optional(clock.now()); };
    probes.duration = [](const fs::path&) { return std::optional<double>(12.0); };

    auto settled = CaptureGuards::evaluateAll(files, clock.now(), probes, clock);
    EXPECT_EQ(settled, std::vector<Verdict>(30, Verdict::proceed()));
    EXPECT_EQ(clock.waits(), std::vector<double>{2.0}) << "one wait for thirty files";

    // Each file keeps its own reason: unreadable, empty, settling late, growing throughout,
    // too short; the wait is as long as the slowest file needs, never longer.
    test::FakeClock mixedClock;
    std::vector<fs::path> mixed = {"/vm/a.m4a", "/vm/b.m4a", "/vm/c.m4a", "/vm/d.m4a", "/vm/e.m4a", "/vm/f.m4a"};
    sizes = {{"/vm/a.m4a", {std::nullopt}},
             {"/vm/b.m4a", {0}},
             {"/vm/c.m4a", {10, 20, 30, 30}},
             {"/vm/d.m4a", {1, 2, 3, 4, 5, 6, 7}},
             {"/vm/e.m4a", {10, 10}},
             {"/vm/f.m4a", {10, 20, std::nullopt}}};
    probes.duration = [](const fs::path& file) { return std::optional<double>(file == "/vm/e.m4a" ? 0.2 : 12.0); };
    auto verdicts = CaptureGuards::evaluateAll(mixed, mixedClock.now(), probes, mixedClock);
    EXPECT_EQ(verdicts, (std::vector<Verdict>{Verdict::defer("cannot stat file"),
                                              Verdict::defer("0-byte file, sync in flight"), Verdict::proceed(),
                                              Verdict::defer("size still changing"),
                                              Verdict::skip("audio too short (0.20s < 0.50s)"),
                                              Verdict::defer("size still changing")}));
    EXPECT_EQ(mixedClock.waits(), std::vector<double>(5, 2.0));

    test::FakeClock idleClock;
    EXPECT_TRUE(CaptureGuards::evaluateAll({}, idleClock.now(), probes, idleClock).empty());
    EXPECT_TRUE(idleClock.waits().empty()) << "nothing to sample, no wait";
}

TEST(CaptureGuards, AGivenStabilitySamplerReplacesTheInlineSampling)
{
    Guards unstable;
    auto probes = unstable.file.probes();
    std::vector<fs::path> sampled;
    probes.stabilitySampler = [&sampled](const fs::path& file) {
        sampled.push_back(file);
        return false;
    };
    EXPECT_EQ(unstable.evaluate(kRecording, probes), Verdict::defer("size still changing"));
    EXPECT_EQ(sampled, std::vector<fs::path>{kRecording});

    probes.stabilitySampler = [](const fs::path&) { return true; };
    EXPECT_EQ(unstable.evaluate(kRecording, probes), Verdict::proceed());
    EXPECT_TRUE(unstable.clock.waits().empty());
    EXPECT_EQ(unstable.file.sizeCalls, 2); // once per evaluation, never resampled
}

TEST(CaptureGuards, AudioShorterThanHalfASecondIsSkipped)
{
    Guards guards;
    guards.file.duration = 0.49;
    EXPECT_EQ(guards.evaluate(kRecording), Verdict::skip("audio too short (0.49s < 0.50s)"));
    guards.file.duration = 0.0;
    EXPECT_EQ(guards.evaluate(kRecording), Verdict::skip("audio too short (0.00s < 0.50s)"));
    guards.file.duration = 0.5;
    EXPECT_EQ(guards.evaluate(kRecording), Verdict::proceed());
    // A duration that cannot be read lets the file through.
    guards.file.duration = std::nullopt;
    EXPECT_EQ(guards.evaluate(kRecording), Verdict::proceed());
}

TEST(IsStable, SamplesUpToTriesTimesAtTheGivenInterval)
{
    test::FakeClock clock;
    std::deque<std::optional<std::int64_t>> sizes;
    auto size = [&sizes](const fs::path&) {
        auto next = sizes.front();
        sizes.pop_front();
        return next;
    };

    EXPECT_FALSE(isStable(kRecording, 10, 0, 2s, size, clock));
    EXPECT_TRUE(clock.waits().empty());
    EXPECT_THROW(isStable(kRecording, 10, -1, 2s, size, clock), std::invalid_argument);

    sizes = {10};
    EXPECT_TRUE(isStable(kRecording, 10, 3, 0.25s, size, clock));
    EXPECT_EQ(clock.waits(), std::vector<double>{0.25});

    test::FakeClock growingClock;
    sizes = {11, 12, 13};
    EXPECT_FALSE(isStable(kRecording, 10, 3, 1s, size, growingClock));
    EXPECT_EQ(growingClock.waits(), (std::vector<double>{1.0, 1.0, 1.0}));

    sizes = {std::nullopt};
    EXPECT_FALSE(isStable(kRecording, 10, 3, 1s, size, clock));
}

TEST(ParseDuration, TakesTheNumberBeforeSecOnTheFirstLineThatHasOne)
{
    EXPECT_EQ(parseDuration("12.5 sec"), 12.5);
    EXPECT_EQ(parseDuration("\t 12.5 sec, 1 ch, 48000 Hz, 'aac ' (0x00000000) 0 bits/channel\n"), 12.5);
    EXPECT_EQ(parseDuration("File:  a.m4a\nestimated duration: 3 sec\n  4.25   sec\n7 sec\n"), 4.25);
    EXPECT_EQ(parseDuration("header\r\n0.490000 sec\r\n"), 0.49);
    EXPECT_EQ(parseDuration("12.5 seconds"), 12.5);
    EXPECT_EQ(parseDuration("+3 sec"), 3.0);
    EXPECT_EQ(parseDuration("1e1 sec"), 10.0);
    EXPECT_EQ(parseDuration("-0.25 sec"), -0.25);
    EXPECT_EQ(parseDuration(".5 sec"), 0.5);
    EXPECT_EQ(parseDuration("infinity sec"), std::numeric_limits<double>::infinity());
    auto notANumber = parseDuration("nan sec");
    ASSERT_TRUE(notANumber.has_value());
    EXPECT_TRUE(std::isnan(*notANumber));

    // Numbers only in the C locale's decimal notation, whole and within a double's range.
    for (const char* text : {"", "\n\n", "no duration here", "12.5sec", "12.5\tsec", "12,5 sec", " sec",
                             "12.5x sec", "0x1p3 sec", "0X10 sec", "+-3 sec", "--3 sec", "++3 sec", "1e999 sec",
                             "- 3 sec", "e5 sec", "12.5\v sec"}) {
        EXPECT_EQ(parseDuration(text), std::nullopt) << text;
    }
}

// Real files on disk, read with the default probes.

fs::path fixture(const char* name)
{
    return fs::path(QUILLET_SOURCE_DIR) / "tests" / "fixtures" / name;
}

TEST(DefaultProbes, SizeModificationTimeAndExistenceOfRealFiles)
{
    test::ScratchDir dir;
    auto file = dir.path() / "a.m4a";
    test::writeFile(file, std::string(1234, 'x'));
    timespec times[2] = {{1706711130, 250'000'000}, {1706711130, 250'000'000}};
    ASSERT_EQ(utimensat(AT_FDCWD, file.c_str(), times, 0), 0);

    EXPECT_EQ(defaultSize(file), 1234);
    EXPECT_EQ(defaultModified(file), TimePoint(std::chrono::seconds(1706711130) + 250ms));
    EXPECT_TRUE(defaultFileExists(file));

    auto missing = dir.path() / "missing.m4a";
    EXPECT_EQ(defaultSize(missing), std::nullopt);
    EXPECT_EQ(defaultModified(missing), std::nullopt);
    EXPECT_FALSE(defaultFileExists(missing));

    // A link stands for the file it points to; a dangling one for nothing.
    fs::create_symlink(file, dir.path() / "link.m4a");
    fs::create_symlink(missing, dir.path() / "dangling.m4a");
    EXPECT_EQ(defaultSize(dir.path() / "link.m4a"), 1234);
    EXPECT_FALSE(defaultFileExists(dir.path() / "dangling.m4a"));
}

TEST(DefaultProbes, DurationOfRealAudioFiles)
{
    test::ScratchDir dir;
    auto wav = dir.path() / "a.wav";
    test::writeWav(wav, 8000, 10000);
    auto duration = defaultDuration(wav);
    ASSERT_TRUE(duration);
    EXPECT_NEAR(*duration, 1.25, 0.001);

    // The fixture holds 1.5 s of AAC; readers may count the encoder's priming samples.
    auto m4a = defaultDuration(fixture("short-1500ms.m4a"));
    ASSERT_TRUE(m4a);
    EXPECT_NEAR(*m4a, 1.5, 0.1);

    // A well-formed header with no audio after it: a measured duration of 0, not an unknown one.
    auto empty = dir.path() / "empty.wav";
    test::writeWav(empty, 8000, 0);
    EXPECT_EQ(defaultDuration(empty), 0.0);

    test::writeFile(dir.path() / "text.wav", "this is not audio\n");
    EXPECT_EQ(defaultDuration(dir.path() / "text.wav"), std::nullopt);
    EXPECT_EQ(defaultDuration(dir.path() / "missing.wav"), std::nullopt);
}

TEST(DefaultProbes, EvaluateRealRecordingsWithoutSleeping)
{
    test::ScratchDir dir;
    test::FakeClock clock;
    auto now = std::chrono::system_clock::now();

    auto shortWav = dir.path() / "short.wav";
    test::writeWav(shortWav, 8000, 2400);
    EXPECT_EQ(evaluate(shortWav, now, {}, clock), Verdict::skip("audio too short (0.30s < 0.50s)"));
    EXPECT_EQ(clock.waits(), std::vector<double>{2.0});

    auto emptyWav = dir.path() / "empty.wav";
    test::writeWav(emptyWav, 8000, 0);
    EXPECT_EQ(evaluate(emptyWav, now, {}, clock), Verdict::skip("audio too short (0.00s < 0.50s)"));

    auto longWav = dir.path() / "long.wav";
    test::writeWav(longWav, 8000, 10000);
    EXPECT_EQ(evaluate(longWav, now, {}, clock), Verdict::proceed());

    // A recorder that writes the sizes only when it stops: its header still says 0 (or the
    // placeholder) with 3 s of samples behind it. Judged by the samples, never skipped.
    for (std::uint32_t declared : {0u, 0xFFFFFFFFu, 2u}) {
        auto unfinished = dir.path() / ("unfinished " + std::to_string(declared) + ".wav");
        test::writeFile(unfinished, test::wavBytes(8000, 24000, declared));
        EXPECT_EQ(defaultDuration(unfinished), 3.0) << declared;
        EXPECT_EQ(evaluate(unfinished, now, {}, clock), Verdict::proceed()) << declared;
    }
    EXPECT_FALSE(skipsForLength(evaluate(longWav, now, {}, clock)));
    EXPECT_TRUE(skipsForLength(evaluate(shortWav, now, {}, clock)));
    EXPECT_FALSE(skipsForLength(Verdict::skip("20240131 142530.m4a is the canonical twin")));

    auto m4a = dir.path() / "20240131 142530.m4a";
    auto qta = dir.path() / "20240131 142530.qta";
    fs::copy_file(fixture("short-1500ms.m4a"), qta);
    auto written = defaultModified(qta).value();
    EXPECT_EQ(evaluate(qta, written + 200ms, {}, clock), Verdict::defer("young .qta (0s < 600s), may still be recording"));
    EXPECT_EQ(evaluate(qta, written + 601s, {}, clock), Verdict::proceed());
    fs::copy_file(fixture("short-1500ms.m4a"), m4a);
    EXPECT_EQ(evaluate(qta, now, {}, clock), Verdict::skip("20240131 142530.m4a is the canonical twin"));

    EXPECT_EQ(evaluate(dir.path() / "gone.m4a", now, {}, clock), Verdict::defer("cannot stat file"));
}

} // namespace
} // namespace quillet::CaptureGuards
