#include "quillet_capture/cli/Commands.hpp"

#include "quillet_capture/cli/Console.hpp"
#include "quillet_capture/runtime/MainLoop.hpp"

namespace quillet {

const std::vector<Command>& commandTable()
{
    static const std::vector<Command> table = {
        {{"setup"}, [] { cmdSetup(args); }},
        {{"config"}, [] { cmdConfig(args); }},
        {{"import-existing"}, [] { cmdImportExisting(args); }},
        {{"retry"}, [] { cmdRetry(args); }},
        {{"sync"}, [] { cmdSync(); }},
        {{"pair"}, [] { cmdPair(); }},
        {{"install"}, cmdInstall},
        {{"uninstall"}, cmdUninstall},
        {{"status"}, [] { cmdStatus(args); }},
        {{"audit"}, [] { cmdAudit(args); }},
        {{"run"}, [] { cmdRun(); }},
        {{"version", "--version", "-v"}, [] { out(toolVersion); }},
    };
    return table;
}

void dispatch()
{
    if (args.empty()) {
        usage();
    }
    for (const auto& command : commandTable()) {
        for (const auto& word : command.words) {
            if (word == args[0]) {
                command.run();
                runtime::exitProcess(0);
            }
        }
    }
    usage();
}

} // namespace quillet
