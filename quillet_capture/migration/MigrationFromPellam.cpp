#include "quillet_capture/migration/MigrationFromPellam.hpp"

namespace quillet::MigrationFromPellam {

void run()
{
    // Pellam's application-support and log folders, its settings file, its Keychain item and
    // its LaunchAgent will move here; until then there is nothing to do.
}

} // namespace quillet::MigrationFromPellam
