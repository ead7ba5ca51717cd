#include "quillet_capture/capture/CaptureAccess.hpp"
#include "quillet_capture/platform/Paths.hpp"

#include "tests/support/Scratch.hpp"

#include <gtest/gtest.h>

#include <cstdlib>
#include <unistd.h>

namespace quillet {
namespace {

namespace fs = std::filesystem;
using CaptureAccess::State;

struct CaptureAccessTest : ::testing::Test {
    test::ScratchHome home;
    fs::path folder = home.path() / "Recordings";

    State check(bool enabled = true) { return CaptureAccess::check(folder, CaptureAccess::audioExtensions, enabled); }
    void touch(const std::string& name) { test::writeFile(folder / name, "x"); }
};

TEST_F(CaptureAccessTest, ClassifiesWhatIsOnDisk)
{
    EXPECT_EQ(check(), State::missing());
    EXPECT_EQ(check(false), State::notConfigured()); // disabled wins even without a folder

    test::writeFile(folder, "not a folder");
    EXPECT_EQ(check(), State::missing());
    fs::remove(folder);

    fs::create_directories(folder);
    EXPECT_EQ(check(), State::empty());

    touch(".hidden.m4a");
    touch(".DS_Store");
    touch("20240501 093000.qta");
    touch("notes.txt");
    touch("m4a");
    EXPECT_EQ(check(), State::empty());

    touch("20240501 093000-AB12CD34.M4A");
    EXPECT_EQ(check(), State::ok(1));
    EXPECT_EQ(check().summary("Voice Memos"), "Voice Memos: 1 file visible");

    touch("second.wav");
    touch("third.m4a");
    EXPECT_EQ(check(), State::ok(3));
    EXPECT_EQ(CaptureAccess::check(folder, {"qta"}, true), State::ok(1));
    EXPECT_EQ(CaptureAccess::check(folder, {}, true), State::empty());
    EXPECT_EQ(check(false), State::notConfigured());

    if (geteuid() != 0) { // root reads every folder
        fs::permissions(folder, fs::perms::none);
        EXPECT_EQ(check(), State::denied());
        fs::permissions(folder, fs::perms::owner_all);
    }
}

TEST(CaptureAccessState, PropertiesSummariesAndExplanations)
{
    EXPECT_TRUE(State::ok(2).isUsable());
    for (auto state : {State::empty(), State::denied(), State::missing(), State::notConfigured()}) {
        EXPECT_FALSE(state.isUsable());
        EXPECT_EQ(state.needsAttention(), state != State::notConfigured());
    }
    EXPECT_FALSE(State::ok(2).needsAttention());
    EXPECT_NE(State::ok(1), State::ok(2));
    EXPECT_NE(State::empty(), State::missing());

    EXPECT_EQ(State::ok(12).summary("Phone"), "Phone: 12 files visible");
    EXPECT_EQ(State::ok(12).menuSummary(), "Voice Memos: 12 files visible");
    EXPECT_EQ(State::ok(0).summary("Phone"), "Phone: 0 files visible");
    EXPECT_EQ(State::empty().summary("Phone"), "Phone: readable but no audio files");
    EXPECT_EQ(State::denied().summary("Phone"), "Full Disk Access needed");
    EXPECT_EQ(State::missing().menuSummary(), "Voice Memos folder not found");
    EXPECT_EQ(State::notConfigured().summary("Phone"), "Capture is off");

    EXPECT_EQ(State::ok(1).explanation(), "quillet can read the Voice Memos folder (1 file).");
    EXPECT_EQ(State::ok(7).explanation(), "quillet can read the Voice Memos folder (7 files).");
    EXPECT_EQ(State::empty().explanation(),
              "quillet can read the Voice Memos folder, but it contains no audio files. This usually means macOS is "
              "keeping the recordings in iCloud rather than on this Mac \xE2\x80\x94 the audio is stored as CloudKit "
              "assets that quillet cannot read by filename. Open Voice Memos and check whether recordings are "
              "downloaded to this Mac, or run capture on a Mac that keeps local copies.");
    EXPECT_EQ(State::missing().explanation(),
              "The Voice Memos folder does not exist on this Mac. That is normal if Voice Memos has never been used "
              "here. quillet will pick it up automatically once the folder appears.");
    EXPECT_EQ(State::notConfigured().explanation(), "Voice Memos capture is switched off in Settings.");

    // Written with explicit UTF-8 bytes: ellipsis E2 80 A6, minus sign E2 88 92; the quotation
    // marks and the apostrophe are the plain ASCII ones.
    const std::string denied =
        "macOS is blocking quillet from reading the Voice Memos folder.\n"
        "\n"
        "1. Click \"Open Full Disk Access settings\xE2\x80\xA6\" above.\n"
        "2. If quillet is already listed, switch it ON. If it is not listed, click + and choose quillet from "
        "Applications.\n"
        "3. Click \"Restart quillet\". macOS applies the grant only when an app starts, so "
        "nothing changes until it restarts.\n"
        "\n"
        "Still blocked afterwards? Remove quillet from the list with the \xE2\x88\x92 button, then add it again with "
        "+. macOS ties the permission to the app's code signature, so a rebuilt or replaced copy of the app "
        "is treated as a different app and needs re-granting.";
    EXPECT_EQ(State::denied().explanation(), denied);
}

// A folder of the user's own on Linux is spoken of by its name, without macOS, iCloud or Full
// Disk Access; on macOS, and for the Voice Memos folder, the texts above stay.
TEST(CaptureAccessState, ExplanationsOfOtherFoldersOnLinuxSayWhatIsTrueThere)
{
    for (const auto& state : {State::ok(2), State::empty(), State::denied(), State::missing(), State::notConfigured()}) {
        EXPECT_EQ(state.explanation("Voice Memos", true), state.explanation());
        if (Paths::current() == Platform::macOS) {
            EXPECT_EQ(state.explanation("Phone", false), state.explanation());
            continue;
        }
        auto text = state.explanation("Phone", false);
        EXPECT_NE(text.find("Phone"), std::string::npos) << text;
        for (const char* foreign : {"Voice Memos", "macOS", "Mac", "iCloud", "Full Disk Access"}) {
            EXPECT_EQ(text.find(foreign), std::string::npos) << text;
        }
    }
    if (Paths::current() != Platform::macOS) {
        EXPECT_EQ(State::empty().explanation("Phone", false),
                  "quillet can read Phone, but it contains no audio files yet. Recordings that appear in it are "
                  "captured within a poll.");
        EXPECT_EQ(State::ok(2).explanation("Phone", false), "quillet can read Phone (2 files).");
    }
}

TEST(CaptureAccessVoiceMemos, PrefersTheGroupContainerAndFallsBackToIt)
{
    test::ScratchHome home;
    const fs::path group = home.path() / "Library/Group Containers/group.com.apple.VoiceMemos.shared/Recordings";
    const fs::path older = home.path() / "Library/Application Support/com.apple.voicememos/Recordings";
    EXPECT_EQ(CaptureAccess::voiceMemosURL(), group);
    fs::create_directories(older);
    EXPECT_EQ(CaptureAccess::voiceMemosURL(), older);
    fs::create_directories(group);
    EXPECT_EQ(CaptureAccess::voiceMemosURL(), group);
}

TEST(CaptureAccessSettings, OpensTheFullDiskAccessPane)
{
    test::ScratchHome home;
    const fs::path opened = home.path() / "opened";
    auto fakeOpener = [&](const fs::path& program) {
        test::writeFile(program, "#!/bin/sh\nprintf '%s' \"$1\" > '" + opened.string() + "'\n");
        fs::permissions(program, fs::perms::owner_all);
    };
    auto expectOpened = [&] {
        EXPECT_TRUE(CaptureAccess::openFullDiskAccessSettings());
        EXPECT_TRUE(test::eventually([&] { return fs::exists(opened) && !test::readFile(opened).empty(); }));
        EXPECT_EQ(test::readFile(opened), "x-apple.systempreferences:com.apple.preference.security?Privacy_AllFiles");
        fs::remove(opened);
    };

    // The opener named in the environment, on every platform.
    fakeOpener(home.path() / "open-url");
    setenv("QUILLET_URL_OPENER", (home.path() / "open-url").c_str(), 1);
    expectOpened();
    unsetenv("QUILLET_URL_OPENER");

    // Linux's own: xdg-open, found through PATH. (macOS's is /usr/bin/open, which no test runs.)
    if (Paths::current() == Platform::linux) {
        const fs::path bin = home.path() / "bin";
        fakeOpener(bin / "xdg-open");
        std::string savedPath = std::getenv("PATH") ? std::getenv("PATH") : "";
        setenv("PATH", (bin.string() + ":" + savedPath).c_str(), 1);
        expectOpened();
        setenv("PATH", savedPath.c_str(), 1);
    }
}

} // namespace
} // namespace quillet
