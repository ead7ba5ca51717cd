#include "quillet_capture/cli/Commands.hpp"

#include "quillet_capture/cli/Console.hpp"
#include "quillet_capture/config/Settings.hpp"
#include "quillet_capture/platform/AgentLock.hpp"
#include "quillet_capture/platform/AgentManager.hpp"
#include "quillet_capture/platform/Process.hpp"

#include <optional>
#include <string>

namespace quillet {

namespace {

void print(std::string_view line)
{
    out(line);
}

} // namespace

void cmdInstall()
{
    // An agent without settings would only log "run setup" at every start.
    if (Settings::shared().isFirstRun()) {
        fail("Nothing is set up yet. Run quillet-capture setup first.");
    }
    try {
        AgentManager::current().install(executablePath(), print);
    } catch (const AgentManager::Error& error) {
        fail(error.what());
    }
}

void cmdUninstall()
{
    AgentManager::current().uninstall(print);
}

void withAgentStopped(const std::function<void()>& body)
{
    // An agent that the service manager does not know of (started by hand) is still running:
    // it would undo the work when it next writes its state.
    std::optional<long> running;
    AgentManager::current().withAgentStopped(
        [&] {
            auto lock = AgentLock::take();
            if (!lock.taken()) {
                running = lock.holder();
                return;
            }
            body();
        },
        print);
    if (running && *running > 0) {
        fail("Another quillet-capture run is working on this state folder (pid " + std::to_string(*running) +
             "). Stop it (kill " + std::to_string(*running) + "), then run this command again.");
    }
    if (running) {
        fail("Another quillet-capture run is working on this state folder. Stop it, then run this command again.");
    }
}

} // namespace quillet
