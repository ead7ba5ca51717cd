#include "quillet_capture/config/Keychain.hpp"
#include "quillet_capture/platform/Paths.hpp"
#include "quillet_capture/platform/UserDefaults.hpp"
#include "quillet_capture/util/AtomicFile.hpp"
#include "quillet_capture/vault/InboxWriter.hpp"

#include "tests/e2e/CaptureAgentHarness.hpp"
#include "tests/support/Scratch.hpp"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <filesystem>

namespace quillet {
namespace {

namespace fs = std::filesystem;
using test::CaptureAgentHarness;

mode_t modeOf(const fs::path& file)
{
    struct stat info {};
    if (::stat(file.c_str(), &info) != 0) {
        ADD_FAILURE() << "cannot stat " << file;
        return 0;
    }
    return info.st_mode & 0777;
}

// Sets the umask for the life of the value.
struct Umask {
    mode_t saved;
    explicit Umask(mode_t mask) : saved(::umask(mask)) {}
    ~Umask() { ::umask(saved); }
};

// Who can read what the program writes. Secrets and the agent's own bookkeeping are
// owner-only whatever the umask; notes, audio copies, the state file, the settings and the
// agent definition get what the umask gives new files, so a private umask keeps transcripts
// and recordings private.
TEST(Security, FilesAreOwnerOnlyOrFollowTheUmask)
{
    for (mode_t mask : {mode_t(077), mode_t(022), mode_t(0)}) {
        SCOPED_TRACE("umask " + std::to_string(mask));
        Umask umask(mask);
        CaptureAgentHarness agent(1);
        agent.setPollInterval(1);
        agent.setPace({.processingPolls = 0});
        agent.dropHistory(0);
        ASSERT_TRUE(agent.startAndWait());
        auto recording = agent.drop(1);
        ASSERT_TRUE(agent.waitUntilAllDone(30)) << agent.agentOutput();
        EXPECT_EQ(agent.stop(), 0);
        UserDefaults::setDate("quillet.securityTest", std::chrono::system_clock::now());

        const mode_t shared = 0644 & ~mask;
        EXPECT_EQ(modeOf(Paths::credentialsFile()), 0600u);
        EXPECT_EQ(modeOf(Paths::credentialsFile().parent_path()), 0700u);
        EXPECT_EQ(modeOf(agent.stateFolder() / "intake.json"), 0600u);
        EXPECT_EQ(modeOf(Paths::defaultsFile()), 0600u);
        EXPECT_EQ(modeOf(Paths::logFile()), 0600u);
        EXPECT_EQ(modeOf(Paths::stateFile()), shared);
        EXPECT_EQ(modeOf(agent.inbox() / (recording.id + ".md")), shared);
        EXPECT_EQ(modeOf(agent.inbox() / ".audio" / (recording.id + ".m4a")), shared);

        auto settings = agent.home() / "settings-copy.json";
        writeFileAtomically(settings, "{}");
        EXPECT_EQ(modeOf(settings), shared) << "the settings file and the agent definition are written so";
    }
}

} // namespace
} // namespace quillet
