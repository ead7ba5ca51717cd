#include "quillet_capture/pipeline/CaptureStateStore.hpp"

#include "quillet_capture/config/Log.hpp"
#include "quillet_capture/pipeline/CaptureStateDetail.hpp"
#include "quillet_capture/pipeline/CaptureStateMigration.hpp"
#include "quillet_capture/platform/Paths.hpp"
#include "quillet_capture/runtime/MainLoop.hpp"
#include "quillet_capture/util/AtomicFile.hpp"
#include "quillet_capture/util/Iso8601.hpp"
#include "quillet_capture/util/Utf8.hpp"

#include <algorithm>
#include <exception>
#include <system_error>

namespace quillet {

using detail::isUtf8;
using detail::normalised;

namespace {

using State = CaptureStateStore::State;
using TimePoint = CaptureStateStore::TimePoint;

// A name as the file keeps it: UTF-8 that keeps every byte (Utf8::lossless), so that two
// names that differ only in bytes that are not UTF-8 are two entries, and the state read at
// the next start still knows such a file (it would be captured again otherwise). Names that
// are UTF-8, nearly all, are kept as they are (see keyOf).
std::string storedName(std::string_view name)
{
    return Utf8::lossless(name);
}

// The key of `name` in a folder's set, without a copy when the name is UTF-8.
std::string keyOf(std::string&& name)
{
    return isUtf8(name) ? std::move(name) : storedName(name);
}

// Whether the set holds `name`, without a copy when the name is UTF-8 (every tick asks this
// for every file of a folder).
bool holds(const CaptureStateStore::State::FolderSet& set, std::string_view name)
{
    return isUtf8(name) ? set.contains(name) : set.contains(storedName(name));
}

} // namespace

size_t State::totalEntries() const
{
    size_t total = 0;
    for (const auto& [folder, set] : seenByFolder) {
        total += set.size();
    }
    return total;
}

CaptureStateStore& CaptureStateStore::shared()
{
    // Never destroyed: watchers and tasks may still call it while the process ends.
    static auto* store = [] {
        auto* made = new CaptureStateStore(Paths::stateFile(), Paths::legacyWatcherFile());
        runtime::addExitHook([made] { made->close(); });
        return made;
    }();
    return *store;
}

CaptureStateStore::CaptureStateStore(std::filesystem::path storePath, std::filesystem::path legacyPath,
                                     runtime::Clock& clock)
    : storePath_(std::move(storePath)), legacyPath_(std::move(legacyPath)), clock_(clock)
{
    std::error_code ignored;
    std::filesystem::create_directories(storePath_.parent_path(), ignored);
    load();
}

void CaptureStateStore::load()
{
    // Runs in the constructor, before anyone else can reach the store; the lock is taken only
    // so that persistLocked finds it held, as it expects.
    std::lock_guard guard(queue_);
    if (auto text = readWholeFile(storePath_)) {
        if (auto decoded = decode(*text)) {
            auto oldVersion = decoded->version;
            state_ = CaptureStateMigration::migrate(std::move(*decoded));
            encoded_.reset(state_);
            if (state_.version != oldVersion) {
                rlog("[quillet] capture: migrated state v%d -> v%d (%d entries)", oldVersion, state_.version,
                     state_.totalEntries());
                persistLocked();
            }
            return;
        }
        keepUnreadableAside();
    }
    auto legacy = readWholeFile(legacyPath_);
    auto processed = legacy ? CaptureStateMigration::legacyProcessedNames(*legacy) : std::nullopt;
    if (!processed) {
        return;
    }
    rlog("[quillet] capture: migrating %d entries from voice-memo-watcher state", processed->size());
    state_ = CaptureStateMigration::fromLegacyPythonState(*processed, normalised(clock_.now()));
    encoded_.reset(state_);
    persistLocked();
}

void CaptureStateStore::keepUnreadableAside()
{
    // Kept for the user to look at, never overwritten: the next write makes a new file.
    auto stamp = Iso8601::format(clock_.now());
    std::erase(stamp, ':');
    auto kept = keepAside(storePath_, stamp);
    if (kept.path) {
        rlog("[quillet] capture: state file %@ cannot be read; kept it as %@ and started afresh (recordings "
             "that arrived since their folder was first watched are captured unless the vault has them)",
             storePath_.string(), kept.path->string());
        return;
    }
    rlog("[quillet] capture: state file %@ cannot be read and cannot be kept aside (%@); starting afresh",
         storePath_.string(), kept.failure);
}

void CaptureStateStore::close()
{
    std::lock_guard guard(queue_);
    closed_ = true;
}

void CaptureStateStore::persistLocked()
{
    if (closed_) {
        return;
    }
    try {
        writeFileAtomically(storePath_, encoded_.text(state_), 0644);
    } catch (const std::exception& error) {
        rlog("[quillet] capture: state persist failed: %@", error.what());
    }
}

TimePoint CaptureStateStore::stamp(std::optional<TimePoint> at) const
{
    return normalised(at.value_or(clock_.now()));
}

bool CaptureStateStore::hasSeen(std::string_view name, std::string_view folderId) const
{
    std::lock_guard guard(queue_);
    auto folder = state_.seenByFolder.find(folderId);
    return folder != state_.seenByFolder.end() && holds(folder->second, name);
}

std::optional<CaptureStateStore::State::SeenEntry> CaptureStateStore::seenEntry(std::string_view name,
                                                                               std::string_view folderId) const
{
    std::lock_guard guard(queue_);
    auto folder = state_.seenByFolder.find(folderId);
    if (folder == state_.seenByFolder.end()) {
        return std::nullopt;
    }
    auto entry = isUtf8(name) ? folder->second.find(name) : folder->second.find(storedName(name));
    if (entry == folder->second.end()) {
        return std::nullopt;
    }
    return entry->second;
}

void CaptureStateStore::markSeen(std::string_view name, std::string_view canonicalId, std::string_view folderId,
                                 std::optional<TimePoint> at, std::string_view file)
{
    auto firstSeen = stamp(at);
    std::lock_guard guard(queue_);
    auto& set = state_.seenByFolder[std::string(folderId)];
    auto stored = storedName(name);
    set.insert_or_assign(stored, State::SeenEntry{firstSeen, std::string(canonicalId), std::string(file)});
    encoded_.entrySet(state_, folderId, stored);
    persistLocked();
}

void CaptureStateStore::markSeen(std::vector<SeenFile> files, std::string_view folderId, std::optional<TimePoint> at)
{
    auto firstSeen = stamp(at);
    std::lock_guard guard(queue_);
    auto& set = state_.seenByFolder[std::string(folderId)];
    for (auto& file : files) {
        auto stored = storedName(file.name);
        set.insert_or_assign(stored, State::SeenEntry{firstSeen, std::move(file.canonicalId), std::move(file.file), std::move(file.judged)});
        encoded_.entrySet(state_, folderId, stored);
    }
    persistLocked();
}

void CaptureStateStore::markIndexed(std::vector<SeenName> files, std::string_view folderId,
                                    std::optional<TimePoint> at)
{
    auto firstSeen = stamp(at);
    std::lock_guard guard(queue_);
    auto& set = state_.seenByFolder[std::string(folderId)];
    for (auto& file : files) {
        file.name = keyOf(std::move(file.name));
    }
    // In name order each entry goes in at the end of the set, with no search through it.
    std::vector<SeenName*> byName;
    byName.reserve(files.size());
    for (auto& file : files) {
        byName.push_back(&file);
    }
    auto before = [](const SeenName* a, const SeenName* b) { return a->name < b->name; };
    if (!std::is_sorted(byName.begin(), byName.end(), before)) {
        std::sort(byName.begin(), byName.end(), before);
    }
    auto hint = set.end();
    for (auto* file : byName) {
        hint = set.insert_or_assign(hint, std::move(file->name), State::SeenEntry{firstSeen, std::move(file->canonicalId)});
        ++hint;
    }
    set.insert_or_assign(std::string(indexedMarker), State::SeenEntry{firstSeen, ""});
    encoded_.folderChanged(state_, folderId);
    persistLocked();
}

std::size_t CaptureStateStore::forget(const std::vector<std::string>& names, std::string_view folderId)
{
    auto now = stamp(std::nullopt);
    std::lock_guard guard(queue_);
    auto& set = state_.seenByFolder[std::string(folderId)];
    std::size_t removed = 0;
    for (const auto& name : names) {
        removed += set.erase(storedName(name));
    }
    set.insert_or_assign(std::string(indexedMarker), State::SeenEntry{now, ""});
    encoded_.folderChanged(state_, folderId);
    persistLocked();
    return removed;
}

std::size_t CaptureStateStore::seenCount(std::string_view folderId) const
{
    std::lock_guard guard(queue_);
    auto folder = state_.seenByFolder.find(folderId);
    return folder == state_.seenByFolder.end() ? 0 : folder->second.size();
}

bool CaptureStateStore::holdsCanonicalId(std::string_view canonicalId) const
{
    if (canonicalId.empty()) {
        return false;
    }
    std::lock_guard guard(queue_);
    for (const auto& [folderId, folder] : state_.seenByFolder) {
        for (const auto& [name, entry] : folder) {
            if (entry.canonicalId == canonicalId) {
                return true;
            }
        }
    }
    return false;
}

std::vector<std::pair<std::string, CaptureStateStore::State::SeenEntry>> CaptureStateStore::entriesWhere(
    std::string_view folderId, const std::function<bool(std::string_view, const State::SeenEntry&)>& match) const
{
    std::vector<std::pair<std::string, State::SeenEntry>> found;
    std::lock_guard guard(queue_);
    auto folder = state_.seenByFolder.find(folderId);
    if (folder == state_.seenByFolder.end()) {
        return found;
    }
    for (const auto& [name, entry] : folder->second) {
        if (match(name, entry)) {
            found.emplace_back(name, entry);
        }
    }
    return found;
}

std::size_t CaptureStateStore::seenCount() const
{
    std::lock_guard guard(queue_);
    return state_.totalEntries();
}

CaptureStateStore::State CaptureStateStore::state() const
{
    std::lock_guard guard(queue_);
    return state_;
}

} // namespace quillet
