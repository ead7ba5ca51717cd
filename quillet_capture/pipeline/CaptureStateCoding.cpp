#include "quillet_capture/pipeline/CaptureStateStore.hpp"

#include "quillet_capture/pipeline/CaptureStateDetail.hpp"
#include "quillet_capture/util/Iso8601.hpp"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <limits>
#include <optional>
#include <string>
#include <string_view>

namespace quillet {

using detail::isUtf8;
using detail::normalised;

namespace {

using json = nlohmann::json;
using State = CaptureStateStore::State;
using TimePoint = CaptureStateStore::TimePoint;

// The system clock counts nanoseconds here, which reach only from 1677 to 2262; dates outside
// the whole years within that are pinned to its ends, so that every stored date can be
// formatted and read back.
using Seconds = std::chrono::sys_seconds;
const Seconds kEarliest = std::chrono::sys_days(std::chrono::year(1678) / 1 / 1);
const Seconds kLatest = std::chrono::sys_days(std::chrono::year(2261) / 12 / 31) + std::chrono::seconds(86399);

} // namespace

TimePoint detail::normalised(TimePoint time)
{
    Seconds secs = std::chrono::floor<std::chrono::seconds>(time);
    return std::clamp(secs, kEarliest, kLatest);
}

namespace {

// Iso8601::parse computes in the clock's nanoseconds and overflows for years it cannot hold,
// so such years are checked here first and pinned like any other date.
std::optional<TimePoint> parseStamp(std::string_view text)
{
    if (text.size() >= 4 && std::all_of(text.begin(), text.begin() + 4, [](char c) { return c >= '0' && c <= '9'; })) {
        int year = std::stoi(std::string(text.substr(0, 4)));
        if (year < 1678 || year > 2261) {
            // A leap year stands in, so that only the form of the text is checked.
            std::string probe = "2000" + std::string(text.substr(4));
            if (!Iso8601::parse(probe)) {
                return std::nullopt;
            }
            return year < 1678 ? kEarliest : kLatest;
        }
    }
    auto time = Iso8601::parse(text);
    if (!time) {
        return std::nullopt;
    }
    return normalised(*time);
}

// --- encoding ---------------------------------------------------------------------------
//
// The state file is rewritten on every change and may hold many thousands of entries, so it
// is written directly into one string rather than through a JSON document tree (which costs
// several times the write itself). The output is what nlohmann's dump(2) would give.

void appendHex4(std::string& out, unsigned value)
{
    static constexpr char kHex[] = "0123456789abcdef";
    out += "\\u00";
    out += kHex[(value >> 4) & 0xF];
    out += kHex[value & 0xF];
}

// Length of the valid UTF-8 sequence at the start of `text`, or 0 when it is not one.
size_t validSequence(std::string_view text)
{
    auto byte = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
    unsigned char lead = byte(0);
    size_t length;
    unsigned char low = 0x80, high = 0xBF;
    if (lead >= 0xC2 && lead <= 0xDF) {
        length = 2;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        length = 3;
        if (lead == 0xE0) {
            low = 0xA0;
        } else if (lead == 0xED) {
            high = 0x9F;  // no UTF-16 surrogates
        }
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        length = 4;
        if (lead == 0xF0) {
            low = 0x90;
        } else if (lead == 0xF4) {
            high = 0x8F;  // nothing above U+10FFFF
        }
    } else {
        return 0;
    }
    if (text.size() < length || byte(1) < low || byte(1) > high) {
        return 0;
    }
    for (size_t i = 2; i < length; ++i) {
        if (byte(i) < 0x80 || byte(i) > 0xBF) {
            return 0;
        }
    }
    return length;
}

// What a byte needs in a JSON string: nothing, an escape, or a check that it starts valid UTF-8.
enum ByteClass : unsigned char { kPlain, kEscape, kMultiByte };

constexpr std::array<ByteClass, 256> kByteClass = [] {
    std::array<ByteClass, 256> table{};
    for (int c = 0; c < 0x20; ++c) {
        table[c] = kEscape;
    }
    table['"'] = kEscape;
    table['\\'] = kEscape;
    for (int c = 0x80; c < 0x100; ++c) {
        table[c] = kMultiByte;
    }
    return table;
}();

// True when one of the eight bytes of `word` is not plain: below 0x20, a double quote, a
// backslash, or 0x80 and above. (Bit tricks: a byte is flagged in the high bit of its lane.)
bool anyNotPlain(std::uint64_t word)
{
    constexpr std::uint64_t kOnes = 0x0101010101010101ULL;
    constexpr std::uint64_t kHighs = 0x8080808080808080ULL;
    auto hasZeroByte = [](std::uint64_t v) { return (v - kOnes) & ~v; };
    std::uint64_t below20 = (word - 0x20 * kOnes) & ~word;
    return ((word | below20 | hasZeroByte(word ^ ('"' * kOnes)) | hasZeroByte(word ^ ('\\' * kOnes))) & kHighs) != 0;
}

// The inside of a JSON string for `text`, without the quotes. Most names need no escape at
// all; they are checked eight bytes at a time. Returns whether `text` was UTF-8 throughout
// (otherwise each stray byte was written as U+FFFD).
bool appendStringBody(std::string& out, std::string_view text)
{
    bool utf8 = true;
    const auto* bytes = reinterpret_cast<const unsigned char*>(text.data());
    size_t size = text.size();
    size_t plainStart = 0;
    size_t i = 0;
    for (;;) {
        while (i + 8 <= size) {
            std::uint64_t word;
            std::memcpy(&word, bytes + i, 8);
            if (anyNotPlain(word)) {
                break;
            }
            i += 8;
        }
        while (i < size && kByteClass[bytes[i]] == kPlain) {
            ++i;
        }
        if (i == size) {
            break;
        }
        if (kByteClass[bytes[i]] == kMultiByte) {
            if (size_t length = validSequence(text.substr(i)); length > 0) {
                i += length;
                continue;
            }
            out.append(text.data() + plainStart, i - plainStart);
            out += "\xEF\xBF\xBD";  // U+FFFD for a byte that is not UTF-8
            utf8 = false;
            plainStart = ++i;
            continue;
        }
        out.append(text.data() + plainStart, i - plainStart);
        switch (bytes[i]) {
        case '"': out += "\\\""; break;
        case '\\': out += "\\\\"; break;
        case '\b': out += "\\b"; break;
        case '\f': out += "\\f"; break;
        case '\n': out += "\\n"; break;
        case '\r': out += "\\r"; break;
        case '\t': out += "\\t"; break;
        default: appendHex4(out, bytes[i]); break;
        }
        plainStart = ++i;
    }
    out.append(text.data() + plainStart, size - plainStart);
    return utf8;
}

} // namespace

bool detail::isUtf8(std::string_view text)
{
    for (size_t i = 0; i < text.size();) {
        if (static_cast<unsigned char>(text[i]) < 0x80) {
            ++i;
        } else if (size_t length = validSequence(text.substr(i)); length > 0) {
            i += length;
        } else {
            return false;
        }
    }
    return true;
}

namespace {

void appendString(std::string& out, std::string_view text)
{
    out += '"';
    appendStringBody(out, text);
    out += '"';
}

void appendDigits(char* at, unsigned value, int count)
{
    for (int i = count - 1; i >= 0; --i) {
        at[i] = static_cast<char>('0' + value % 10);
        value /= 10;
    }
}

// Iso8601::format goes through gmtime_r and strftime, which cost more than the rest of an
// entry together; this is the same text from calendar arithmetic.
void appendTime(std::string& out, TimePoint time)
{
    using namespace std::chrono;
    auto secs = floor<seconds>(time);
    auto day = floor<days>(secs);
    year_month_day date{day};
    hh_mm_ss clock{secs - day};
    char text[20] = {'0', '0', '0', '0', '-', '0', '0', '-', '0', '0', 'T', '0', '0', ':', '0', '0', ':', '0', '0', 'Z'};
    appendDigits(text, static_cast<unsigned>(static_cast<int>(date.year())), 4);
    appendDigits(text + 5, static_cast<unsigned>(date.month()), 2);
    appendDigits(text + 8, static_cast<unsigned>(date.day()), 2);
    appendDigits(text + 11, static_cast<unsigned>(clock.hours().count()), 2);
    appendDigits(text + 14, static_cast<unsigned>(clock.minutes().count()), 2);
    appendDigits(text + 17, static_cast<unsigned>(clock.seconds().count()), 2);
    out.append(text, sizeof text);
}

void appendIndent(std::string& out, int depth)
{
    out += '\n';
    out.append(static_cast<size_t>(depth) * 2, ' ');
}

// Formats the dates of entries, remembering the last one: the entries of one index or import
// share their date, and formatting it for every entry would cost a third of the encoding.
class DateText {
public:
    const std::string& of(TimePoint time)
    {
        if (last_ != time) {
            text_.clear();
            appendTime(text_, time);
            last_ = time;
        }
        return text_;
    }

private:
    std::optional<TimePoint> last_;
    std::string text_;
};

// Everything of an entry but its name, id and date is the same text for every entry at one
// depth, so it is appended in four pieces around them.
struct EntryPieces {
    explicit EntryPieces(int depth)
    {
        std::string entryIndent = "\n" + std::string(static_cast<size_t>(depth + 1) * 2, ' ');
        std::string keyIndent = "\n" + std::string(static_cast<size_t>(depth + 2) * 2, ' ');
        beforeName = entryIndent + "\"";
        beforeId = "\": {" + keyIndent + "\"canonicalId\": \"";
        beforeFile = "\"," + keyIndent + "\"file\": \"";
        beforeTime = "\"," + keyIndent + "\"firstSeen\": \"";
        beforeJudged = "\"," + keyIndent + "\"judged\": \"";
        closing = "\"" + entryIndent + "}";
    }

    std::string beforeName, beforeId, beforeFile, beforeTime, beforeJudged, closing;
};

// The sets of "seenByFolder" sit two levels deep, "voiceMemosSeen" one.
constexpr int kFolderSetDepth = 2;
constexpr int kOldSetDepth = 1;

const EntryPieces& piecesAt(int depth)
{
    static const EntryPieces folderSet(kFolderSetDepth);
    static const EntryPieces oldSet(kOldSetDepth);
    return depth == kOldSetDepth ? oldSet : folderSet;
}

// One entry: a line break and indentation, the name, and its object (no comma).
// Returns whether the name is UTF-8.
bool appendEntry(std::string& out, std::string_view name, const State::SeenEntry& entry, int depth, DateText& dates)
{
    const auto& pieces = piecesAt(depth);
    out += pieces.beforeName;
    bool utf8 = appendStringBody(out, name);
    out += pieces.beforeId;
    appendStringBody(out, entry.canonicalId);
    if (!entry.file.empty()) {
        out += pieces.beforeFile;
        appendStringBody(out, entry.file);
    }
    out += pieces.beforeTime;
    out += dates.of(entry.firstSeen);
    if (!entry.judged.empty()) {
        out += pieces.beforeJudged;
        appendStringBody(out, entry.judged);
    }
    out += pieces.closing;
    return utf8;
}

// Returns whether every name of the set is UTF-8.
bool appendFolderSet(std::string& out, const State::FolderSet& set, int depth, DateText& dates)
{
    if (set.empty()) {
        out += "{}";
        return true;
    }
    out += '{';
    bool first = true;
    bool utf8 = true;
    for (const auto& [name, entry] : set) {
        if (!first) {
            out += ',';
        }
        first = false;
        utf8 &= appendEntry(out, name, entry, depth, dates);
    }
    appendIndent(out, depth);
    out += '}';
    return utf8;
}

// --- keeping the text in step ----------------------------------------------------------

// Where an entry of a folder set starts in the folder's text: its name is the only text that
// follows a line break and exactly six blanks and a quote (the lines inside an entry have eight
// blanks, and strings hold no raw line breaks), and a name's text is unique while every name is
// UTF-8.
std::string entryStart(std::string_view name)
{
    std::string key = piecesAt(kFolderSetDepth).beforeName;
    appendStringBody(key, name);
    key += "\": {";
    return key;
}

// The end of an entry: its closing brace, on a line with six blanks.
const std::string kEntryEnd = "\n      }";
// The end of a folder's set, on a line with four blanks.
const std::string kSetEnd = "\n    }";

// The text of a folder's set; `utf8` (when given) tells whether every name is UTF-8.
std::string folderText(const State::FolderSet& set, bool* utf8 = nullptr)
{
    std::string text;
    text.reserve(64 + set.size() * 160);
    DateText dates;
    bool allUtf8 = appendFolderSet(text, set, kFolderSetDepth, dates);
    if (utf8 != nullptr) {
        *utf8 = allUtf8;
    }
    return text;
}

const State::FolderSet* folderOf(const State& state, std::string_view folderId)
{
    auto folder = state.seenByFolder.find(folderId);
    return folder == state.seenByFolder.end() ? nullptr : &folder->second;
}

// --- decoding ---------------------------------------------------------------------------

std::optional<State::FolderSet> decodeFolderSet(const json& value)
{
    if (!value.is_object()) {
        return std::nullopt;
    }
    State::FolderSet set;
    for (const auto& [name, entry] : value.items()) {
        if (!entry.is_object()) {
            return std::nullopt;
        }
        auto id = entry.find("canonicalId");
        auto seen = entry.find("firstSeen");
        if (id == entry.end() || !id->is_string() || seen == entry.end() || !seen->is_string()) {
            return std::nullopt;
        }
        auto time = parseStamp(seen->get_ref<const std::string&>());
        if (!time) {
            return std::nullopt;
        }
        auto file = entry.find("file");
        auto judged = entry.find("judged");
        set.emplace_hint(set.end(), name,
                         State::SeenEntry{*time, id->get<std::string>(),
                                          file != entry.end() && file->is_string() ? file->get<std::string>() : "",
                                          judged != entry.end() && judged->is_string() ? judged->get<std::string>()
                                                                                         : ""});
    }
    return set;
}

} // namespace

std::string CaptureStateStore::encode(const State& state)
{
    std::string out;
    // About 120 bytes per entry; one allocation instead of twenty doublings.
    out.reserve(256 + (state.totalEntries() + state.voiceMemosSeen.size()) * 160);
    DateText dates;
    out += "{\n  \"seenByFolder\": ";
    if (state.seenByFolder.empty()) {
        out += "{}";
    } else {
        out += '{';
        bool first = true;
        for (const auto& [folder, set] : state.seenByFolder) {
            if (!first) {
                out += ',';
            }
            first = false;
            appendIndent(out, 2);
            appendString(out, folder);
            out += ": ";
            appendFolderSet(out, set, kFolderSetDepth, dates);
        }
        out += "\n  }";
    }
    out += ",\n  \"version\": ";
    out += std::to_string(state.version);
    out += ",\n  \"voiceMemosSeen\": ";
    appendFolderSet(out, state.voiceMemosSeen, kOldSetDepth, dates);
    out += "\n}";
    return out;
}

std::optional<State> CaptureStateStore::decode(std::string_view text)
{
    json root = json::parse(text, nullptr, false);
    if (root.is_discarded() || !root.is_object()) {
        return std::nullopt;
    }
    State state;
    state.version = 1;
    if (auto version = root.find("version"); version != root.end() && !version->is_null()) {
        if (version->is_number_unsigned()) {
            if (version->get<std::uint64_t>() > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
                return std::nullopt;
            }
            state.version = static_cast<std::int64_t>(version->get<std::uint64_t>());
        } else if (version->is_number_integer()) {
            state.version = version->get<std::int64_t>();
        } else {
            return std::nullopt;
        }
    }
    if (auto folders = root.find("seenByFolder"); folders != root.end() && !folders->is_null()) {
        if (!folders->is_object()) {
            return std::nullopt;
        }
        for (const auto& [folder, value] : folders->items()) {
            auto set = decodeFolderSet(value);
            if (!set) {
                return std::nullopt;
            }
            state.seenByFolder.emplace_hint(state.seenByFolder.end(), folder, std::move(*set));
        }
    }
    if (auto old = root.find("voiceMemosSeen"); old != root.end() && !old->is_null()) {
        auto set = decodeFolderSet(*old);
        if (!set) {
            return std::nullopt;
        }
        state.voiceMemosSeen = std::move(*set);
    }
    return state;
}

void CaptureStateStore::EncodedState::reset(const State& state)
{
    folders_.clear();
    for (const auto& [folderId, set] : state.seenByFolder) {
        folderChanged(state, folderId);
    }
}

void CaptureStateStore::EncodedState::folderChanged(const State& state, std::string_view folderId)
{
    const auto* set = folderOf(state, folderId);
    if (set == nullptr) {
        if (auto folder = folders_.find(folderId); folder != folders_.end()) {
            folders_.erase(folder);
        }
        return;
    }
    auto& folder = folders_[std::string(folderId)];
    folder.text = folderText(*set, &folder.spliceable);
}

void CaptureStateStore::EncodedState::entrySet(const State& state, std::string_view folderId, std::string_view name)
{
    const auto* set = folderOf(state, folderId);
    auto folder = folders_.find(folderId);
    auto entry = set ? set->find(name) : State::FolderSet::const_iterator();
    if (set == nullptr || entry == set->end() || folder == folders_.end() || !folder->second.spliceable ||
        !isUtf8(name) || set->size() == 1) {
        return folderChanged(state, folderId);
    }
    auto& text = folder->second.text;
    std::string entryText;
    DateText dates;
    appendEntry(entryText, name, entry->second, kFolderSetDepth, dates);

    if (size_t at = text.find(entryStart(name)); at != std::string::npos) {
        size_t end = text.find(kEntryEnd, at);
        if (end == std::string::npos) {
            return folderChanged(state, folderId);
        }
        text.replace(at, end + kEntryEnd.size() - at, entryText);
        return;
    }
    // A new entry goes before the one that follows it in name order, or last.
    auto next = std::next(entry);
    if (next == set->end()) {
        if (!text.ends_with(kSetEnd)) {
            return folderChanged(state, folderId);
        }
        text.insert(text.size() - kSetEnd.size(), "," + entryText);
        return;
    }
    size_t nextAt = text.find(entryStart(next->first));
    if (nextAt == std::string::npos) {
        return folderChanged(state, folderId);
    }
    text.insert(nextAt, entryText + ",");
}

void CaptureStateStore::EncodedState::entryRemoved(const State& state, std::string_view folderId,
                                                   std::string_view name)
{
    const auto* set = folderOf(state, folderId);
    auto folder = folders_.find(folderId);
    if (set == nullptr || set->empty() || folder == folders_.end() || !folder->second.spliceable) {
        return folderChanged(state, folderId);
    }
    auto& text = folder->second.text;
    size_t at = text.find(entryStart(name));
    if (at == std::string::npos) {
        return;  // it was not there
    }
    size_t end = text.find(kEntryEnd, at);
    if (end == std::string::npos) {
        return folderChanged(state, folderId);
    }
    end += kEntryEnd.size();
    // Entries are joined by commas: take the one after it, or for the last entry the one before.
    if (end < text.size() && text[end] == ',') {
        text.erase(at, end + 1 - at);
    } else if (at > 0 && text[at - 1] == ',') {
        text.erase(at - 1, end - at + 1);
    } else {
        folderChanged(state, folderId);
    }
}

std::string CaptureStateStore::EncodedState::text(const State& state) const
{
    size_t size = 256;
    for (const auto& [folderId, folder] : folders_) {
        size += folderId.size() + folder.text.size() + 16;
    }
    std::string out;
    out.reserve(size + state.voiceMemosSeen.size() * 160);
    out += "{\n  \"seenByFolder\": ";
    if (state.seenByFolder.empty()) {
        out += "{}";
    } else {
        out += '{';
        bool first = true;
        for (const auto& [folderId, set] : state.seenByFolder) {
            if (!first) {
                out += ',';
            }
            first = false;
            appendIndent(out, 2);
            appendString(out, folderId);
            out += ": ";
            if (auto folder = folders_.find(folderId); folder != folders_.end()) {
                out += folder->second.text;
            } else {
                out += folderText(set);
            }
        }
        out += "\n  }";
    }
    out += ",\n  \"version\": ";
    out += std::to_string(state.version);
    out += ",\n  \"voiceMemosSeen\": ";
    DateText dates;
    appendFolderSet(out, state.voiceMemosSeen, kOldSetDepth, dates);
    out += "\n}";
    return out;
}

} // namespace quillet
