#pragma once

#include "quillet_capture/platform/Paths.hpp"

#include <string>
#include <vector>

namespace quillet {

class AgentManager;

/// Moves what the predecessor product Pellam left behind to the places used here: its agent
/// (removed), its settings file, its log files, the rest of its folders, and its device token
/// in the secret store. Where the new place is taken already, the old item is kept beside it
/// under a name ending in `keptSuffix`; nothing is overwritten. Progress goes to the log with
/// the prefix "[quillet] migration from Pellam: ".
///
/// What marks it done is that nothing of Pellam's is left at its old places: every start
/// looks (a few `stat` calls, no secret store) and does the rest only when something is
/// there. Every step can be cut short and is finished by the next start without losing or
/// duplicating anything. When the token could not be moved, Pellam's first folder is left
/// (empty) in place, so that the next start tries again.
namespace MigrationFromPellam {

/// The secret-store service of Pellam's device token; the account is the same as ours.
inline constexpr const char* pellamService = "se.kestrin.pellam.mac";
/// The end of the name of an old item kept beside the one that took its place.
inline constexpr const char* keptSuffix = ".pellam-old";

/// The migration for this platform's locations and agent manager. Called first by main for
/// every command, on the main thread; costs a few `stat` calls when there is nothing to move.
/// Never throws.
void run();

/// The same for the locations of `layout`, removing Pellam's agent through `agents`.
void run(const Paths::Layout& layout, AgentManager& agents);

/// True when anything of Pellam's is at one of its places: a folder, the settings file or the
/// agent definition. Only `stat` calls.
bool hasLeftovers(const Paths::PellamLayout& pellam);

/// Moves Pellam's device token to the current item (service `Keychain::service`, same
/// account), or keeps it beside a different current token under the account name +
/// `keptSuffix`, then deletes Pellam's item. Adds a line to `progress` for what it did.
/// Returns false when the secret store refused a write or a delete (the step is then still to
/// do); a token that cannot be read counts as none.
bool moveToken(std::vector<std::string>& progress);

} // namespace MigrationFromPellam
} // namespace quillet
