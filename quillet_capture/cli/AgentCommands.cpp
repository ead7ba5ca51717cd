#include "quillet_capture/cli/Commands.hpp"

#include "quillet_capture/cli/Console.hpp"
#include "quillet_capture/platform/AgentManager.hpp"
#include "quillet_capture/platform/Process.hpp"

namespace quillet {

namespace {

void print(std::string_view line)
{
    out(line);
}

} // namespace

void cmdInstall()
{
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
    AgentManager::current().withAgentStopped(body, print);
}

} // namespace quillet
