#include "quillet_capture/pipeline/CaptureStateMigration.hpp"

#include <chrono>
#include <utility>

namespace quillet::CaptureStateMigration {

State migrate(State state)
{
    if (state.version > 1) {
        return state;
    }
    if (!state.voiceMemosSeen.empty()) {
        auto& merged = state.seenByFolder[std::string(voiceMemosFolderId)];
        // insert keeps the entry that is already there, which is the one to keep.
        for (auto& [name, entry] : state.voiceMemosSeen) {
            merged.insert({name, entry});
        }
        state.voiceMemosSeen.clear();
    }
    state.version = CaptureStateStore::currentVersion;
    return state;
}

State fromLegacyPythonState(const std::vector<std::string>& processed, CaptureStateStore::TimePoint importedAt)
{
    State state;
    auto& set = state.seenByFolder[std::string(voiceMemosFolderId)];
    auto firstSeen = std::chrono::floor<std::chrono::seconds>(importedAt);
    for (const auto& name : processed) {
        set.insert_or_assign(name, State::SeenEntry{firstSeen, ""});
    }
    state.version = CaptureStateStore::currentVersion;
    return state;
}

} // namespace quillet::CaptureStateMigration
