// The test program's entry point.
//
// On macOS it first runs itself again with CFFIXED_USER_HOME naming a scratch folder:
// CoreFoundation reads that variable once, when a process starts, and keeps its preferences
// (the retry watermark) under it. Tests that store preferences in this process then never
// touch the developer's own, and the folder is removed when the run ends.
#include "quillet_capture/platform/Paths.hpp"
#include "quillet_capture/platform/Process.hpp"

#include <gmock/gmock.h>

#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>

namespace {

constexpr const char* kMarker = "QUILLET_TEST_PREFERENCES_HOME";

int runInScratchPreferences(char** argv)
{
    std::string folder = (std::filesystem::temp_directory_path() / "quillet-prefs-XXXXXX").string();
    if (mkdtemp(folder.data()) == nullptr) {
        return 1;
    }
    pid_t child = fork();
    if (child == 0) {
        setenv(kMarker, folder.c_str(), 1);
        setenv("CFFIXED_USER_HOME", folder.c_str(), 1);
        std::string self = quillet::Process::startedExecutable();
        execv(self.empty() ? argv[0] : self.c_str(), argv);
        _exit(127);
    }
    int status = child > 0 ? quillet::Process::waitFor(child) : 0;
    std::error_code ignored;
    std::filesystem::remove_all(folder, ignored);
    if (child < 0) {
        return 1;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

} // namespace

int main(int argc, char** argv)
{
    if (quillet::Paths::current() == quillet::Platform::macOS && std::getenv(kMarker) == nullptr) {
        return runInScratchPreferences(argv);
    }
    ::testing::InitGoogleMock(&argc, argv);
    return RUN_ALL_TESTS();
}
