#pragma once

namespace quillet::MigrationFromPellam {

/// Moves what the predecessor product Pellam left behind to the places used here, once.
/// Called first by main for every command; costs next to nothing when there is nothing to
/// move. Never throws.
void run();

} // namespace quillet::MigrationFromPellam
