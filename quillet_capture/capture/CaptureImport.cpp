#include "quillet_capture/capture/CaptureImport.hpp"

#include "quillet_capture/library/VoiceMemosLibrary.hpp"
#include "quillet_capture/pipeline/CaptureIdentities.hpp"

#include "quillet_capture/capture/CaptureAccess.hpp"
#include "quillet_capture/capture/CaptureGuards.hpp"
#include "quillet_capture/capture/FilenameNormaliser.hpp"
#include "quillet_capture/capture/FirstWatched.hpp"
#include "quillet_capture/config/Log.hpp"
#include "quillet_capture/platform/Sha256.hpp"
#include "quillet_capture/pipeline/CaptureStateStore.hpp"

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <map>
#include <set>
#include <system_error>

#include <sys/stat.h>

namespace quillet::CaptureImport {

namespace fs = std::filesystem;

namespace {

// "yyyyMMdd" of `time` in the time zone in force now.
std::string localDay(TimePoint time)
{
    tzset();
    std::time_t seconds = std::chrono::floor<std::chrono::seconds>(time).time_since_epoch().count();
    std::tm local{};
    if (localtime_r(&seconds, &local) == nullptr) {
        gmtime_r(&seconds, &local);
    }
    char text[32];
    std::snprintf(text, sizeof text, "%04d%02d%02d", local.tm_year + 1900, local.tm_mon + 1, local.tm_mday);
    return text;
}

std::string lowerCased(std::string text)
{
    for (char& c : text) {
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
    return text;
}

bool isAudioName(const std::string& name)
{
    auto extension = fs::path(name).extension().string();
    return !extension.empty() && CaptureAccess::voiceMemosExtensions.contains(lowerCased(extension.substr(1)));
}

bool startsOnOrAfter(const std::string& name, const std::string& day)
{
    if (name.size() < day.size()) {
        return false;
    }
    for (size_t i = 0; i < day.size(); ++i) {
        if (name[i] < '0' || name[i] > '9') {
            return false;
        }
    }
    return name.compare(0, day.size(), day) >= 0;
}

} // namespace

Failure::Failure(std::string path, std::string reason)
    : std::runtime_error("Cannot read " + path + ": " + reason)
    , path_(std::move(path))
    , reason_(std::move(reason))
{
}

Failure Failure::unreadable(std::string path, std::string reason)
{
    return Failure(std::move(path), std::move(reason));
}

Selection voiceMemosRecordings(std::optional<TimePoint> since)
{
    Selection selection{WatchedFolder::voiceMemos(true), {}};
    fs::path folder = selection.folder.path;

    std::error_code error;
    fs::directory_iterator it(folder, error);
    for (; !error && it != fs::directory_iterator(); it.increment(error)) {
        std::string name = it->path().filename().string();
        if (isAudioName(name)) {
            selection.names.push_back(std::move(name));
        }
    }
    if (error) {
        throw Failure::unreadable(folder.string(), error.message());
    }

    if (since) {
        std::string day = localDay(*since);
        std::erase_if(selection.names, [&day](const std::string& name) { return !startsOnOrAfter(name, day); });
    }
    std::sort(selection.names.begin(), selection.names.end());
    return selection;
}

namespace {

// What was picked in one folder, before anything is written.
struct Pick {
    WatchedFolder folder;
    Result result;
    std::vector<std::string> names;
    std::map<std::string, std::string> uniqueIds;  // Voice Memos library id by name
};

std::optional<TimePoint> dateOf(const WatchedFolder& folder, const std::string& name)
{
    if (folder.normaliser == WatchedFolder::Normaliser::voiceMemos) {
        if (auto parsed = FilenameNormaliser::parse(name)) {
            return parsed->timestamp;
        }
    }
    return CaptureGuards::defaultModified(folder.url() / name);
}

void listPicked(Pick& pick)
{
    pick.result.picked = static_cast<int>(pick.names.size());
    pick.result.recordings.clear();
    for (const auto& name : pick.names) {
        pick.result.recordings.push_back({name, dateOf(pick.folder, name)});
    }
}

Pick pickVoiceMemos(std::optional<TimePoint> since, const RemovedByPerson& removedByPerson)
{
    Selection selection = voiceMemosRecordings(since);
    // What Voice Memos knows of them: their titles, and which the person deleted (never
    // picked: the agent does not capture those).
    VoiceMemosLibrary library(selection.folder.url(), VoiceMemosLibrary::defaultCopies());
    library.refresh();
    const bool readable = library.health() == VoiceMemosLibrary::Health::readable;
    Pick pick{selection.folder, {}, {}, {}};
    pick.result.folderPath = selection.folder.path;
    pick.result.folderId = selection.folder.id;
    std::erase_if(selection.names, [&](const std::string& name) {
        if (removedByPerson && removedByPerson(name)) {
            ++pick.result.removed;
            return true;
        }
        const LibraryRecording* row = nullptr;
        if (readable) {
            row = library.byFile(name);
            row = row != nullptr ? row : library.byTwin(name);
        }
        if (row == nullptr) {
            return false;
        }
        if (row->deleted) {
            ++pick.result.deleted;
            return true;
        }
        pick.uniqueIds[name] = row->uniqueId;
        if (!row->title.empty()) {
            pick.result.titles.emplace_back(name, row->title);
        }
        return false;
    });
    pick.names = std::move(selection.names);
    listPicked(pick);
    return pick;
}

Pick pickFolder(const WatchedFolder& folder, std::optional<TimePoint> since, const CaptureStateStore& store,
                const RemovedByPerson& removedByPerson, const fs::path& firstWatchedFile)
{
    Selection selection = folderRecordings(folder, since, store, firstWatchedFile);
    Pick pick{folder, {}, {}, {}};
    pick.result.folderPath = folder.url().string();
    pick.result.folderId = folder.id;
    pick.result.notIndexed = store.seenCount(folder.id) == 0 || !FirstWatched::find(folder.id, firstWatchedFile);
    std::erase_if(selection.names, [&](const std::string& name) {
        if (removedByPerson && removedByPerson(name)) {
            ++pick.result.removed;
            return true;
        }
        return false;
    });
    pick.names = std::move(selection.names);
    listPicked(pick);
    return pick;
}

// Forgets the picked names in batches, so that a long run can tell how far it is; each batch
// is one consistent write of the state. `done` counts across folders.
void commit(Pick& pick, CaptureStateStore& store, CaptureIdentities* identities, int& done, int total,
            const Progress& progress)
{
    if (pick.names.empty()) {
        return;
    }
    // Recordings remembered as there before capture was set up are history no longer.
    if (identities != nullptr && !pick.uniqueIds.empty()) {
        std::vector<std::string> history;
        for (const auto& name : pick.names) {
            auto id = pick.uniqueIds.find(name);
            if (id == pick.uniqueIds.end()) {
                continue;
            }
            if (auto known = identities->find(id->second); known && known->canonicalId.empty()) {
                history.push_back(id->second);
            }
        }
        identities->forget(history);
    }
    constexpr std::size_t kBatch = 50;
    for (std::size_t at = 0; at < pick.names.size(); at += kBatch) {
        auto last = std::min(pick.names.size(), at + kBatch);
        std::vector<std::string> batch(pick.names.begin() + static_cast<std::ptrdiff_t>(at),
                                       pick.names.begin() + static_cast<std::ptrdiff_t>(last));
        pick.result.wereSeen += static_cast<int>(store.forget(batch, pick.folder.id));
        done += static_cast<int>(batch.size());
        if (progress) {
            progress(done, total);
        }
    }
    rlog("[quillet] capture import: %d recordings from %@ queued (%d were marked seen)", pick.result.picked,
         pick.result.folderPath, pick.result.wereSeen);
}

// Leaves out of the picks what a capture of these folders, or an earlier pick, holds already:
// the same file (a link, or a folder inside another) or the same bytes. Bytes are compared only
// between files of one size. The agent itself knows copies only within one folder.
void leaveOutDuplicates(std::vector<Pick>& picks, const CaptureStateStore& store)
{
    std::set<std::pair<dev_t, ino_t>> files;
    std::map<std::uintmax_t, std::vector<fs::path>> keptBySize;
    std::map<fs::path, std::string> digests;
    auto digestOf = [&digests](const fs::path& file) -> std::string {
        auto known = digests.find(file);
        if (known != digests.end()) {
            return known->second;
        }
        std::string digest;
        try {
            digest = Sha256::ofFile(file);
        } catch (const std::exception&) {
            digest = "unreadable:" + file.string();  // never equal to another's
        }
        return digests.emplace(file, digest).first->second;
    };
    for (const auto& pick : picks) {
        const fs::path root = pick.folder.url();
        auto captured = store.entriesWhere(pick.folder.id, [](std::string_view, const auto& entry) {
            return !entry.file.empty();
        });
        for (const auto& [name, entry] : captured) {
            struct stat info {};
            if (::stat((root / name).c_str(), &info) == 0 && files.insert({info.st_dev, info.st_ino}).second) {
                keptBySize[static_cast<std::uintmax_t>(info.st_size)].push_back(root / name);
            }
        }
    }
    for (auto& pick : picks) {
        const fs::path root = pick.folder.url();
        std::erase_if(pick.names, [&](const std::string& name) {
            const fs::path file = root / name;
            struct stat info {};
            if (::stat(file.c_str(), &info) != 0) {
                return false;  // the agent's guards say what it is
            }
            if (!files.insert({info.st_dev, info.st_ino}).second) {
                ++pick.result.duplicates;
                return true;
            }
            auto& sameSize = keptBySize[static_cast<std::uintmax_t>(info.st_size)];
            for (const auto& kept : sameSize) {
                if (digestOf(kept) == digestOf(file)) {
                    ++pick.result.duplicates;
                    return true;
                }
            }
            sameSize.push_back(file);
            return false;
        });
        if (pick.result.duplicates > 0) {
            std::erase_if(pick.result.titles, [&pick](const auto& title) {
                return std::find(pick.names.begin(), pick.names.end(), title.first) == pick.names.end();
            });
            listPicked(pick);
        }
    }
}

} // namespace

Selection folderRecordings(const WatchedFolder& folder, std::optional<TimePoint> since, const CaptureStateStore& store,
                           const fs::path& firstWatchedFile)
{
    Selection selection{folder, {}};
    const fs::path root = folder.url();
    auto extensions = folder.effectiveExtensions();
    if (extensions.empty()) {
        extensions = CaptureAccess::audioExtensions;
    }
    std::error_code error;
    fs::directory_iterator it(root, error);
    for (; !error && it != fs::directory_iterator(); it.increment(error)) {
        std::string name = it->path().filename().string();
        auto extension = it->path().extension().string();
        std::error_code typeError;
        if (name.starts_with('.') || extension.empty() || !extensions.contains(lowerCased(extension.substr(1))) ||
            !it->is_regular_file(typeError) || it->is_symlink(typeError)) {
            continue;
        }
        selection.names.push_back(std::move(name));
    }
    if (error) {
        throw Failure::unreadable(root.string(), error.message());
    }
    // Until the agent has indexed the folder nothing in it is history: its first index decides.
    const auto firstWatched = FirstWatched::find(folder.id, firstWatchedFile);
    if (!firstWatched || store.seenCount(folder.id) == 0) {
        selection.names.clear();
        return selection;
    }
    std::erase_if(selection.names, [&](const std::string& name) {
        auto modified = CaptureGuards::defaultModified(root / name);
        // What arrived after the first watch is the agent's to catch, and is caught already.
        if (!modified || *modified >= *firstWatched || (since && *modified < *since)) {
            return true;
        }
        auto seen = store.seenEntry(name, folder.id);
        return seen && !seen->file.empty();  // captured
    });
    std::sort(selection.names.begin(), selection.names.end());
    return selection;
}

Result queueExisting(std::optional<TimePoint> since, CaptureStateStore& store, CaptureIdentities* identities,
                     const RemovedByPerson& removedByPerson)
{
    Pick pick = pickVoiceMemos(since, removedByPerson);
    int done = 0;
    commit(pick, store, identities, done, pick.result.picked, nullptr);
    return pick.result;
}

std::vector<Result> queueFolders(const std::vector<WatchedFolder>& folders, std::optional<TimePoint> since,
                                 CaptureStateStore& store, CaptureIdentities* identities,
                                 const RemovedFromFolder& removedByPerson, Mode mode, const Progress& progress,
                                 const fs::path& firstWatchedFile)
{
    const fs::path momentsFile = firstWatchedFile.empty() ? FirstWatched::defaultFile() : firstWatchedFile;
    std::vector<Pick> picks;
    for (const auto& folder : folders) {
        RemovedByPerson removed = nullptr;
        if (removedByPerson) {
            removed = [&removedByPerson, id = folder.id](const std::string& name) { return removedByPerson(id, name); };
        }
        try {
            picks.push_back(folder.isVoiceMemos() ? pickVoiceMemos(since, removed)
                                                  : pickFolder(folder, since, store, removed, momentsFile));
        } catch (const Failure& failure) {
            std::error_code error;
            if (folders.size() < 2 || fs::exists(failure.path(), error) || error) {
                throw;
            }
            Pick missing{folder, {}, {}, {}};
            missing.result.folderPath = failure.path();
            missing.result.folderId = folder.id;
            missing.result.missing = true;
            picks.push_back(std::move(missing));
        }
    }
    leaveOutDuplicates(picks, store);
    if (mode == Mode::queue) {
        int total = 0;
        for (const auto& pick : picks) {
            total += pick.result.picked;
        }
        int done = 0;
        for (auto& pick : picks) {
            commit(pick, store, identities, done, total, progress);
        }
    }
    std::vector<Result> results;
    for (auto& pick : picks) {
        results.push_back(std::move(pick.result));
    }
    return results;
}

Result queueExisting(std::optional<TimePoint> since, const RemovedByPerson& removedByPerson)
{
    return queueExisting(since, CaptureStateStore::shared(), &CaptureIdentities::shared(), removedByPerson);
}

} // namespace quillet::CaptureImport
