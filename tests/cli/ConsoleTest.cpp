#include "quillet_capture/cli/Console.hpp"

#include <gtest/gtest.h>

namespace quillet {
namespace {

TEST(Option, FindsTheValueAfterTheFirstOccurrence)
{
    EXPECT_EQ(option("--vault", {"setup", "--vault", "a", "--vault", "b"}), "a");
    EXPECT_EQ(option("--vault", {"setup", "--vault"}), std::nullopt);
    EXPECT_EQ(option("--vault", {"setup"}), std::nullopt);
    EXPECT_EQ(option("--vault", {}), std::nullopt);
    // Values are not checked: a following option is taken as the value.
    EXPECT_EQ(option("--vault", {"setup", "--vault", "--no-upload"}), "--no-upload");
    // Exact, case-sensitive comparison of whole elements.
    EXPECT_EQ(option("--vault", {"setup", "--Vault", "a"}), std::nullopt);
    EXPECT_EQ(option("--vault", {"setup", "--vault=a"}), std::nullopt);
    EXPECT_EQ(option("--since", {"import-existing", "--since", ""}), "");
}

TEST(Usage, TextIsExact)
{
    toolVersion = "1.7.3";
    const std::string expected =
        "quillet-capture 1.7.3 -- Voice Memos to Veldane, without the menu bar app\n"
        "\n"
        "Usage:\n"
        "  quillet-capture setup [--vault <folder>] [--no-upload] [--no-keep-voice-memos]\n"
        "                          [--after-transcript '<command>']\n"
        "  quillet-capture pair            Connect this Mac to your Veldane account\n"
        "  quillet-capture install         Start automatically at login (LaunchAgent)\n"
        "  quillet-capture import-existing [--since YYYY-MM-DD]\n"
        "                                   Send recordings already in Voice Memos too\n"
        "  quillet-capture retry           Upload captures that were skipped or failed\n"
        "  quillet-capture sync            Bring transcripts from your Veldane account into the folder\n"
        "  quillet-capture uninstall       Remove the LaunchAgent\n"
        "  quillet-capture status          Show configuration, access and recent log lines\n"
        "  quillet-capture audit           Account for every recording: captured, waiting or needing you\n"
        "  quillet-capture config          Show or change one setting: list, get, set, unset, watch, unwatch\n"
        "  quillet-capture run             Run capture in the foreground (what the LaunchAgent runs)\n"
        "  quillet-capture version\n"
        "  quillet-capture help COMMAND    What a command does, its options and an example\n"
        "\n"
        "--after-transcript runs <command> with /bin/zsh -lc in the folder each time a\n"
        "transcript is written (env QUILLET_ID, QUILLET_FILE, QUILLET_FOLDER), for example\n"
        "--after-transcript 'claude -p \"/inbox\"'. An empty command turns it off.\n"
        "\n"
        "Typical first run:\n"
        "  quillet-capture setup        (transcripts go to iCloud Drive/quillet)\n"
        "  quillet-capture pair\n"
        "  (grant Full Disk Access to this program, see README)\n"
        "  quillet-capture install";
    EXPECT_EQ(usageText(System::Platform::macOS), expected);
}

} // namespace
} // namespace quillet
