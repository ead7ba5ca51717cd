#include "quillet_capture/capture/CaptureImport.hpp"

#include "quillet_capture/library/VoiceMemosLibrary.hpp"
#include "quillet_capture/pipeline/CaptureIdentities.hpp"

#include "quillet_capture/capture/CaptureAccess.hpp"
#include "quillet_capture/config/Log.hpp"
#include "quillet_capture/pipeline/CaptureStateStore.hpp"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <system_error>

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

Result queueExisting(std::optional<TimePoint> since, CaptureStateStore& store, CaptureIdentities* identities,
                     const RemovedByPerson& removedByPerson)
{
    Selection selection = voiceMemosRecordings(since);
    // What Voice Memos knows of them: their titles, and which the person deleted (never
    // picked: the agent does not capture those).
    VoiceMemosLibrary library(selection.folder.url(), VoiceMemosLibrary::defaultCopies());
    library.refresh();
    const bool readable = library.health() == VoiceMemosLibrary::Health::readable;
    std::vector<std::string> uniqueIds;
    Result result{selection.folder.path, 0, 0, 0, 0, {}};
    std::erase_if(selection.names, [&](const std::string& name) {
        if (removedByPerson && removedByPerson(name)) {
            ++result.removed;
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
            ++result.deleted;
            return true;
        }
        uniqueIds.push_back(row->uniqueId);
        if (!row->title.empty()) {
            result.titles.emplace_back(name, row->title);
        }
        return false;
    });
    result.picked = static_cast<int>(selection.names.size());
    if (selection.names.empty()) {
        return result;
    }
    // Recordings remembered as there before capture was set up are history no longer.
    if (identities != nullptr) {
        std::vector<std::string> history;
        for (const auto& id : uniqueIds) {
            if (auto known = identities->find(id); known && known->canonicalId.empty()) {
                history.push_back(id);
            }
        }
        identities->forget(history);
    }
    result.wereSeen = static_cast<int>(store.forget(selection.names, selection.folder.id));
    rlog("[quillet] capture import: %d recordings from %@ queued (%d were marked seen)", result.picked,
         result.folderPath, result.wereSeen);
    return result;
}

Result queueExisting(std::optional<TimePoint> since, const RemovedByPerson& removedByPerson)
{
    return queueExisting(since, CaptureStateStore::shared(), &CaptureIdentities::shared(), removedByPerson);
}

} // namespace quillet::CaptureImport
