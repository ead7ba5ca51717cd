#include "quillet_capture/pipeline/CaptureRecovery.hpp"

#include "quillet_capture/pipeline/StateFileJson.hpp"
#include "quillet_capture/platform/Paths.hpp"
#include "quillet_capture/runtime/MainLoop.hpp"
#include "quillet_capture/util/Iso8601.hpp"

#include <nlohmann/json.hpp>

#include <array>

namespace quillet {

namespace fs = std::filesystem;

std::chrono::seconds CaptureRecovery::pauseAfter(int attempts, std::chrono::seconds minute)
{
    static constexpr std::array<int, 6> kMinutes = {1, 2, 5, 15, 30, 60};
    size_t step = attempts <= 1 ? 0 : static_cast<size_t>(attempts - 1);
    return minute * kMinutes[std::min(step, kMinutes.size() - 1)];
}

CaptureRecovery& CaptureRecovery::shared()
{
    static auto* recovery = [] {
        auto* made = new CaptureRecovery(Paths::stateFile().parent_path() / "recovery.json");
        runtime::addExitHook([made] { made->close(); });
        return made;
    }();
    return *recovery;
}

CaptureRecovery::CaptureRecovery(fs::path file, runtime::Clock& clock) : file_(std::move(file)), clock_(clock)
{
    auto json = StateFileJson::read(file_);
    if (!json) {
        return;
    }
    for (const auto& [id, item] : json->items()) {
        if (!item.is_object() || !item.contains("attempts") || !item["attempts"].is_number_integer()) {
            continue;
        }
        Entry entry;
        entry.attempts = item["attempts"].get<int>();
        if (item.contains("serviceFailures") && item["serviceFailures"].is_number_integer()) {
            entry.serviceFailures = item["serviceFailures"].get<int>();
        }
        if (item.contains("next") && item["next"].is_string()) {
            entry.next = Iso8601::parse(item["next"].get<std::string>());
        }
        if (item.contains("reason") && item["reason"].is_string()) {
            entry.reason = item["reason"].get<std::string>();
        }
        entries_[id] = std::move(entry);
    }
}

void CaptureRecovery::setMinute(std::chrono::seconds minute)
{
    std::lock_guard guard(lock_);
    minute_ = minute;
}

std::optional<CaptureRecovery::TimePoint> CaptureRecovery::failed(const std::string& id, const std::string& reason)
{
    std::lock_guard guard(lock_);
    auto& entry = entries_[id];
    ++entry.attempts;
    entry.reason = reason;
    entry.serviceFailures += reason == "failed" ? 1 : 0;
    if (entry.serviceFailures > maxServiceFailures) {
        entry.next.reset();
    } else {
        entry.next = clock_.now() + pauseAfter(entry.attempts, minute_);
    }
    persistLocked();
    return entry.next;
}

void CaptureRecovery::forget(const std::string& id)
{
    std::lock_guard guard(lock_);
    if (entries_.erase(id) > 0) {
        persistLocked();
    }
}

std::vector<std::string> CaptureRecovery::takeDue(TimePoint now)
{
    std::lock_guard guard(lock_);
    std::vector<std::string> due;
    for (auto& [id, entry] : entries_) {
        if (entry.next && *entry.next <= now) {
            entry.next.reset();
            due.push_back(id);
        }
    }
    if (!due.empty()) {
        persistLocked();
    }
    return due;
}

bool CaptureRecovery::isWaiting(const std::string& id, TimePoint now) const
{
    std::lock_guard guard(lock_);
    auto found = entries_.find(id);
    if (found == entries_.end()) {
        return false;
    }
    const auto& entry = found->second;
    return entry.next ? *entry.next > now : entry.serviceFailures > maxServiceFailures;
}

std::optional<CaptureRecovery::TimePoint> CaptureRecovery::earliest() const
{
    std::lock_guard guard(lock_);
    std::optional<TimePoint> earliest;
    for (const auto& [id, entry] : entries_) {
        if (entry.next && (!earliest || *entry.next < *earliest)) {
            earliest = entry.next;
        }
    }
    return earliest;
}

CaptureRecovery::Summary CaptureRecovery::summary() const
{
    std::lock_guard guard(lock_);
    Summary summary;
    for (const auto& [id, entry] : entries_) {
        if (entry.reason == noteUnreadable) {
            summary.unreadableNotes.push_back(id);
        }
        if (entry.next) {
            ++summary.waiting;
            if (!summary.next || *entry.next < *summary.next) {
                summary.next = entry.next;
            }
        } else if (entry.serviceFailures > maxServiceFailures) {
            ++summary.givenUp;
        }
    }
    return summary;
}

std::map<std::string, CaptureRecovery::Entry> CaptureRecovery::entries() const
{
    std::lock_guard guard(lock_);
    return entries_;
}

void CaptureRecovery::close()
{
    std::lock_guard guard(lock_);
    closed_ = true;
}

void CaptureRecovery::persistLocked()
{
    if (closed_) {
        return;
    }
    auto json = nlohmann::json::object();
    for (const auto& [id, entry] : entries_) {
        nlohmann::json item = {
            {"attempts", entry.attempts}, {"reason", entry.reason}, {"serviceFailures", entry.serviceFailures}};
        if (entry.next) {
            item["next"] = Iso8601::format(*entry.next);
        }
        json[id] = std::move(item);
    }
    StateFileJson::write(file_, json);
}

} // namespace quillet
