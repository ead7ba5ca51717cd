#include "quillet_capture/cli/Commands.hpp"
#include "quillet_capture/cli/Console.hpp"
#include "quillet_capture/config/Log.hpp"
#include "quillet_capture/config/Settings.hpp"
#include "quillet_capture/platform/System.hpp"
#include "quillet_capture/runtime/MainLoop.hpp"

#include <csignal>

namespace quillet {

void cmdRun()
{
    rlog("[quillet] capture-cli: run %@ (%@, " + System::osName() + " %@)", toolVersion, System::hostName(),
         System::osVersion());

    auto& settings = Settings::shared();
    if (settings.isFirstRun()) {
        rlog("[quillet] capture-cli: no settings file -- run setup first");
        runtime::exitProcess(1);
    }
    if (settings.enabledWatchedFolders().empty()) {
        rlog("[quillet] capture-cli: no watched folders enabled -- run setup");
        runtime::exitProcess(1);
    }

    runtime::handleSignal(SIGTERM, [] {
        rlog("[quillet] capture-cli: stopping (SIGTERM)");
        runtime::exitProcess(0);
    });

    runtime::runMainLoop();
}

} // namespace quillet
