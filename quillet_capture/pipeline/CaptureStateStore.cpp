#include "quillet_capture/pipeline/CaptureStateStore.hpp"

#include "quillet_capture/config/Log.hpp"
#include "quillet_capture/pipeline/CaptureStateMigration.hpp"
#include "quillet_capture/platform/Paths.hpp"
#include "quillet_capture/util/AtomicFile.hpp"
#include "quillet_capture/util/Iso8601.hpp"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <exception>
#include <limits>
#include <system_error>

namespace quillet {

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

TimePoint normalised(TimePoint time)
{
    Seconds secs = std::chrono::floor<std::chrono::seconds>(time);
    return std::clamp(secs, kEarliest, kLatest);
}

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

void appendString(std::string& out, std::string_view text)
{
    out += '"';
    size_t plainStart = 0;
    size_t i = 0;
    auto flush = [&] { out.append(text.data() + plainStart, i - plainStart); };
    while (i < text.size()) {
        auto c = static_cast<unsigned char>(text[i]);
        if (c >= 0x20 && c != '"' && c != '\\' && c < 0x80) {
            ++i;
            continue;
        }
        if (c >= 0x80) {
            if (size_t length = validSequence(text.substr(i)); length > 0) {
                i += length;
                continue;
            }
            flush();
            out += "\xEF\xBF\xBD";  // U+FFFD for a byte that is not UTF-8
            plainStart = ++i;
            continue;
        }
        flush();
        switch (c) {
        case '"': out += "\\\""; break;
        case '\\': out += "\\\\"; break;
        case '\b': out += "\\b"; break;
        case '\f': out += "\\f"; break;
        case '\n': out += "\\n"; break;
        case '\r': out += "\\r"; break;
        case '\t': out += "\\t"; break;
        default: appendHex4(out, c); break;
        }
        plainStart = ++i;
    }
    flush();
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
    out += '"';
    out.append(text, sizeof text);
    out += '"';
}

void appendIndent(std::string& out, int depth)
{
    out += '\n';
    out.append(static_cast<size_t>(depth) * 2, ' ');
}

void appendFolderSet(std::string& out, const State::FolderSet& set, int depth)
{
    if (set.empty()) {
        out += "{}";
        return;
    }
    out += '{';
    bool first = true;
    for (const auto& [name, entry] : set) {
        if (!first) {
            out += ',';
        }
        first = false;
        appendIndent(out, depth + 1);
        appendString(out, name);
        out += ": {";
        appendIndent(out, depth + 2);
        out += "\"canonicalId\": ";
        appendString(out, entry.canonicalId);
        out += ',';
        appendIndent(out, depth + 2);
        out += "\"firstSeen\": ";
        appendTime(out, entry.firstSeen);
        appendIndent(out, depth + 1);
        out += '}';
    }
    appendIndent(out, depth);
    out += '}';
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
        set.emplace_hint(set.end(), name, State::SeenEntry{*time, id->get<std::string>()});
    }
    return set;
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

std::string CaptureStateStore::encode(const State& state)
{
    std::string out;
    // About 110 bytes per entry; one allocation instead of twenty doublings.
    out.reserve(128 + state.totalEntries() * 128 + state.voiceMemosSeen.size() * 128);
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
            appendFolderSet(out, set, 2);
        }
        out += "\n  }";
    }
    out += ",\n  \"version\": ";
    out += std::to_string(state.version);
    out += ",\n  \"voiceMemosSeen\": ";
    appendFolderSet(out, state.voiceMemosSeen, 1);
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

CaptureStateStore& CaptureStateStore::shared()
{
    // Never destroyed: watchers and tasks may still call it while the process ends.
    static auto* store = new CaptureStateStore(Paths::stateFile(), Paths::legacyWatcherFile());
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
        if (auto stored = decode(*text)) {
            auto oldVersion = stored->version;
            state_ = CaptureStateMigration::migrate(std::move(*stored));
            if (state_.version != oldVersion) {
                rlog("[quillet] capture: migrated state v%d -> v%d (%d entries)", oldVersion, state_.version,
                     state_.totalEntries());
                persistLocked();
            }
            return;
        }
    }
    auto legacy = readWholeFile(legacyPath_);
    auto processed = legacy ? CaptureStateMigration::legacyProcessedNames(*legacy) : std::nullopt;
    if (!processed) {
        return;
    }
    rlog("[quillet] capture: migrating %d entries from voice-memo-watcher state", processed->size());
    state_ = CaptureStateMigration::fromLegacyPythonState(*processed, normalised(clock_.now()));
    persistLocked();
}

void CaptureStateStore::persistLocked()
{
    try {
        writeFileAtomically(storePath_, encode(state_), 0644);
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
    return folder != state_.seenByFolder.end() && folder->second.contains(name);
}

void CaptureStateStore::markSeen(std::string_view name, std::string_view canonicalId, std::string_view folderId,
                                 std::optional<TimePoint> at)
{
    auto firstSeen = stamp(at);
    std::lock_guard guard(queue_);
    auto& set = state_.seenByFolder[std::string(folderId)];
    set.insert_or_assign(std::string(name), State::SeenEntry{firstSeen, std::string(canonicalId)});
    persistLocked();
}

void CaptureStateStore::markIndexed(const std::vector<SeenName>& files, std::string_view folderId,
                                    std::optional<TimePoint> at)
{
    auto firstSeen = stamp(at);
    std::lock_guard guard(queue_);
    auto& set = state_.seenByFolder[std::string(folderId)];
    for (const auto& file : files) {
        set.insert_or_assign(file.name, State::SeenEntry{firstSeen, file.canonicalId});
    }
    set.insert_or_assign(std::string(indexedMarker), State::SeenEntry{firstSeen, ""});
    persistLocked();
}

std::size_t CaptureStateStore::forget(const std::vector<std::string>& names, std::string_view folderId)
{
    auto now = stamp(std::nullopt);
    std::lock_guard guard(queue_);
    auto& set = state_.seenByFolder[std::string(folderId)];
    std::size_t removed = 0;
    for (const auto& name : names) {
        removed += set.erase(name);
    }
    set.insert_or_assign(std::string(indexedMarker), State::SeenEntry{now, ""});
    persistLocked();
    return removed;
}

std::size_t CaptureStateStore::seenCount(std::string_view folderId) const
{
    std::lock_guard guard(queue_);
    auto folder = state_.seenByFolder.find(folderId);
    return folder == state_.seenByFolder.end() ? 0 : folder->second.size();
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
