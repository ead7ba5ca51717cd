#include "quillet_capture/pipeline/CaptureIdentities.hpp"

#include "quillet_capture/pipeline/StateFileJson.hpp"
#include "quillet_capture/platform/Paths.hpp"
#include "quillet_capture/runtime/MainLoop.hpp"
#include "quillet_capture/util/Utf8.hpp"

#include <nlohmann/json.hpp>

namespace quillet {

namespace fs = std::filesystem;

CaptureIdentities& CaptureIdentities::shared()
{
    static auto* identities = [] {
        auto* made = new CaptureIdentities(Paths::stateFile().parent_path() / "identities.json");
        runtime::addExitHook([made] { made->close(); });
        return made;
    }();
    return *identities;
}

CaptureIdentities::CaptureIdentities(fs::path file)
    : file_(std::move(file))
{
    auto json = StateFileJson::read(file_);
    if (!json || !json->contains("recordings") || !(*json)["recordings"].is_object()) {
        return;
    }
    for (const auto& [id, item] : (*json)["recordings"].items()) {
        if (!item.is_object()) {
            continue;
        }
        auto text = [&](const char* key) {
            auto found = item.find(key);
            return found != item.end() && found->is_string() ? Utf8::bytesOf(found->get<std::string>())
                                                             : std::string();
        };
        entries_.insert_or_assign(Utf8::bytesOf(id), Entry{text("canonicalId"), text("file"), text("digest"),
                                                            text("title")});
    }
}

std::optional<CaptureIdentities::Entry> CaptureIdentities::find(std::string_view uniqueId) const
{
    std::lock_guard guard(lock_);
    auto found = entries_.find(uniqueId);
    if (found == entries_.end()) {
        return std::nullopt;
    }
    return found->second;
}

void CaptureIdentities::record(const std::vector<std::pair<std::string, Entry>>& entries)
{
    if (entries.empty()) {
        return;
    }
    std::lock_guard guard(lock_);
    bool changed = false;
    for (const auto& [id, entry] : entries) {
        auto [at, added] = entries_.try_emplace(id, entry);
        if (!added && !(at->second == entry)) {
            at->second = entry;
            added = true;
        }
        changed = changed || added;
    }
    if (changed) {
        persistLocked();
    }
}

std::size_t CaptureIdentities::forget(const std::vector<std::string>& uniqueIds)
{
    std::lock_guard guard(lock_);
    std::size_t count = 0;
    for (const auto& id : uniqueIds) {
        count += entries_.erase(id);
    }
    if (count > 0) {
        persistLocked();
    }
    return count;
}

std::map<std::string, CaptureIdentities::Entry, std::less<>> CaptureIdentities::all() const
{
    std::lock_guard guard(lock_);
    return entries_;
}

void CaptureIdentities::close()
{
    std::lock_guard guard(lock_);
    closed_ = true;
}

void CaptureIdentities::persistLocked()
{
    if (closed_) {
        return;
    }
    auto recordings = nlohmann::json::object();
    for (const auto& [id, entry] : entries_) {
        nlohmann::json item = {{"canonicalId", entry.canonicalId}};
        auto text = [&](const char* key, const std::string& value) {
            if (!value.empty()) {
                item[key] = Utf8::lossless(value);
            }
        };
        text("file", entry.fileName);
        text("digest", entry.digest);
        text("title", entry.title);
        recordings[Utf8::lossless(id)] = std::move(item);
    }
    StateFileJson::write(file_, {{"recordings", std::move(recordings)}});
}

} // namespace quillet
