#pragma once

#include "quillet_capture/runtime/Clock.hpp"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quillet {

/// The agent's durable memory of the file names it has already seen in each watched folder,
/// kept in `state.json`. The file is read once, when the store is made; afterwards memory is
/// the truth and every change rewrites the whole file (atomically and durably) before the
/// changing call returns.
///
/// Every operation runs under the store's one lock, which serves as the serial queue
/// "quillet.capture.state": all calls are synchronous, so each operation, including its write
/// of the file, runs whole before the next one starts and the file always carries the latest
/// state. Any thread may call the store.
class CaptureStateStore {
public:
    using TimePoint = std::chrono::system_clock::time_point;

    /// The whole file: the seen set of every watched folder.
    struct State {
        /// One seen file. Times are kept in whole seconds, as the file holds them.
        struct SeenEntry {
            TimePoint firstSeen;
            std::string canonicalId;  // "" when the file was not captured under an id
            /// The captured file as it was then ("size:modification time in ns:inode:status
            /// change time in ns:device"; entries kept before the last two were have only the
            /// first three), so that another file under the same name, or the same file
            /// changed, is told apart; "" when not kept.
            std::string file = {};
            /// A file skipped as no audio worth capturing (too short, no samples), as it was
            /// when judged, in the form of `file`. Its verdict is not final: when the file no
            /// longer matches it, it is judged again. "" for every other entry (and for files
            /// skipped before this was kept).
            std::string judged = {};

            bool operator==(const SeenEntry&) const = default;
        };

        /// File name (no path) to its entry, ordered by name as the file lists them.
        using FolderSet = std::map<std::string, SeenEntry, std::less<>>;

        std::int64_t version = currentVersion;
        std::map<std::string, FolderSet, std::less<>> seenByFolder;  // folder id to its set
        FolderSet voiceMemosSeen;  // the first version's set; always empty from version 2 on

        bool operator==(const State&) const = default;

        /// The number of entries in all folders' sets.
        std::size_t totalEntries() const;
    };

    /// The state file's text for a `State`, kept in step with it change by change: after one
    /// entry is set or removed, only that entry's text is made and spliced into its folder's
    /// text, so that writing the whole file after a change of a large state costs little more
    /// than the write. `text(state)` always equals `encode(state)` for the state it was kept
    /// in step with; a folder that it cannot splice safely (names that are not UTF-8, whose
    /// texts may coincide) is encoded afresh instead. Not synchronised: the store uses it
    /// under its lock.
    class EncodedState {
    public:
        /// Encodes every folder of `state` afresh.
        void reset(const State& state);
        /// After the entry `name` of folder `folderId` of `state` was set (added or replaced).
        void entrySet(const State& state, std::string_view folderId, std::string_view name);
        /// After the entry `name` was removed from folder `folderId` of `state`.
        void entryRemoved(const State& state, std::string_view folderId, std::string_view name);
        /// After any other change of folder `folderId` of `state`: encodes it afresh.
        void folderChanged(const State& state, std::string_view folderId);
        /// The file's text for `state`.
        std::string text(const State& state) const;

    private:
        struct Folder {
            std::string text;        // the folder's set as an object, "{" to "}"
            bool spliceable = true;  // every name is UTF-8, so each entry's text is unique
        };
        std::map<std::string, Folder, std::less<>> folders_;
    };

    /// A name to mark seen in one go with others (see `markIndexed`).
    struct SeenName {
        std::string name;
        std::string canonicalId;
    };

    /// A file marked seen with what tells it from another file under its name.
    struct SeenFile {
        std::string name;
        std::string canonicalId;
        std::string file;
        /// See `State::SeenEntry::judged`.
        std::string judged = {};
    };

    static constexpr std::int64_t currentVersion = 2;

    /// The folder id of the Voice Memos folder, the default folder of every operation.
    static constexpr std::string_view voiceMemosFolderId = "voice-memos";

    /// The reserved name whose entry in a folder's set means that the folder's first full
    /// index has been done.
    static constexpr std::string_view indexedMarker = ".quillet-index-done";

    /// The process-wide store on the state file and legacy watcher file of `Paths`, made (and
    /// loaded) on first use.
    static CaptureStateStore& shared();

    /// A store on explicit files: creates the state file's folder (a failure is ignored; the
    /// first write then fails and is logged), then loads `storePath`, migrating it, or imports
    /// `legacyPath` when there is no usable state file; a state file that is there but cannot
    /// be read is first renamed to "state.json.unreadable-<time>" and logged. Reads the time from `clock`, which
    /// must outlive the store.
    CaptureStateStore(std::filesystem::path storePath, std::filesystem::path legacyPath,
                      runtime::Clock& clock = runtime::systemClock());

    CaptureStateStore(const CaptureStateStore&) = delete;
    CaptureStateStore& operator=(const CaptureStateStore&) = delete;

    /// True when the folder has a seen set that holds `name`.
    bool hasSeen(std::string_view name, std::string_view folderId = voiceMemosFolderId) const;

    /// The folder's entry for `name`, when it has one.
    std::optional<State::SeenEntry> seenEntry(std::string_view name,
                                              std::string_view folderId = voiceMemosFolderId) const;

    /// Sets the folder's entry for `name` to (`at`, or now; `canonicalId`; `file`), replacing
    /// any entry there, then writes the file. Returns once the file is written (a failed write
    /// is logged, and the change stays in memory).
    void markSeen(std::string_view name, std::string_view canonicalId,
                  std::string_view folderId = voiceMemosFolderId,
                  std::optional<TimePoint> at = std::nullopt, std::string_view file = {});

    /// `markSeen` for several files of one folder, in one write.
    void markSeen(std::vector<SeenFile> files, std::string_view folderId, std::optional<TimePoint> at = std::nullopt);

    /// A folder's first full index in one write: marks every name of `files` seen with its
    /// canonical id and the time `at` (or now), adds the `indexedMarker` entry, then writes
    /// the file once. Same failure handling as `markSeen`. `files` is taken by value so that
    /// a caller's list can be moved in without copying its names.
    void markIndexed(std::vector<SeenName> files, std::string_view folderId = voiceMemosFolderId,
                     std::optional<TimePoint> at = std::nullopt);

    /// Removes each of `names` that the folder holds, then sets the folder's `indexedMarker`
    /// entry (now, ""), so that the folder still counts as indexed, and writes the file.
    /// Returns the number of names removed.
    std::size_t forget(const std::vector<std::string>& names, std::string_view folderId = voiceMemosFolderId);

    /// The number of entries of one folder's set (0 when it has none), the marker included.
    std::size_t seenCount(std::string_view folderId) const;

    /// The number of entries in all folders' sets.
    std::size_t seenCount() const;

    /// The entries of folder `folderId` for which `match(name, entry)` is true, with their
    /// names, in name order. `match` runs under the store's lock: it must not call the store.
    std::vector<std::pair<std::string, State::SeenEntry>>
    entriesWhere(std::string_view folderId,
                 const std::function<bool(std::string_view name, const State::SeenEntry&)>& match) const;

    /// True when an entry of any folder's set carries `canonicalId` (never for "").
    bool holdsCanonicalId(std::string_view canonicalId) const;

    /// A copy of the current state.
    State state() const;

    /// Waits for a write under way and makes every later change stay in memory: the process
    /// is ending, and a write cut off by its end would leave a temporary file behind.
    void close();

    /// The state file's text for `state`: UTF-8 JSON, pretty-printed with sorted keys, time
    /// stamps as ISO 8601 UTC text in whole seconds. Bytes of names that are not UTF-8 are
    /// written as U+FFFD, so the text always decodes again. Never throws except for memory.
    static std::string encode(const State& state);

    /// Reads a state file's text. Absent when it is not JSON or not a `State`: the root must
    /// be an object; "version" (an integer), "seenByFolder" and "voiceMemosSeen" may be missing
    /// or null; every entry needs a text "canonicalId" and a "firstSeen" date, and may have a
    /// text "file" and a text "judged". Unknown keys are ignored. Never throws except for memory.
    static std::optional<State> decode(std::string_view text);

private:
    void load();
    /// Renames an unreadable state file beside itself and logs it.
    void keepUnreadableAside();
    void persistLocked();
    TimePoint stamp(std::optional<TimePoint> at) const;

    mutable std::mutex queue_;
    bool closed_ = false;
    std::filesystem::path storePath_;
    std::filesystem::path legacyPath_;
    runtime::Clock& clock_;
    State state_;
    EncodedState encoded_;
};

} // namespace quillet
