#include "quillet_capture/cli/Commands.hpp"
#include "quillet_capture/cli/Console.hpp"
#include "quillet_capture/migration/MigrationFromPellam.hpp"
#include "quillet_capture/runtime/MainLoop.hpp"

int main(int argc, char** argv)
{
    quillet::runtime::markMainThread();
    quillet::toolVersion = "1.7.3";
    quillet::agentLabel = "se.Brannick.quillet.capture";
    quillet::MigrationFromPellam::run();
    quillet::args.assign(argv + (argc > 0 ? 1 : 0), argv + argc);
    quillet::dispatch();
}
