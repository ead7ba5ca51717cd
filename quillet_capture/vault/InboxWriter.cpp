#include "quillet_capture/vault/InboxWriter.hpp"

#include "quillet_capture/util/AtomicFile.hpp"
#include "quillet_capture/util/Iso8601.hpp"
#include "quillet_capture/util/Uuid.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <system_error>
#include <vector>

namespace quillet {

namespace fs = std::filesystem;

namespace {

constexpr std::string_view kInbox = "_inbox";
constexpr std::string_view kAudio = ".audio";
constexpr std::string_view kDelimiter = "\n---";

[[noreturn]] void throwErrno(int error, const std::string& what)
{
    throw std::system_error(error, std::generic_category(), what);
}

std::string readText(const fs::path& file)
{
    int fd = openRegularFile(file, O_RDONLY);
    if (fd < 0) {
        throwErrno(errno, "cannot read " + file.string());
    }
    std::string contents;
    char buffer[65536];
    for (;;) {
        ssize_t n = ::read(fd, buffer, sizeof buffer);
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            int error = errno;
            ::close(fd);
            throwErrno(error, "cannot read " + file.string());
        }
        if (n == 0) {
            break;
        }
        contents.append(buffer, static_cast<size_t>(n));
    }
    ::close(fd);
    return contents;
}

// The note's text up to and including the end of its frontmatter block: the block is at the
// top, and the transcript below it (often tens of kilobytes) need not be read to find it.
// Reading stops as soon as the block is closed, or as soon as the text cannot have one.
std::string readFrontmatterText(const fs::path& file)
{
    int fd = openRegularFile(file, O_RDONLY);
    if (fd < 0) {
        throwErrno(errno, "cannot read " + file.string());
    }
    std::string text;
    char buffer[4096];
    for (;;) {
        ssize_t n = ::read(fd, buffer, sizeof buffer);
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            int error = errno;
            ::close(fd);
            throwErrno(error, "cannot read " + file.string());
        }
        if (n == 0) {
            break;
        }
        // The closing delimiter may straddle two reads.
        size_t searchFrom = std::max<size_t>(3, text.size() >= kDelimiter.size() ? text.size() - kDelimiter.size() + 1 : 0);
        text.append(buffer, static_cast<size_t>(n));
        if (text.size() >= 3 && !text.starts_with("---")) {
            break;
        }
        if (text.find(kDelimiter, searchFrom) != std::string::npos) {
            break;
        }
    }
    ::close(fd);
    return text;
}

// macOS's fsync leaves the data in the drive's cache; F_FULLFSYNC is what reaches the disk.
int flushToDisk(int fd)
{
#if defined(F_FULLFSYNC)
    if (::fcntl(fd, F_FULLFSYNC) == 0) {
        return 0;
    }
#endif
    return ::fsync(fd);
}

// Copies the whole of `source` into `fd`, which stands for `target`.
void copyBytes(const fs::path& source, int fd, const fs::path& target)
{
    int in = openRegularFile(source, O_RDONLY | O_NOFOLLOW);
    if (in < 0) {
        throwErrno(errno, "cannot read " + source.string());
    }
    std::vector<char> buffer(1 << 20);
    for (;;) {
        ssize_t got = ::read(in, buffer.data(), buffer.size());
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0) {
            int error = errno;
            ::close(in);
            throwErrno(error, "cannot read " + source.string());
        }
        if (got == 0) {
            break;
        }
        for (ssize_t done = 0; done < got;) {
            ssize_t put = ::write(fd, buffer.data() + done, static_cast<size_t>(got - done));
            if (put < 0 && errno == EINTR) {
                continue;
            }
            if (put < 0) {
                int error = errno;
                ::close(in);
                throwErrno(error, "cannot write " + target.string());
            }
            done += put;
        }
    }
    ::close(in);
}

bool isBlank(char c)
{
    return c == ' ' || c == '\t';
}

bool isSpace(char c)
{
    return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\v' || c == '\f';
}

std::string_view trim(std::string_view text)
{
    while (!text.empty() && isSpace(text.front())) {
        text.remove_prefix(1);
    }
    while (!text.empty() && isSpace(text.back())) {
        text.remove_suffix(1);
    }
    return text;
}

// Length of the line break at the start of `text` (0 when there is none): line feed, vertical
// tab, form feed, carriage return, and in UTF-8 next line, line separator, paragraph separator.
size_t lineBreakLength(std::string_view text)
{
    if (text.empty()) {
        return 0;
    }
    char c = text[0];
    if (c == '\n' || c == '\v' || c == '\f' || c == '\r') {
        return 1;
    }
    if (text.starts_with("\xC2\x85")) {
        return 2;
    }
    if (text.starts_with("\xE2\x80\xA8") || text.starts_with("\xE2\x80\xA9")) {
        return 3;
    }
    return 0;
}

// A value from elsewhere (a status word from the service, a title) must stay on its line, or
// the rest of it would be read as keys of its own.
std::string withLineBreaks(std::string_view text, std::string_view replacement)
{
    std::string result;
    result.reserve(text.size());
    size_t i = 0;
    while (i < text.size()) {
        if (size_t length = lineBreakLength(text.substr(i)); length > 0) {
            result += replacement;
            i += length;
        } else {
            result += text[i++];
        }
    }
    return result;
}

std::string unquotedValue(std::string_view value)
{
    return withLineBreaks(value, "");
}

std::string quotedValue(std::string_view value)
{
    return InboxWriter::yamlString(withLineBreaks(value, " "));
}

void replaceAll(std::string& text, std::string_view from, std::string_view to)
{
    size_t at = 0;
    while ((at = text.find(from, at)) != std::string::npos) {
        text.replace(at, from.size(), to);
        at += to.size();
    }
}

// A double-quoted value loses its quotes and its two escapes.
std::optional<std::string> unquoted(std::string_view value)
{
    if (value.size() >= 2 && value.front() == '"' && value.back() == '"') {
        std::string inner(value.substr(1, value.size() - 2));
        replaceAll(inner, "\\\"", "\"");
        replaceAll(inner, "\\\\", "\\");
        return inner;
    }
    return std::string(value);
}

std::optional<std::string> decodeValue(std::string_view value)
{
    if (value == "null") {
        return std::nullopt;
    }
    return unquoted(value);
}

// Iso8601::parse computes in the clock's nanoseconds and overflows for years the clock
// cannot hold (before 1678, after 2261); a note with such a date reads as if it had none.
std::optional<InboxWriter::TimePoint> parseDate(std::string_view text)
{
    if (text.size() >= 4 && std::all_of(text.begin(), text.begin() + 4, [](char c) { return c >= '0' && c <= '9'; })) {
        int year = (text[0] - '0') * 1000 + (text[1] - '0') * 100 + (text[2] - '0') * 10 + (text[3] - '0');
        if (year < 1678 || year > 2261) {
            return std::nullopt;
        }
    }
    return Iso8601::parse(text);
}

std::optional<std::int64_t> parseInteger(std::string_view text)
{
    if (text.starts_with('+') && text.size() > 1 && text[1] != '-') {
        text.remove_prefix(1);
    }
    std::int64_t value = 0;
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size() || text.empty()) {
        return std::nullopt;
    }
    return value;
}

std::string_view checkedId(std::string_view id)
{
    if (id.empty() || id == "." || id == ".." || id.find_first_of(std::string_view("/\0\n\r", 4)) != std::string_view::npos) {
        throw InboxWriter::Error(InboxWriter::Error::invalidIdCode, "invalid note id: " + std::string(id));
    }
    return id;
}

bool isKnownTopLevel(std::string_view key)
{
    static constexpr std::array<std::string_view, 14> kKeys = {
        "id",   "created", "classification", "status",       "confidence",   "source",      "target_skill",
        "target_folder", "title", "tags", "processed_at", "processed_by", "output_file", "archived_to"};
    return std::find(kKeys.begin(), kKeys.end(), key) != kKeys.end();
}

bool isKnownSourceKey(std::string_view key)
{
    static constexpr std::array<std::string_view, 13> kKeys = {
        "type",           "origin",         "audio_path",    "audio_duration_sec", "ingestion_tool",
        "external_id",    "vd_job_status",  "uploaded_at",   "app",                "microphone",
        "channel_layout", "voice_memos_id", "voice_memos_folder"};
    return std::find(kKeys.begin(), kKeys.end(), key) != kKeys.end();
}

void setTopLevel(InboxWriter::Frontmatter& fm, std::string_view key, std::string_view raw)
{
    auto value = decodeValue(raw);
    auto assign = [&](std::string& field) {
        if (value) {
            field = *value;
        }
    };
    auto date = [&]() -> std::optional<InboxWriter::TimePoint> { return value ? parseDate(*value) : std::nullopt; };
    if (key == "id") {
        assign(fm.id);
    } else if (key == "created") {
        if (auto time = date()) {
            fm.created = *time;
        }
    } else if (key == "classification") {
        assign(fm.classification);
    } else if (key == "status") {
        assign(fm.status);
    } else if (key == "confidence") {
        assign(fm.confidence);
    } else if (key == "target_skill") {
        fm.targetSkill = value;
    } else if (key == "target_folder") {
        fm.targetFolder = value;
    } else if (key == "title") {
        fm.title = value;
    } else if (key == "tags") {
        fm.tags = value ? InboxWriter::parseInlineList(*value) : std::vector<std::string>{};
    } else if (key == "processed_at") {
        fm.processedAt = date();
    } else if (key == "processed_by") {
        fm.processedBy = value;
    } else if (key == "output_file") {
        fm.outputFile = value;
    } else if (key == "archived_to") {
        fm.archivedTo = value;
    }
}

void setSource(InboxWriter::Frontmatter& fm, std::string_view key, std::string_view raw)
{
    auto value = decodeValue(raw);
    auto assign = [&](std::string& field) {
        if (value) {
            field = *value;
        }
    };
    if (key == "type") {
        assign(fm.sourceType);
    } else if (key == "origin") {
        assign(fm.sourceOrigin);
    } else if (key == "audio_path") {
        assign(fm.audioPath);
    } else if (key == "audio_duration_sec") {
        fm.audioDurationSec = value ? parseInteger(*value) : std::nullopt;
    } else if (key == "ingestion_tool") {
        assign(fm.ingestionTool);
    } else if (key == "external_id") {
        fm.externalId = value;
    } else if (key == "vd_job_status") {
        fm.vdJobStatus = value;
    } else if (key == "uploaded_at") {
        fm.uploadedAt = value ? parseDate(*value) : std::nullopt;
    } else if (key == "app") {
        fm.recorderSource = value;
    } else if (key == "microphone") {
        fm.recorderMicrophone = value;
    } else if (key == "channel_layout") {
        fm.recorderChannelLayout = value;
    } else if (key == "voice_memos_id") {
        fm.voiceMemosId = value;
    } else if (key == "voice_memos_folder") {
        fm.voiceMemosFolder = value;
    }
}

} // namespace

InboxWriter::Frontmatter InboxWriter::Frontmatter::forCapture(std::string id, TimePoint created)
{
    Frontmatter fm;
    fm.audioPath = audioLink(id);
    fm.id = std::move(id);
    fm.created = created;
    return fm;
}

const std::set<std::string, std::less<>>& InboxWriter::yamlReservedWords()
{
    static const std::set<std::string, std::less<>> words{"y", "n", "yes", "no", "on", "off", "true", "false", "null", "~"};
    return words;
}

InboxWriter::InboxWriter(fs::path vaultRoot) : vaultRoot_(std::move(vaultRoot)) {}

fs::path InboxWriter::inboxDirectory() const
{
    return vaultRoot_ / kInbox;
}

fs::path InboxWriter::audioDirectory() const
{
    return inboxDirectory() / kAudio;
}

fs::path InboxWriter::noteURL(std::string_view id) const
{
    return inboxDirectory() / (std::string(id) + ".md");
}

fs::path InboxWriter::audioURL(std::string_view id) const
{
    return audioDirectory() / (std::string(id) + ".m4a");
}

std::string InboxWriter::audioLink(std::string_view id)
{
    return "_inbox/.audio/" + std::string(id) + ".m4a";
}

void InboxWriter::ensureDirectories() const
{
    fs::create_directories(inboxDirectory());
    fs::create_directories(audioDirectory());
}

fs::path InboxWriter::copyAudio(const fs::path& source, std::string_view id) const
{
    return copyAudio(source, id, false);
}

fs::path InboxWriter::replaceAudio(const fs::path& source, std::string_view id) const
{
    return copyAudio(source, id, true);
}

fs::path InboxWriter::copyAudio(const fs::path& source, std::string_view id, bool replace) const
{
    checkedId(id);
    ensureDirectories();
    auto destination = audioURL(id);
    std::error_code ignored;
    if (!replace && fs::exists(fs::symlink_status(destination, ignored))) {
        return destination;
    }
    // A dot name and the marker of atomic-write leftovers, so that listings skip the file and
    // the sweep at the agent's start removes it if the process dies before it is renamed; it
    // stays locked against that sweep while `temporary.fd` is open.
    // The copy gets the mode the umask gives new files, not the source's: a private umask
    // keeps the recordings in the vault private.
    auto temporary = createTemporaryFile(destination, 0644);
    const auto& temp = temporary.path;
    auto discard = [&] {
        fs::remove(temp, ignored);
        ::close(temporary.fd);
    };
    try {
        copyBytes(source, temporary.fd, temp);
        if (flushToDisk(temporary.fd) != 0) {
            throwErrno(errno, "cannot flush " + temp.string());
        }
    } catch (...) {
        discard();
        throw;
    }
    if (replace) {
        // rename() swaps the copies in one step: the name holds the old copy or the new one.
        if (::rename(temp.c_str(), destination.c_str()) != 0) {
            int failure = errno;
            discard();
            throwErrno(failure, "cannot name the audio copy " + destination.string());
        }
        ::close(temporary.fd);
    } else if (::link(temp.c_str(), destination.c_str()) != 0) {
        // link() gives the copy its name only if that name is still free, so a copy made at
        // the same moment by someone else is never replaced; rename() would replace it.
        int error = errno;
        if (error == EEXIST) {
            discard();
            return destination;
        }
        bool noHardLinks = error == EPERM || error == ENOTSUP || error == EOPNOTSUPP || error == EXDEV ||
                           error == EMLINK || error == ENOSYS;
        // Some volumes (FAT, some network shares) have no hard links: rename, after a last look
        // for a copy that appeared meanwhile.
        if (!noHardLinks || fs::exists(fs::symlink_status(destination, ignored)) ||
            ::rename(temp.c_str(), destination.c_str()) != 0) {
            int failure = noHardLinks ? errno : error;
            discard();
            if (fs::exists(fs::symlink_status(destination, ignored))) {
                return destination;
            }
            throwErrno(failure, "cannot name the audio copy " + destination.string());
        }
        ::close(temporary.fd);
    } else {
        discard();
    }
    int folder = ::open(audioDirectory().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (folder >= 0) {
        flushToDisk(folder);
        ::close(folder);
    }
    return destination;
}

void InboxWriter::writeStub(const Frontmatter& frontmatter) const
{
    ensureDirectories();
    writeMarkdown(frontmatter, "");
}

void InboxWriter::writeMarkdown(const Frontmatter& frontmatter, std::string_view body) const
{
    writeFileAtomically(noteURL(checkedId(frontmatter.id)), renderMarkdown(frontmatter, body), 0644);
}

void InboxWriter::writeTranscript(std::string_view id, std::string_view transcript, std::string_view vdCacheKey,
                                  const std::optional<std::string>& language, std::optional<std::int64_t> durationSec,
                                  const std::optional<std::string>& llmTitle,
                                  const std::vector<std::string>& tags) const
{
    checkedId(id);
    auto now = std::chrono::system_clock::now();
    Frontmatter fm;
    std::string earlier;
    try {
        auto text = readText(noteURL(id));
        fm = frontmatterFromText(text, now);
        earlier = bodyFromText(text);
    } catch (const std::exception&) {
        fm = Frontmatter::forCapture(std::string(id), now);
    }
    // The program writes no body before the transcript: what is there was typed by the user
    // (or is this transcript, written before), and stays below it.
    std::string body(transcript);
    if (std::string_view typed = trim(earlier); !typed.empty()) {
        if (std::string_view(earlier).starts_with(transcript)) {
            body = earlier;
        } else {
            body += "\n\n";
            body += typed;
        }
    }
    // The transcript belongs in the note of `id`, even when a hand edit lost the id line.
    if (fm.id != id) {
        fm.id = std::string(id);
    }
    fm.vdJobStatus = "done";
    fm.externalId = std::string(vdCacheKey);
    if (llmTitle && !fm.title) {
        fm.title = llmTitle;
    }
    for (const auto& tag : tags) {
        if (std::find(fm.tags.begin(), fm.tags.end(), tag) == fm.tags.end()) {
            fm.tags.push_back(tag);
        }
    }
    if (durationSec) {
        fm.audioDurationSec = durationSec;
    }
    writeMarkdown(fm, body);
}

void InboxWriter::updateVDJobStatus(std::string_view id, std::string_view status) const
{
    checkedId(id);
    auto text = readText(noteURL(id));
    auto fm = frontmatterFromText(text, std::chrono::system_clock::now());
    // Compare what the note will hold, so that a word with a stray line break or blank does
    // not rewrite the note on every poll.
    auto word = std::string(trim(unquotedValue(status)));
    if (fm.vdJobStatus == word) {
        return;
    }
    fm.vdJobStatus = word;
    fm.id = std::string(id);
    writeMarkdown(fm, bodyFromText(text));
}

bool InboxWriter::replaceTitle(std::string_view id, std::string_view from, std::string_view to) const
{
    checkedId(id);
    auto text = readText(noteURL(id));
    auto fm = frontmatterFromText(text, std::chrono::system_clock::now());
    if (fm.title.value_or("") != from || from == to) {
        return false;
    }
    fm.title = std::string(to);
    fm.id = std::string(id);
    writeMarkdown(fm, bodyFromText(text));
    return true;
}

InboxWriter::Frontmatter InboxWriter::readFrontmatter(const fs::path& note)
{
    return frontmatterFromText(readFrontmatterText(note), std::chrono::system_clock::now());
}

InboxWriter::Frontmatter InboxWriter::frontmatterFromText(std::string_view text, TimePoint now)
{
    auto block = extractFrontmatter(text);
    if (!block) {
        throw Error(Error::noFrontmatterCode, "no frontmatter block");
    }
    Frontmatter fm;
    fm.created = now;
    // The block as entries: a line at the left margin with the lines indented below it (or
    // list items, or blank lines). What the program does not know is kept verbatim, after the
    // known key it followed, so that the user's own keys (and what other tools add) survive
    // every rewrite of the note.
    std::vector<std::vector<std::string_view>> entries;
    std::string_view rest = *block;
    while (!rest.empty()) {
        size_t end = rest.find('\n');
        std::string_view line = rest.substr(0, end);
        rest = end == std::string_view::npos ? std::string_view() : rest.substr(end + 1);
        bool below = trim(line).empty() || isBlank(line.front()) || line.front() == '-';
        if (below && !entries.empty()) {
            entries.back().push_back(line);
        } else if (!below) {
            entries.push_back({line});
        }
    }
    auto keyAndValue = [](std::string_view line) -> std::pair<std::string_view, std::string_view> {
        std::string_view trimmed = trim(line);
        size_t colon = trimmed.find(':');
        if (colon == std::string_view::npos) {
            return {};
        }
        return {trim(trimmed.substr(0, colon)), trim(trimmed.substr(colon + 1))};
    };
    auto joined = [](auto first, auto last) {
        std::string text(*first);
        for (auto it = first + 1; it < last; ++it) {
            text += '\n';
            text += *it;
        }
        return text;
    };
    // Blank lines at the end of an entry are spacing, not part of it.
    auto lastLine = [](const std::vector<std::string_view>& lines, size_t from) {
        size_t last = lines.size();
        while (last > from && trim(lines[last - 1]).empty()) {
            --last;
        }
        return last;
    };
    std::string anchor;
    for (const auto& lines : entries) {
        auto [key, value] = keyAndValue(lines.front());
        if (key.empty() || !isKnownTopLevel(key)) {
            fm.kept.emplace_back(anchor, joined(lines.begin(), lines.begin() + lastLine(lines, 1)));
            continue;
        }
        anchor = key;
        setTopLevel(fm, key, value);
        if (key != "source") {
            continue;  // what another key has below it was never the program's to keep
        }
        // The source map: its known keys are read (at any depth, as always), anything else is
        // kept with the lines indented deeper below it.
        // "source." is the top of the map; "source" (a top-level key's anchor) its end.
        std::string inner = "source.";
        bool open = false;
        for (size_t i = 1; i < lastLine(lines, 1); ++i) {
            auto line = lines[i];
            auto [innerKey, innerValue] = keyAndValue(line);
            if (line.starts_with("  ") && !innerKey.empty() && isKnownSourceKey(innerKey)) {
                inner = "source." + std::string(innerKey);
                setSource(fm, innerKey, innerValue);
                open = false;
                continue;
            }
            auto trimmed = trim(line);
            if (open && (line.starts_with("   ") || trimmed.empty() || trimmed.starts_with('-'))) {
                fm.kept.back().second += '\n';
                fm.kept.back().second += line;
                continue;
            }
            fm.kept.emplace_back(inner, std::string(line));
            open = true;
        }
    }
    return fm;
}

std::optional<std::string> InboxWriter::extractFrontmatter(std::string_view text)
{
    if (!text.starts_with("---")) {
        return std::nullopt;
    }
    size_t end = text.find(kDelimiter, 3);
    if (end == std::string_view::npos) {
        return std::nullopt;
    }
    return std::string(text.substr(3, end - 3));
}

std::vector<std::string> InboxWriter::parseInlineList(std::string_view value)
{
    value = trim(value);
    std::vector<std::string> items;
    if (value.size() < 2 || value.front() != '[' || value.back() != ']') {
        return items;
    }
    std::string_view inner = value.substr(1, value.size() - 2);
    for (;;) {
        size_t comma = inner.find(',');
        std::string_view item = trim(inner.substr(0, comma));
        auto text = *unquoted(item);
        if (!text.empty()) {
            items.push_back(std::move(text));
        }
        if (comma == std::string_view::npos) {
            break;
        }
        inner.remove_prefix(comma + 1);
    }
    return items;
}

std::string InboxWriter::readBody(const fs::path& note)
{
    return bodyFromText(readText(note));
}

std::string InboxWriter::bodyFromText(std::string_view text)
{
    size_t at = text.find(kDelimiter, 3);
    if (at == std::string_view::npos) {
        return std::string(text);
    }
    std::string_view body = text.substr(at + kDelimiter.size());
    while (size_t length = lineBreakLength(body)) {
        body.remove_prefix(length);
    }
    return std::string(body);
}

std::string InboxWriter::renderMarkdown(const Frontmatter& fm, std::string_view body)
{
    std::string out;
    out.reserve(512 + body.size());
    // The kept lines go back after the key they followed; those whose key is not written
    // now go at the end of their map.
    std::vector<bool> placed(fm.kept.size(), false);
    auto placeKept = [&](auto belongs) {
        for (size_t i = 0; i < fm.kept.size(); ++i) {
            if (!placed[i] && belongs(fm.kept[i].first)) {
                placed[i] = true;
                out += fm.kept[i].second;
                out += '\n';
            }
        }
    };
    auto line = [&](std::string_view key, std::string_view value) {
        out += key;
        out += value;
        out += '\n';
        if (fm.kept.empty() || key == "---") {
            return;
        }
        // "  type: " follows the key "source.type", "title: " the key "title"; the lines at
        // the top of the source map follow "source:" ("source."), while the top-level lines
        // that followed the map ("source") go after the whole map.
        std::string anchor = key.starts_with("  ") ? "source." : "";
        anchor += trim(key.substr(0, key.find(':')));
        if (anchor == "source") {
            anchor = "source.";
        }
        placeKept([&](const std::string& after) { return after == anchor; });
    };
    line("---", "");
    placeKept([](const std::string& after) { return after.empty(); });
    line("id: ", unquotedValue(fm.id));
    line("created: ", Iso8601::format(fm.created));
    line("classification: ", unquotedValue(fm.classification));
    line("status: ", unquotedValue(fm.status));
    line("confidence: ", unquotedValue(fm.confidence));
    line("source:", "");
    line("  type: ", unquotedValue(fm.sourceType));
    line("  origin: ", unquotedValue(fm.sourceOrigin));
    line("  audio_path: ", unquotedValue(fm.audioPath));
    if (fm.audioDurationSec) {
        line("  audio_duration_sec: ", std::to_string(*fm.audioDurationSec));
    }
    line("  ingestion_tool: ", unquotedValue(fm.ingestionTool));
    if (fm.externalId) {
        line("  external_id: ", quotedValue(*fm.externalId));
    }
    if (fm.vdJobStatus) {
        line("  vd_job_status: ", unquotedValue(*fm.vdJobStatus));
    }
    if (fm.uploadedAt) {
        line("  uploaded_at: ", Iso8601::format(*fm.uploadedAt));
    }
    if (fm.recorderSource) {
        line("  app: ", quotedValue(*fm.recorderSource));
    }
    if (fm.recorderMicrophone) {
        line("  microphone: ", quotedValue(*fm.recorderMicrophone));
    }
    if (fm.recorderChannelLayout) {
        line("  channel_layout: ", quotedValue(*fm.recorderChannelLayout));
    }
    if (fm.voiceMemosId) {
        line("  voice_memos_id: ", quotedValue(*fm.voiceMemosId));
    }
    if (fm.voiceMemosFolder) {
        line("  voice_memos_folder: ", quotedValue(*fm.voiceMemosFolder));
    }
    placeKept([](const std::string& after) { return after.starts_with("source."); });
    placeKept([](const std::string& after) { return after == "source"; });
    if (fm.targetSkill) {
        line("target_skill: ", unquotedValue(*fm.targetSkill));
    }
    if (fm.targetFolder) {
        line("target_folder: ", quotedValue(*fm.targetFolder));
    }
    if (fm.title) {
        line("title: ", quotedValue(*fm.title));
    }
    if (!fm.tags.empty()) {
        std::string list = "[";
        for (size_t i = 0; i < fm.tags.size(); ++i) {
            if (i > 0) {
                list += ", ";
            }
            list += quotedValue(fm.tags[i]);
        }
        list += "]";
        line("tags: ", list);
    }
    if (fm.processedAt) {
        line("processed_at: ", Iso8601::format(*fm.processedAt));
    }
    if (fm.processedBy) {
        line("processed_by: ", unquotedValue(*fm.processedBy));
    }
    if (fm.outputFile) {
        line("output_file: ", quotedValue(*fm.outputFile));
    }
    if (fm.archivedTo) {
        line("archived_to: ", quotedValue(*fm.archivedTo));
    }
    placeKept([](const std::string&) { return true; });
    line("---", "");
    out += '\n';
    out += body;
    return out;
}

std::string InboxWriter::yamlString(std::string_view value)
{
    std::string lower(value);
    std::transform(lower.begin(), lower.end(), lower.begin(),
                   [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; });
    // A tab at either end counts as a blank too: a reader trims it, so it must be quoted to
    // come back.
    bool quote = value.empty() || value.find_first_of(":#\"") != std::string_view::npos || isBlank(value.front()) ||
                 isBlank(value.back()) || yamlReservedWords().contains(lower);
    if (!quote) {
        return std::string(value);
    }
    std::string escaped(value);
    replaceAll(escaped, "\\", "\\\\");
    replaceAll(escaped, "\"", "\\\"");
    return "\"" + escaped + "\"";
}

} // namespace quillet
