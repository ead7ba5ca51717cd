#pragma once

#include "quillet_capture/pipeline/CaptureStateStore.hpp"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quillet {

/// Brings the state file up from its first version, and imports the seen list of the earlier
/// stand-alone watcher. Pure functions; any thread.
namespace CaptureStateMigration {

using State = CaptureStateStore::State;

/// The fixed folder id of the Voice Memos folder.
inline constexpr std::string_view voiceMemosFolderId = CaptureStateStore::voiceMemosFolderId;

/// `state` brought to version 2. A state above version 1 is returned unchanged. Otherwise the
/// first version's "voiceMemosSeen" entries move into the "voice-memos" set, where an entry
/// already there for the same name wins, and "voiceMemosSeen" is left empty.
State migrate(State state);

/// A version-2 state whose "voice-memos" set holds each of `processed` with firstSeen
/// `importedAt` and an empty canonical id.
State fromLegacyPythonState(const std::vector<std::string>& processed, CaptureStateStore::TimePoint importedAt);

/// The "processed" list of the legacy watcher file's text. Absent unless the text is a JSON
/// object whose "processed" value is an array of strings only: one element of another type
/// spoils the whole list.
std::optional<std::vector<std::string>> legacyProcessedNames(std::string_view text);

} // namespace CaptureStateMigration
} // namespace quillet
