#include "quillet_capture/cli/Commands.hpp"
#include "quillet_capture/cli/Console.hpp"
#include "quillet_capture/config/Log.hpp"
#include "quillet_capture/platform/Paths.hpp"
#include "quillet_capture/platform/System.hpp"
#include "quillet_capture/runtime/MainLoop.hpp"

#include <csignal>
#include <filesystem>

namespace quillet {

void cmdRun()
{
    rlog("[quillet] capture-cli: run %@ (%@, " + System::osName() + " %@)", toolVersion, System::hostName(),
         System::osVersion());

    std::error_code error;
    if (!std::filesystem::exists(Paths::settingsFile(), error)) {
        rlog("[quillet] capture-cli: no settings file -- run setup first");
        runtime::exitProcess(1);
    }

    runtime::handleSignal(SIGTERM, [] {
        rlog("[quillet] capture-cli: stopping (SIGTERM)");
        runtime::exitProcess(0);
    });

    runtime::runMainLoop();
}

} // namespace quillet
