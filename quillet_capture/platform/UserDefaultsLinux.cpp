#include "quillet_capture/platform/UserDefaults.hpp"

#include "quillet_capture/platform/Paths.hpp"
#include "quillet_capture/util/AtomicFile.hpp"
#include "quillet_capture/util/Iso8601.hpp"

#include <nlohmann/json.hpp>

#include <mutex>

namespace quillet::UserDefaults {

namespace {

// The defaults file holds one JSON object; dates are ISO 8601 UTC text.
std::mutex fileLock;

nlohmann::json load()
{
    auto text = readWholeFile(Paths::defaultsFile());
    if (!text) {
        return nlohmann::json::object();
    }
    auto value = nlohmann::json::parse(*text, nullptr, false);
    return value.is_object() ? value : nlohmann::json::object();
}

void save(const nlohmann::json& values)
{
    try {
        std::error_code ignored;
        std::filesystem::create_directories(Paths::defaultsFile().parent_path(), ignored);
        writeFileAtomically(Paths::defaultsFile(), values.dump(2) + "\n", 0600);
    } catch (const std::exception&) {
    }
}

} // namespace

std::optional<TimePoint> date(const std::string& key)
{
    std::lock_guard guard(fileLock);
    auto values = load();
    auto found = values.find(key);
    if (found == values.end() || !found->is_string()) {
        return std::nullopt;
    }
    return Iso8601::parse(found->get<std::string>());
}

void setDate(const std::string& key, TimePoint value)
{
    std::lock_guard guard(fileLock);
    auto values = load();
    values[key] = Iso8601::format(value);
    save(values);
}

void remove(const std::string& key)
{
    std::lock_guard guard(fileLock);
    auto values = load();
    if (values.erase(key) > 0) {
        save(values);
    }
}

} // namespace quillet::UserDefaults
