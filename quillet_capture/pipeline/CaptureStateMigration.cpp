#include "quillet_capture/pipeline/CaptureStateMigration.hpp"

#include <nlohmann/json.hpp>

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

std::optional<std::vector<std::string>> legacyProcessedNames(std::string_view text)
{
    auto root = nlohmann::json::parse(text, nullptr, false);
    if (root.is_discarded() || !root.is_object()) {
        return std::nullopt;
    }
    auto processed = root.find("processed");
    if (processed == root.end() || !processed->is_array()) {
        return std::nullopt;
    }
    std::vector<std::string> names;
    names.reserve(processed->size());
    for (const auto& item : *processed) {
        if (!item.is_string()) {
            return std::nullopt;
        }
        names.push_back(item.get<std::string>());
    }
    return names;
}

} // namespace quillet::CaptureStateMigration
