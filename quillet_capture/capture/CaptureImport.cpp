#include "quillet_capture/capture/CaptureImport.hpp"

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
    return !extension.empty() && CaptureAccess::audioExtensions.contains(lowerCased(extension.substr(1)));
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

Result queueExisting(std::optional<TimePoint> since, CaptureStateStore& store)
{
    Selection selection = voiceMemosRecordings(since);
    Result result{selection.folder.path, static_cast<int>(selection.names.size()), 0};
    if (selection.names.empty()) {
        return result;
    }
    result.wereSeen = static_cast<int>(store.forget(selection.names, selection.folder.id));
    rlog("[quillet] capture import: %d recordings from %@ queued (%d were marked seen)", result.picked,
         result.folderPath, result.wereSeen);
    return result;
}

Result queueExisting(std::optional<TimePoint> since)
{
    return queueExisting(since, CaptureStateStore::shared());
}

} // namespace quillet::CaptureImport
