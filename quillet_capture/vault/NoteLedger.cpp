#include "quillet_capture/vault/NoteLedger.hpp"

#include "quillet_capture/config/Log.hpp"
#include "quillet_capture/util/AtomicFile.hpp"
#include "quillet_capture/util/Iso8601.hpp"

#include <nlohmann/json.hpp>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace quillet {

namespace fs = std::filesystem;
using json = nlohmann::json;

namespace {

std::string stamp(NoteLedger::TimePoint time)
{
    return Iso8601::format(std::chrono::time_point_cast<std::chrono::seconds>(time));
}

std::optional<NoteLedger::TimePoint> timeOf(const json& line, const char* key)
{
    auto found = line.find(key);
    if (found == line.end() || !found->is_string()) {
        return std::nullopt;
    }
    return Iso8601::parse(found->get<std::string>());
}

std::string textOf(const json& line, const char* key)
{
    auto found = line.find(key);
    return found != line.end() && found->is_string() ? found->get<std::string>() : std::string();
}

} // namespace

NoteLedger::NoteLedger(fs::path vaultRoot)
    : vaultRoot_(std::move(vaultRoot)), file_(vaultRoot_ / "_inbox" / ".audio" / ".ledger.jsonl")
{
}

void NoteLedger::noteMade(std::string_view id, const Source& source, TimePoint created, TimePoint at,
                          std::string_view externalId, bool flush) const
{
    json line{{"event", "made"}, {"id", id}, {"at", stamp(at)}, {"created", stamp(created)}};
    if (!source.folderId.empty()) {
        line["folder"] = source.folderId;
        line["name"] = source.name;
    }
    if (!source.voiceMemosId.empty()) {
        line["voiceMemosId"] = source.voiceMemosId;
    }
    if (!externalId.empty()) {
        line["externalId"] = externalId;
    }
    append(line.dump(-1, ' ', false, json::error_handler_t::replace), flush);
}

void NoteLedger::copyWritten(std::string_view id, std::string_view sha256, std::uintmax_t size, TimePoint at) const
{
    append(json{{"event", "copy"}, {"id", id}, {"sha256", sha256}, {"size", size}, {"at", stamp(at)}}.dump(
        -1, ' ', false, json::error_handler_t::replace));
}

void NoteLedger::keyRecorded(std::string_view id, std::string_view externalId) const
{
    append(json{{"event", "key"}, {"id", id}, {"externalId", externalId}}.dump(-1, ' ', false,
                                                                                json::error_handler_t::replace));
}

void NoteLedger::restored(std::string_view id, TimePoint at) const
{
    append(json{{"event", "restored"}, {"id", id}, {"at", stamp(at)}}.dump(-1, ' ', false,
                                                                            json::error_handler_t::replace));
}

void NoteLedger::append(const std::string& line, bool flush) const
{
    std::error_code ignored;
    fs::create_directories(file_.parent_path(), ignored);
    int fd = openRegularFile(file_, O_RDWR | O_APPEND | O_CREAT, 0644);
    if (fd < 0) {
        rlog("[quillet] ledger: cannot open %@: %@", file_.string(), std::strerror(errno));
        return;
    }
    // One write per line: O_APPEND keeps lines of two writers whole. A line cut off by a
    // crash is ended first, so that the reader skips it alone and not the line after it too.
    std::string whole = line + "\n";
    struct stat facts {};
    char last = '\n';
    if (::fstat(fd, &facts) == 0 && facts.st_size > 0 && ::pread(fd, &last, 1, facts.st_size - 1) == 1 &&
        last != '\n') {
        whole.insert(whole.begin(), '\n');
    }
    ssize_t put = ::write(fd, whole.data(), whole.size());
    if (put != static_cast<ssize_t>(whole.size()) || (flush && flushToDisk(fd) != 0)) {
        rlog("[quillet] ledger: cannot write %@: %@", file_.string(),
             put < 0 || errno != 0 ? std::strerror(errno) : "short write");
    }
    ::close(fd);
}

std::map<std::string, NoteLedger::Record> NoteLedger::read() const
{
    std::map<std::string, Record> records;
    auto text = readWholeFile(file_);
    if (!text) {
        return records;
    }
    std::size_t start = 0;
    while (start < text->size()) {
        auto end = text->find('\n', start);
        if (end == std::string::npos) {
            end = text->size();
        }
        auto line = json::parse(text->begin() + static_cast<std::ptrdiff_t>(start),
                                text->begin() + static_cast<std::ptrdiff_t>(end), nullptr, false);
        start = end + 1;
        if (!line.is_object()) {
            continue;
        }
        auto id = textOf(line, "id");
        auto event = textOf(line, "event");
        if (id.empty()) {
            continue;
        }
        auto& record = records[id];
        if (event == "made") {
            record.made = timeOf(line, "at").value_or(TimePoint{});
            record.restorePending = false;
            record.created = timeOf(line, "created");
            auto folder = textOf(line, "folder");
            if (!folder.empty()) {
                record.source = {folder, textOf(line, "name"), textOf(line, "voiceMemosId")};
            } else if (auto memo = textOf(line, "voiceMemosId"); !memo.empty()) {
                record.source.voiceMemosId = memo;
            }
            if (auto key = textOf(line, "externalId"); !key.empty()) {
                record.externalIds.insert(key);
            }
        } else if (event == "copy") {
            record.sha256 = textOf(line, "sha256");
            auto size = line.find("size");
            record.size = size != line.end() && size->is_number_unsigned() ? size->get<std::uintmax_t>() : 0;
            record.copied = timeOf(line, "at");
        } else if (event == "key") {
            if (auto key = textOf(line, "externalId"); !key.empty()) {
                record.externalIds.insert(key);
            }
        } else if (event == "restored") {
            record.restored = timeOf(line, "at");
            record.restorePending = true;
        }
    }
    return records;
}

bool NoteLedger::removedByPerson(const fs::path& note, const Record& record)
{
    if (!record.made || record.restorePending) {
        return false;
    }
    std::error_code error;
    auto status = fs::symlink_status(note, error);
    // Only a note that is surely gone counts: one that cannot be looked at is not removed.
    return status.type() == fs::file_type::not_found;
}

bool NoteLedger::removedByPerson(std::string_view id) const
{
    auto records = read();
    auto found = records.find(std::string(id));
    if (found == records.end()) {
        return false;
    }
    return removedByPerson(vaultRoot_ / "_inbox" / (std::string(id) + ".md"), found->second);
}

} // namespace quillet
