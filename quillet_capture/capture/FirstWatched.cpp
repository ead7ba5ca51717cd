#include "quillet_capture/capture/FirstWatched.hpp"

#include "quillet_capture/config/Log.hpp"
#include "quillet_capture/platform/Paths.hpp"
#include "quillet_capture/util/AtomicFile.hpp"

#include <nlohmann/json.hpp>

#include <mutex>
#include <string>

namespace quillet::FirstWatched {

namespace {

using Milliseconds = std::chrono::milliseconds;

std::mutex fileLock;

nlohmann::json load(const std::filesystem::path& file)
{
    auto text = readWholeFile(file);
    if (!text) {
        return nlohmann::json::object();
    }
    auto json = nlohmann::json::parse(*text, nullptr, false);
    return json.is_object() ? json : nlohmann::json::object();
}

std::optional<TimePoint> momentIn(const nlohmann::json& json, std::string_view folderId)
{
    auto found = json.find(std::string(folderId));
    if (found == json.end() || !found->is_number_integer()) {
        return std::nullopt;
    }
    return TimePoint(std::chrono::duration_cast<TimePoint::duration>(Milliseconds(found->get<std::int64_t>())));
}

} // namespace

std::filesystem::path defaultFile()
{
    return Paths::stateFile().parent_path() / "first-watched.json";
}

std::optional<TimePoint> find(std::string_view folderId, const std::filesystem::path& file)
{
    std::lock_guard guard(fileLock);
    return momentIn(load(file), folderId);
}

TimePoint fix(std::string_view folderId, TimePoint fallback, const std::filesystem::path& file)
{
    std::lock_guard guard(fileLock);
    auto json = load(file);
    if (auto kept = momentIn(json, folderId)) {
        return *kept;
    }
    // Rounded up: whatever was written before `fallback`, in its millisecond too, is older.
    auto moment = std::chrono::ceil<Milliseconds>(fallback);
    json[std::string(folderId)] = moment.time_since_epoch().count();
    try {
        std::error_code ignored;
        std::filesystem::create_directories(file.parent_path(), ignored);
        writeFileAtomically(file, json.dump(2) + "\n", 0600);
    } catch (const std::exception& error) {
        rlog("[quillet] capture: cannot keep when %@ was first watched: %@", std::string(folderId), error.what());
    }
    return moment;
}

} // namespace quillet::FirstWatched
