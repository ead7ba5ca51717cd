#include "quillet_capture/pipeline/CaptureIntake.hpp"

#include "quillet_capture/library/LibraryRecordingJson.hpp"
#include "quillet_capture/pipeline/StateFileJson.hpp"
#include "quillet_capture/platform/Paths.hpp"
#include "quillet_capture/runtime/MainLoop.hpp"
#include "quillet_capture/util/Iso8601.hpp"
#include "quillet_capture/util/Utf8.hpp"

#include <nlohmann/json.hpp>

#include <algorithm>

namespace quillet {

namespace fs = std::filesystem;

CaptureIntake& CaptureIntake::shared()
{
    static auto* intake = [] {
        auto* made = new CaptureIntake(Paths::stateFile().parent_path() / "intake.json");
        runtime::addExitHook([made] { made->close(); });
        return made;
    }();
    return *intake;
}

CaptureIntake::CaptureIntake(fs::path file)
    : file_(std::move(file))
{
    auto json = StateFileJson::read(file_);
    if (!json || !json->contains("pending") || !(*json)["pending"].is_array()) {
        return;
    }
    for (const auto& item : (*json)["pending"]) {
        if (!item.is_object()) {
            continue;
        }
        auto text = [&](const char* key) -> std::optional<std::string> {
            auto found = item.find(key);
            if (found == item.end() || !found->is_string()) {
                return std::nullopt;
            }
            return found->get<std::string>();
        };
        auto folderId = text("folderId");
        auto name = text("name");
        auto source = text("source");
        auto canonicalId = text("canonicalId");
        auto stamp = text("timestamp");
        auto timestamp = stamp ? Iso8601::parse(*stamp) : std::nullopt;
        if (!folderId || !name || !source || !canonicalId || !timestamp) {
            continue;
        }
        auto grown = item.find("grown");
        auto library = item.find("library");
        entries_.push_back({*folderId, Utf8::bytesOf(*name), Utf8::bytesOf(*source), *canonicalId, *timestamp,
                            grown != item.end() && grown->is_boolean() && grown->get<bool>(),
                            library != item.end() ? libraryRecordingFromJson(*library) : std::nullopt});
    }
}

void CaptureIntake::add(const Entry& entry)
{
    add(std::vector<Entry>{entry});
}

void CaptureIntake::add(const std::vector<Entry>& entries)
{
    std::lock_guard guard(lock_);
    for (const auto& entry : entries) {
        std::erase_if(entries_, [&](const Entry& e) { return e.folderId == entry.folderId && e.name == entry.name; });
        entries_.push_back(entry);
    }
    persistLocked();
}

void CaptureIntake::remove(const std::string& folderId, const std::string& name, const std::string& canonicalId)
{
    std::lock_guard guard(lock_);
    auto removed = std::erase_if(entries_, [&](const Entry& e) {
        return e.folderId == folderId && e.name == name && e.canonicalId == canonicalId;
    });
    if (removed > 0) {
        persistLocked();
    }
}

bool CaptureIntake::holds(const std::string& canonicalId) const
{
    std::lock_guard guard(lock_);
    return std::any_of(entries_.begin(), entries_.end(), [&](const Entry& e) { return e.canonicalId == canonicalId; });
}

std::vector<CaptureIntake::Entry> CaptureIntake::entries() const
{
    std::lock_guard guard(lock_);
    return entries_;
}

void CaptureIntake::close()
{
    std::lock_guard guard(lock_);
    closed_ = true;
}

void CaptureIntake::persistLocked()
{
    if (closed_) {
        return;
    }
    auto pending = nlohmann::json::array();
    for (const auto& entry : entries_) {
        nlohmann::json item = {
            {"canonicalId", entry.canonicalId},
            {"folderId", entry.folderId},
            // Names that are not UTF-8 are kept byte for byte: the entry must find its file.
            {"name", Utf8::lossless(entry.name)},
            {"source", Utf8::lossless(entry.source.string())},
            {"timestamp", Iso8601::format(entry.timestamp)},
        };
        if (entry.grown) {
            item["grown"] = true;
        }
        if (entry.recording) {
            item["library"] = toJson(*entry.recording);
        }
        pending.push_back(std::move(item));
    }
    StateFileJson::write(file_, {{"pending", std::move(pending)}});
}

} // namespace quillet
