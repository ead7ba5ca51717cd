#include "quillet_capture/vault/InboxWriter.hpp"

#include "quillet_capture/platform/Sha256.hpp"

#include "quillet_capture/util/AtomicFile.hpp"
#include "quillet_capture/util/Iso8601.hpp"
#include "quillet_capture/util/Utf8.hpp"
#include "quillet_capture/vault/NoteText.hpp"
#include "quillet_capture/util/Uuid.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <yaml-cpp/yaml.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <charconv>
#include <system_error>
#include <vector>

namespace quillet {

namespace fs = std::filesystem;

namespace {

constexpr std::string_view kInbox = "_inbox";
constexpr std::string_view kAudio = ".audio";

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
        text.append(buffer, static_cast<size_t>(n));
        if (text.size() >= 3 && !text.starts_with("---")) {
            break;
        }
        // The closing line is whole once a line feed follows it.
        if (auto layout = NoteText::layoutOf(text); layout && layout->bodyBegin > 0 && text[layout->bodyBegin - 1] == '\n') {
            break;
        }
    }
    ::close(fd);
    return text;
}

// Copies the whole of `source` into `fd`, which stands for `target`.
/// Copies `source` to `fd`, adding every byte to `digest`; returns the number of bytes.
std::uintmax_t copyBytes(const fs::path& source, int fd, const fs::path& target, Sha256& digest)
{
    std::uintmax_t total = 0;
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
        digest.update(buffer.data(), static_cast<std::size_t>(got));
        total += static_cast<std::uintmax_t>(got);
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
    return total;
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

// A word of the program's own or of the service's (an id, a job status): one line, and YAML
// that reads back as that word.
std::string plainValue(std::string_view value)
{
    return InboxWriter::yamlString(unquotedValue(value));
}

// The characters YAML lets a document hold as they are (tab and line breaks aside, which the
// program always escapes); U+FEFF is read as a byte order mark by some readers.
bool isPrintable(char32_t c)
{
    return (c >= 0x20 && c <= 0x7E) || (c >= 0xA0 && c <= 0xD7FF && c != 0x2028 && c != 0x2029) ||
           (c >= 0xE000 && c <= 0xFFFD && c != 0xFEFF) || (c >= 0x10000 && c <= 0x10FFFF);
}

bool isDigit(char c)
{
    return c >= '0' && c <= '9';
}

// A text that a YAML reader would take for a number, in YAML 1.2 or 1.1: 12, 1_000, 3.5e2,
// 0x1F, 0o17, 0b101, or for a date (1.1's timestamps: 2024-01-31...).
bool readsAsNumberOrDate(std::string_view text)
{
    if (text.empty() || !isDigit(text[0])) {
        return false;
    }
    if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'o' || text[1] == 'b')) {
        return std::all_of(text.begin() + 2, text.end(), [](char c) { return std::isxdigit(static_cast<unsigned char>(c)) || c == '_'; });
    }
    if (text.size() >= 8 && std::all_of(text.begin(), text.begin() + 4, isDigit) && text[4] == '-') {
        return true;
    }
    size_t i = 0;
    while (i < text.size() && (isDigit(text[i]) || text[i] == '_')) {
        ++i;
    }
    if (i < text.size() && text[i] == '.') {
        ++i;
        while (i < text.size() && (isDigit(text[i]) || text[i] == '_')) {
            ++i;
        }
    }
    if (i < text.size() && (text[i] == 'e' || text[i] == 'E')) {
        ++i;
        if (i < text.size() && (text[i] == '+' || text[i] == '-')) {
            ++i;
        }
        size_t digits = i;
        while (i < text.size() && isDigit(text[i])) {
            ++i;
        }
        if (i == digits) {
            return false;
        }
    }
    return i == text.size();
}

// Whether `text` (well-formed UTF-8; `points` its code points) must be quoted to read back
// as itself. Plain is kept for what is plainly safe, so everyday titles stay as people write
// them; anything doubtful is quoted.
bool needsQuotes(std::string_view text, std::u32string_view points)
{
    if (text.empty() || isBlank(text.back())) {
        return true;
    }
    char first = text.front();
    bool safeStart = (first >= 'a' && first <= 'z') || (first >= 'A' && first <= 'Z') || isDigit(first) ||
                     first == '_' || first == '/' || static_cast<unsigned char>(first) >= 0x80;
    if (!safeStart) {
        return true;
    }
    if (!std::all_of(points.begin(), points.end(), isPrintable)) {
        return true;
    }
    if (text.find_first_of(":#,[]{}\"`?") != std::string_view::npos) {
        return true;
    }
    std::string lower(text);
    std::transform(lower.begin(), lower.end(), lower.begin(),
                   [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; });
    return InboxWriter::yamlReservedWords().contains(lower) || readsAsNumberOrDate(text);
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

InboxWriter::AudioCopy InboxWriter::copyAudio(const fs::path& source, std::string_view id) const
{
    return copyAudio(source, id, false);
}

InboxWriter::AudioCopy InboxWriter::replaceAudio(const fs::path& source, std::string_view id) const
{
    return copyAudio(source, id, true);
}

InboxWriter::AudioCopy InboxWriter::copyAudio(const fs::path& source, std::string_view id, bool replace) const
{
    // A copy that was already there is the capture's copy: its own bytes give its digest.
    auto kept = [](const fs::path& copy) {
        AudioCopy existing{copy, Sha256::ofFile(copy), 0};
        std::error_code unknown;
        existing.size = fs::file_size(copy, unknown);
        return existing;
    };
    checkedId(id);
    ensureDirectories();
    auto destination = audioURL(id);
    std::error_code ignored;
    if (!replace && fs::exists(fs::symlink_status(destination, ignored))) {
        return kept(destination);
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
    AudioCopy made{destination, {}, 0};
    try {
        Sha256 digest;
        made.size = copyBytes(source, temporary.fd, temp, digest);
        made.sha256 = digest.hexDigest();
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
            return kept(destination);
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
                return kept(destination);
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
    return made;
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

namespace {

using Frontmatter = InboxWriter::Frontmatter;

[[noreturn]] void throwUnparseable(const NoteText::Unparseable& problem)
{
    int code = problem.problem == NoteText::Problem::noBlock ? InboxWriter::Error::noFrontmatterCode
                                                              : InboxWriter::Error::notYamlCode;
    throw InboxWriter::Error(code, problem.description);
}

// The frontmatter that notes hold almost always: "key: value" lines, at most one level of
// "  key: value" lines under a key, block lists of "  - item" lines, each value a plain scalar
// on one line or quoted without escapes. It is read line by line, as YAML reads it, many times
// faster than a YAML parser; `plainBlock` leaves everything else (comments, flow collections,
// block scalars, escapes, anchors, tabs, other indents, duplicate keys, bytes that are not
// UTF-8) to yaml-cpp.
struct PlainNode {
    enum class Kind { null, scalar, map, sequence };
    Kind kind = Kind::null;
    std::string text;
    std::vector<std::pair<std::string, PlainNode>> entries;
    std::vector<PlainNode> items;
};

// The scalar that `value` (a line's text after "key: " or "- ") is, as YAML reads it; none when
// reading it needs more than this reader knows.
std::optional<PlainNode> plainScalar(std::string_view value)
{
    if (value.empty() || value.front() == ' ' || value.back() == ' ') {
        return std::nullopt;
    }
    const char quote = value.front();
    if (quote == '"' || quote == '\'') {
        if (value.size() < 2 || value.back() != quote) {
            return std::nullopt;
        }
        auto inner = value.substr(1, value.size() - 2);
        if (inner.find(quote) != std::string_view::npos || (quote == '"' && inner.find('\\') != std::string_view::npos)) {
            return std::nullopt;
        }
        return PlainNode{PlainNode::Kind::scalar, std::string(inner), {}, {}};
    }
    static constexpr std::string_view indicators = "-?:,[]{}#&*!|>%@`";
    if (indicators.find(quote) != std::string_view::npos || value.find(": ") != std::string_view::npos ||
        value.find(" #") != std::string_view::npos || value.back() == ':') {
        return std::nullopt;
    }
    // What YAML reads as a null is no text.
    if (value == "~" || value == "null" || value == "Null" || value == "NULL") {
        return std::nullopt;
    }
    return PlainNode{PlainNode::Kind::scalar, std::string(value), {}, {}};
}

// A one-line flow list of plain items, "[a, b c]", as the program writes tags.
std::optional<PlainNode> plainFlowList(std::string_view value)
{
    if (value.size() < 2 || value.front() != '[' || value.back() != ']') {
        return std::nullopt;
    }
    PlainNode list{PlainNode::Kind::sequence, {}, {}, {}};
    auto inner = value.substr(1, value.size() - 2);
    if (inner.find_first_not_of(' ') == std::string_view::npos) {
        return list;
    }
    for (;;) {
        auto comma = inner.find(',');
        auto item = inner.substr(0, comma);
        while (!item.empty() && item.front() == ' ') {
            item.remove_prefix(1);
        }
        while (!item.empty() && item.back() == ' ') {
            item.remove_suffix(1);
        }
        auto scalar = plainScalar(item);
        if (item.find_first_of("[]{}\"'") != std::string_view::npos || !scalar) {
            return std::nullopt;
        }
        list.items.push_back(std::move(*scalar));
        if (comma == std::string_view::npos) {
            return list;
        }
        inner.remove_prefix(comma + 1);
    }
}

bool isPlainKey(std::string_view key)
{
    return !key.empty() && std::all_of(key.begin(), key.end(), [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
    });
}

std::optional<PlainNode> plainBlock(std::string_view block)
{
    // YAML 1.1 also breaks lines at NEL, LS and PS; a byte-order mark is not text.
    if (!Utf8::isValid(block) || block.find("\xC2\x85") != std::string_view::npos ||
        block.find("\xE2\x80\xA8") != std::string_view::npos || block.find("\xE2\x80\xA9") != std::string_view::npos ||
        block.find("\xEF\xBB\xBF") != std::string_view::npos) {
        return std::nullopt;
    }
    for (unsigned char c : block) {
        if ((c < 0x20 && c != '\n') || c == 0x7F) {
            return std::nullopt;  // tabs, CR, other controls
        }
    }
    PlainNode root{PlainNode::Kind::map, {}, {}, {}};
    PlainNode* open = nullptr;  // the value of the last top-level key, while its lines may follow
    std::set<std::string_view> keys;
    std::set<std::string_view> innerKeys;
    while (!block.empty()) {
        auto end = block.find('\n');
        auto line = block.substr(0, end);
        block.remove_prefix(end == std::string_view::npos ? block.size() : end + 1);
        if (line.empty()) {
            continue;
        }
        const bool nested = line.starts_with("  ");
        if (nested) {
            line.remove_prefix(2);
            if (open == nullptr || line.starts_with(' ')) {
                return std::nullopt;
            }
            if (line.starts_with("- ")) {
                if (open->kind == PlainNode::Kind::null) {
                    open->kind = PlainNode::Kind::sequence;
                }
                auto item = plainScalar(line.substr(2));
                if (open->kind != PlainNode::Kind::sequence || !item) {
                    return std::nullopt;
                }
                open->items.push_back(std::move(*item));
                continue;
            }
            if (open->kind == PlainNode::Kind::null) {
                open->kind = PlainNode::Kind::map;
            }
            if (open->kind != PlainNode::Kind::map) {
                return std::nullopt;
            }
        } else {
            open = nullptr;
            innerKeys.clear();
        }
        auto colon = line.find(':');
        if (colon == std::string_view::npos) {
            return std::nullopt;
        }
        auto key = line.substr(0, colon);
        auto rest = line.substr(colon + 1);
        if (!isPlainKey(key) || !(nested ? innerKeys : keys).insert(key).second) {
            return std::nullopt;
        }
        PlainNode value;
        if (!rest.empty()) {
            if (!rest.starts_with(' ')) {
                return std::nullopt;
            }
            auto scalar = rest.starts_with(" [") ? plainFlowList(rest.substr(1)) : plainScalar(rest.substr(1));
            if (!scalar) {
                return std::nullopt;
            }
            value = std::move(*scalar);
        }
        auto& map = nested ? open->entries : root.entries;
        map.emplace_back(std::string(key), std::move(value));
        if (!nested && rest.empty()) {
            open = &root.entries.back().second;
        }
    }
    return root;
}

// The two kinds of node, read through the same few questions.
bool isScalar(const YAML::Node& node)
{
    return node.IsScalar();
}

bool isScalar(const PlainNode& node)
{
    return node.kind == PlainNode::Kind::scalar;
}

const std::string& textOf(const YAML::Node& node)
{
    return node.Scalar();
}

const std::string& textOf(const PlainNode& node)
{
    return node.text;
}

template <typename Visit>
void forEachEntry(const YAML::Node& node, const Visit& visit)
{
    if (!node.IsMap()) {
        return;
    }
    for (const auto& entry : node) {
        if (entry.first.IsScalar()) {
            visit(entry.first.Scalar(), entry.second);
        }
    }
}

template <typename Visit>
void forEachEntry(const PlainNode& node, const Visit& visit)
{
    for (const auto& [key, value] : node.entries) {
        visit(key, value);
    }
}

template <typename Visit>
void forEachItem(const YAML::Node& node, const Visit& visit)
{
    if (node.IsSequence()) {
        for (const auto& item : node) {
            visit(item);
        }
    }
}

template <typename Visit>
void forEachItem(const PlainNode& node, const Visit& visit)
{
    for (const auto& item : node.items) {
        visit(item);
    }
}

bool isSequence(const YAML::Node& node)
{
    return node.IsSequence();
}

bool isSequence(const PlainNode& node)
{
    return node.kind == PlainNode::Kind::sequence;
}

// A scalar's text, or nothing for a null or a value that is not a scalar.
template <typename Node>
std::optional<std::string> scalarOf(const Node& node)
{
    if (!isScalar(node)) {
        return std::nullopt;
    }
    return textOf(node);
}

template <typename Node>
void readInto(std::string& field, const Node& node)
{
    if (auto value = scalarOf(node)) {
        field = *value;
    }
}

// What people may write as tags: a list, or one text with commas between the tags.
template <typename Node>
std::vector<std::string> tagsOf(const Node& node)
{
    std::vector<std::string> tags;
    auto add = [&](std::string_view text) {
        if (auto tag = trim(text); !tag.empty()) {
            tags.emplace_back(tag);
        }
    };
    if (isSequence(node)) {
        forEachItem(node, [&](const auto& item) {
            if (isScalar(item)) {
                add(textOf(item));
            }
        });
    } else if (isScalar(node)) {
        std::string_view text = textOf(node);
        for (;;) {
            size_t comma = text.find(',');
            add(text.substr(0, comma));
            if (comma == std::string_view::npos) {
                break;
            }
            text.remove_prefix(comma + 1);
        }
    }
    return tags;
}

// Each map is walked once: a look-up by key in yaml-cpp walks the whole map and converts
// every key, which made reading a note many times slower than reading its file.
template <typename Node>
void readSource(Frontmatter& fm, const Node& source)
{
    forEachEntry(source, [&](const std::string& key, const Node& value) {
        if (key == "type") {
            readInto(fm.sourceType, value);
        } else if (key == "origin") {
            readInto(fm.sourceOrigin, value);
        } else if (key == "audio_path") {
            readInto(fm.audioPath, value);
        } else if (key == "audio_duration_sec") {
            auto duration = scalarOf(value);
            fm.audioDurationSec = duration ? parseInteger(*duration) : std::nullopt;
        } else if (key == "ingestion_tool") {
            readInto(fm.ingestionTool, value);
        } else if (key == "external_id") {
            fm.externalId = scalarOf(value);
        } else if (key == "vd_job_status") {
            fm.vdJobStatus = scalarOf(value);
        } else if (key == "uploaded_at") {
            auto uploaded = scalarOf(value);
            fm.uploadedAt = uploaded ? parseDate(*uploaded) : std::nullopt;
        } else if (key == "app") {
            fm.recorderSource = scalarOf(value);
        } else if (key == "microphone") {
            fm.recorderMicrophone = scalarOf(value);
        } else if (key == "channel_layout") {
            fm.recorderChannelLayout = scalarOf(value);
        } else if (key == "voice_memos_id") {
            fm.voiceMemosId = scalarOf(value);
        } else if (key == "voice_memos_folder") {
            fm.voiceMemosFolder = scalarOf(value);
        }
    });
}

bool isMap(const YAML::Node& node)
{
    return node.IsMap();
}

bool isMap(const PlainNode& node)
{
    return node.kind == PlainNode::Kind::map;
}

template <typename Node>
Frontmatter frontmatterOf(const Node& root, InboxWriter::TimePoint now)
{
    Frontmatter fm;
    fm.created = now;
    forEachEntry(root, [&](const std::string& key, const Node& value) {
        if (key == "id") {
            readInto(fm.id, value);
        } else if (key == "created") {
            if (auto created = scalarOf(value); created && parseDate(*created)) {
                fm.created = *parseDate(*created);
            }
        } else if (key == "classification") {
            readInto(fm.classification, value);
        } else if (key == "status") {
            readInto(fm.status, value);
        } else if (key == "confidence") {
            readInto(fm.confidence, value);
        } else if (key == "source") {
            if (isMap(value)) {
                readSource(fm, value);
            }
        } else if (key == "target_skill") {
            fm.targetSkill = scalarOf(value);
        } else if (key == "target_folder") {
            fm.targetFolder = scalarOf(value);
        } else if (key == "title") {
            fm.title = scalarOf(value);
        } else if (key == "tags") {
            fm.tags = tagsOf(value);
        } else if (key == "processed_at") {
            auto processed = scalarOf(value);
            fm.processedAt = processed ? parseDate(*processed) : std::nullopt;
        } else if (key == "processed_by") {
            fm.processedBy = scalarOf(value);
        } else if (key == "output_file") {
            fm.outputFile = scalarOf(value);
        } else if (key == "archived_to") {
            fm.archivedTo = scalarOf(value);
        }
    });
    return fm;
}

YAML::Node parseBlock(std::string_view block)
{
    YAML::Node root;
    try {
        root = YAML::Load(std::string(block));
    } catch (const YAML::Exception& error) {
        throw InboxWriter::Error(InboxWriter::Error::notYamlCode, "the frontmatter is not YAML: " + error.msg);
    }
    if (!root.IsNull() && !root.IsMap()) {
        throw InboxWriter::Error(InboxWriter::Error::notYamlCode, "the frontmatter is not a map of keys");
    }
    return root;
}

// The keys that come before `key` ("title", "source.vd_job_status") in its map where the
// program writes a note.
NoteText::Keys predecessors(std::string_view key)
{
    static const NoteText::Keys kTop = {"id",           "created",       "classification", "status",      "confidence",
                                        "source",       "target_skill",  "target_folder",  "title",       "tags",
                                        "processed_at", "processed_by",  "output_file",    "archived_to"};
    static const NoteText::Keys kSource = {"type",           "origin",        "audio_path",     "audio_duration_sec",
                                           "ingestion_tool", "external_id",   "vd_job_status",  "uploaded_at",
                                           "app",            "microphone",    "channel_layout", "voice_memos_id",
                                           "voice_memos_folder"};
    bool inSource = key.starts_with("source.");
    auto name = inSource ? key.substr(7) : key;
    const auto& order = inSource ? kSource : kTop;
    return NoteText::Keys(order.begin(), std::find(order.begin(), order.end(), name));
}

// Writes into `note` the values of `after` that differ from `before`, each in its own place.
void applyChanges(NoteText& note, const Frontmatter& before, const Frontmatter& after)
{
    // A key the note lacks goes where the program writes it in a new note.
    auto put = [&](std::string_view key, const std::string& yaml) { note.set(key, yaml, predecessors(key)); };
    auto date = [&](std::string_view key, const std::optional<InboxWriter::TimePoint>& was,
                    const std::optional<InboxWriter::TimePoint>& now) {
        if (was == now) {
            return;
        }
        if (now) {
            put(key, Iso8601::format(*now));
        } else {
            note.remove(key);
        }
    };
    auto text = [&](std::string_view key, const std::optional<std::string>& was, const std::optional<std::string>& now,
                    bool quoted) {
        if (was == now) {
            return;
        }
        if (!now) {
            note.remove(key);
        } else {
            put(key, quoted ? quotedValue(*now) : plainValue(*now));
        }
    };
    auto plain = [&](std::string_view key, const std::string& was, const std::string& now) {
        text(key, was, now, false);
    };
    plain("id", before.id, after.id);
    date("created", before.created, after.created);
    plain("classification", before.classification, after.classification);
    plain("status", before.status, after.status);
    plain("confidence", before.confidence, after.confidence);
    plain("source.type", before.sourceType, after.sourceType);
    plain("source.origin", before.sourceOrigin, after.sourceOrigin);
    plain("source.audio_path", before.audioPath, after.audioPath);
    if (before.audioDurationSec != after.audioDurationSec) {
        if (after.audioDurationSec) {
            put("source.audio_duration_sec", std::to_string(*after.audioDurationSec));
        } else {
            note.remove("source.audio_duration_sec");
        }
    }
    plain("source.ingestion_tool", before.ingestionTool, after.ingestionTool);
    text("source.external_id", before.externalId, after.externalId, true);
    text("source.vd_job_status", before.vdJobStatus, after.vdJobStatus, false);
    date("source.uploaded_at", before.uploadedAt, after.uploadedAt);
    text("source.app", before.recorderSource, after.recorderSource, true);
    text("source.microphone", before.recorderMicrophone, after.recorderMicrophone, true);
    text("source.channel_layout", before.recorderChannelLayout, after.recorderChannelLayout, true);
    text("source.voice_memos_id", before.voiceMemosId, after.voiceMemosId, true);
    text("source.voice_memos_folder", before.voiceMemosFolder, after.voiceMemosFolder, true);
    text("target_skill", before.targetSkill, after.targetSkill, false);
    text("target_folder", before.targetFolder, after.targetFolder, true);
    text("title", before.title, after.title, true);
    if (before.tags != after.tags) {
        std::vector<std::string> all;
        for (const auto& tag : after.tags) {
            all.push_back(quotedValue(tag));
        }
        bool appended = after.tags.size() > before.tags.size() &&
                        std::equal(before.tags.begin(), before.tags.end(), after.tags.begin());
        if (after.tags.empty()) {
            note.remove("tags");
        } else if (appended) {
            note.appendToList("tags", std::vector<std::string>(all.begin() + static_cast<std::ptrdiff_t>(before.tags.size()), all.end()), all, predecessors("tags"));
        } else {
            std::string list = "[";
            for (const auto& item : all) {
                list += list.size() > 1 ? ", " : "";
                list += item;
            }
            put("tags", list + "]");
        }
    }
    date("processed_at", before.processedAt, after.processedAt);
    text("processed_by", before.processedBy, after.processedBy, false);
    text("output_file", before.outputFile, after.outputFile, true);
    text("archived_to", before.archivedTo, after.archivedTo, true);
}

// What `after` reads back as once written over `before`: the values that changed, as the
// program writes them (line breaks gone, UTF-8 made valid, times in whole seconds).
Frontmatter writtenForm(const Frontmatter& before, Frontmatter after)
{
    auto valid = [](std::string_view text) { return Utf8::encoded(Utf8::codePoints(text)); };
    auto plain = [&](std::string& value) { value = valid(unquotedValue(value)); };
    auto quoted = [&](std::string& value) { value = valid(withLineBreaks(value, " ")); };
    auto seconds = [](InboxWriter::TimePoint time) { return std::chrono::floor<std::chrono::seconds>(time); };
    for (auto member : {&Frontmatter::id, &Frontmatter::classification, &Frontmatter::status, &Frontmatter::confidence,
                        &Frontmatter::sourceType, &Frontmatter::sourceOrigin, &Frontmatter::audioPath,
                        &Frontmatter::ingestionTool}) {
        if (before.*member != after.*member) {
            plain(after.*member);
        }
    }
    for (auto member : {&Frontmatter::vdJobStatus, &Frontmatter::targetSkill, &Frontmatter::processedBy}) {
        if (before.*member != after.*member && after.*member) {
            plain(*(after.*member));
        }
    }
    for (auto member : {&Frontmatter::externalId, &Frontmatter::recorderSource, &Frontmatter::recorderMicrophone,
                        &Frontmatter::recorderChannelLayout, &Frontmatter::voiceMemosId, &Frontmatter::voiceMemosFolder,
                        &Frontmatter::targetFolder, &Frontmatter::title, &Frontmatter::outputFile,
                        &Frontmatter::archivedTo}) {
        if (before.*member != after.*member && after.*member) {
            quoted(*(after.*member));
        }
    }
    if (before.tags != after.tags) {
        std::vector<std::string> tags;
        for (auto tag : after.tags) {
            quoted(tag);
            if (auto trimmed = trim(tag); !trimmed.empty()) {
                tags.emplace_back(trimmed);
            }
        }
        after.tags = std::move(tags);
    }
    if (before.created != after.created) {
        after.created = seconds(after.created);
    }
    for (auto member : {&Frontmatter::uploadedAt, &Frontmatter::processedAt}) {
        if (before.*member != after.*member && after.*member) {
            after.*member = seconds(*(after.*member));
        }
    }
    return after;
}

} // namespace

bool InboxWriter::editNote(std::string_view id, const Change& change) const
{
    checkedId(id);
    const auto file = noteURL(id);
    // An editor may save the note between our read and our write: the edit is then made
    // again on what it saved, so the person's save is never overwritten with older text.
    constexpr int kAttempts = 5;
    for (int attempt = 1;; ++attempt) {
        auto original = readText(file);
        std::optional<NoteText> note;
        try {
            note.emplace(original);
        } catch (const NoteText::Unparseable& problem) {
            throwUnparseable(problem);
        }
        const auto now = std::chrono::system_clock::now();
        auto before = frontmatterOf(parseBlock(note->block()), now);
        auto after = before;
        std::string body(note->body());
        const std::string bodyBefore = body;
        change(after, body);
        try {
            applyChanges(*note, before, after);
            if (body != bodyBefore) {
                note->setBody(body);
            }
        } catch (const NoteText::Unparseable& problem) {
            throwUnparseable(problem);
        }
        if (note->text() == original) {
            return false;
        }
        // The edited block must read back as the values asked for, every other value as it
        // was: a layout the line edits do not understand is refused, never written.
        std::optional<Frontmatter> readBack;
        try {
            readBack = frontmatterOf(parseBlock(note->block()), now);
        } catch (const Error&) {
        }
        if (!readBack || !(*readBack == writtenForm(before, after))) {
            throw Error(Error::notYamlCode, "the frontmatter cannot be edited in place");
        }
        bool written = writeFileAtomically(file, note->text(), 0644, Durability::flushed, [&] {
            auto now = readWholeFile(file);
            return now && *now == original;
        });
        if (written) {
            return true;
        }
        if (attempt == kAttempts) {
            throw std::system_error(std::make_error_code(std::errc::resource_unavailable_try_again),
                                    "the note " + file.string() + " keeps changing");
        }
    }
}

void InboxWriter::writeTranscript(std::string_view id, std::string_view transcript, std::string_view vdCacheKey,
                                  const std::optional<std::string>& language, std::optional<std::int64_t> durationSec,
                                  const std::optional<std::string>& llmTitle,
                                  const std::vector<std::string>& tags) const
{
    checkedId(id);
    auto change = [&](Frontmatter& fm, std::string& body) {
        // The program writes no body before the transcript: what is there was typed by the
        // person (or is this transcript, written before), and stays below it.
        if (std::string_view typed = trim(body); typed.empty()) {
            body = std::string(transcript);
        } else if (!std::string_view(body).starts_with(transcript)) {
            std::string earlier(typed);
            body = std::string(transcript) + "\n\n" + earlier;
        }
        // The transcript belongs in the note of `id`, even when a hand edit lost the id line.
        fm.id = std::string(id);
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
    };
    std::error_code missing;
    if (!fs::exists(fs::symlink_status(noteURL(id), missing))) {
        auto fm = Frontmatter::forCapture(std::string(id), std::chrono::system_clock::now());
        std::string body;
        change(fm, body);
        ensureDirectories();
        writeMarkdown(fm, body);
        return;
    }
    editNote(id, change);
}

fs::path InboxWriter::writeTranscriptBeside(std::string_view id, std::string_view transcript) const
{
    checkedId(id);
    ensureDirectories();
    auto file = inboxDirectory() / (std::string(id) + ".transcript.md");
    writeFileAtomically(file, std::string(transcript) + "\n", 0644);
    return file;
}

void InboxWriter::updateVDJobStatus(std::string_view id, std::string_view status) const
{
    // Compare what the note will hold, so that a word with a stray line break or blank does
    // not rewrite the note on every poll.
    auto word = std::string(trim(unquotedValue(status)));
    editNote(id, [&](Frontmatter& fm, std::string&) { fm.vdJobStatus = word; });
}

bool InboxWriter::replaceTitle(std::string_view id, std::string_view from, std::string_view to) const
{
    return editNote(id, [&](Frontmatter& fm, std::string&) {
        if (fm.title.value_or("") == from && from != to) {
            fm.title = std::string(to);
        }
    });
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
    if (auto plain = plainBlock(*block)) {
        return frontmatterOf(*plain, now);
    }
    return frontmatterOf(parseBlock(*block), now);
}

InboxWriter::Frontmatter InboxWriter::frontmatterFromYaml(std::string_view text, TimePoint now)
{
    auto block = extractFrontmatter(text);
    if (!block) {
        throw Error(Error::noFrontmatterCode, "no frontmatter block");
    }
    return frontmatterOf(parseBlock(*block), now);
}

std::optional<std::string> InboxWriter::extractFrontmatter(std::string_view text)
{
    auto layout = NoteText::layoutOf(text);
    if (!layout) {
        return std::nullopt;
    }
    return std::string(text.substr(layout->blockBegin, layout->blockEnd - layout->blockBegin));
}

std::string InboxWriter::readBody(const fs::path& note)
{
    return bodyFromText(readText(note));
}

std::string InboxWriter::bodyFromText(std::string_view text)
{
    auto layout = NoteText::layoutOf(text);
    if (!layout) {
        return std::string(text);
    }
    std::string_view body = text.substr(layout->bodyBegin);
    while (size_t length = lineBreakLength(body)) {
        body.remove_prefix(length);
    }
    return std::string(body);
}

std::string InboxWriter::renderMarkdown(const Frontmatter& fm, std::string_view body)
{
    std::string out;
    out.reserve(512 + body.size());
    auto line = [&](std::string_view key, std::string_view value) {
        out += key;
        out += value;
        out += '\n';
    };
    line("---", "");
    line("id: ", plainValue(fm.id));
    line("created: ", Iso8601::format(fm.created));
    line("classification: ", plainValue(fm.classification));
    line("status: ", plainValue(fm.status));
    line("confidence: ", plainValue(fm.confidence));
    line("source:", "");
    line("  type: ", plainValue(fm.sourceType));
    line("  origin: ", plainValue(fm.sourceOrigin));
    line("  audio_path: ", plainValue(fm.audioPath));
    if (fm.audioDurationSec) {
        line("  audio_duration_sec: ", std::to_string(*fm.audioDurationSec));
    }
    line("  ingestion_tool: ", plainValue(fm.ingestionTool));
    if (fm.externalId) {
        line("  external_id: ", quotedValue(*fm.externalId));
    }
    if (fm.vdJobStatus) {
        line("  vd_job_status: ", plainValue(*fm.vdJobStatus));
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
    if (fm.targetSkill) {
        line("target_skill: ", plainValue(*fm.targetSkill));
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
        line("processed_by: ", plainValue(*fm.processedBy));
    }
    if (fm.outputFile) {
        line("output_file: ", quotedValue(*fm.outputFile));
    }
    if (fm.archivedTo) {
        line("archived_to: ", quotedValue(*fm.archivedTo));
    }
    line("---", "");
    out += '\n';
    out += body;
    return out;
}

std::string InboxWriter::yamlString(std::string_view value)
{
    auto points = Utf8::codePoints(value);
    auto text = Utf8::encoded(points);
    if (!needsQuotes(text, points)) {
        return text;
    }
    std::string out = "\"";
    for (char32_t c : points) {
        switch (c) {
        case U'"': out += "\\\""; break;
        case U'\\': out += "\\\\"; break;
        case U'\0': out += "\\0"; break;
        case U'\t': out += "\\t"; break;
        case U'\n': out += "\\n"; break;
        case U'\r': out += "\\r"; break;
        case 0x1B: out += "\\e"; break;
        default:
            if (isPrintable(c)) {
                out += Utf8::encoded(std::u32string_view(&c, 1));
            } else {
                char escape[12];
                // \x only below 0x80: some readers take \x80 and above for a byte, not a code point.
                std::snprintf(escape, sizeof escape, c < 0x80 ? "\\x%02X" : "\\u%04X", static_cast<unsigned>(c));
                out += escape;
            }
        }
    }
    out += '"';
    return out;
}

} // namespace quillet
