#pragma once

#include "quillet_capture/config/WatchedFolder.hpp"
#include "quillet_capture/library/VoiceMemosLibrary.hpp"
#include "quillet_capture/pipeline/CaptureRecovery.hpp"
#include "quillet_capture/pipeline/CaptureStateStore.hpp"

#include <chrono>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace quillet {

/// One reconciliation of everything the program knows of the person's recordings: the files of
/// each watched folder, the notes of the inbox, the audio copies beside them, the vault's
/// ledger, the state and retry files and the Voice Memos library. Each recording comes out
/// once, in one state, with the reason in words and what to do when only the person can act.
/// Reads only; writes nothing anywhere.
class CaptureAudit {
public:
    using TimePoint = std::chrono::system_clock::time_point;

    enum class State { captured, waiting, skipped, needsYou, removedByYou };

    /// One recording (or, for `kind` "folder" and "account", a problem that concerns them all).
    struct Item {
        State state = State::captured;
        std::string kind = "recording";  // "recording", "folder" or "account"
        std::string id;                   // the capture's id; "" when never captured
        std::string title;                // the note's or the library's title, else the file's name; "" when none
        std::optional<TimePoint> date;    // when it was recorded, as far as known
        std::string reason;               // for people: why it is in this state, what to do
        std::string jobStatus;            // the note's job status; "" without a note
        std::optional<TimePoint> nextTry; // the next automatic try of a failed capture
        std::string folderId;             // the watched folder of its file; "" when none
        std::string source;               // the file in the watched folder; "" when none
        std::string note;                 // the note's path; "" when none
        std::string copy;                 // the audio copy's path; "" when none
        std::string sha256;               // the copy's digest recorded at capture; "" when none
        /// With `verify`: whether the copy still has that digest; none when not checked.
        std::optional<bool> verified;
    };

    /// What the audit reads. `gather` fills it from the disk; tests may fill their own.
    struct Sources {
        std::filesystem::path vaultRoot;
        std::vector<WatchedFolder> folders;  // the enabled folders
        /// Whether a file of a folder other than Voice Memos is left out by the person's
        /// patterns; none: nothing is.
        std::function<bool(const std::string& name)> isExcluded;
        CaptureStateStore::State state;
        std::map<std::string, CaptureRecovery::Entry> recovery;
        std::vector<std::string> handedOver;  // ids handed to the pipeline without a note yet
        std::optional<std::vector<LibraryRecording>> library;  // none: no readable library
        bool agentRunning = false;
        bool uploads = false;
        bool tokenPresent = false;
        TimePoint now{};
    };

    struct Options {
        bool verify = false;  // read every copy again and compare it with its digest
    };

    struct Counts {
        int captured = 0;
        int waiting = 0;
        int skipped = 0;
        int needsYou = 0;
        int removedByYou = 0;
        int total() const { return captured + waiting + skipped + needsYou + removedByYou; }
    };

    /// The sources of the agent's settings, state folder and vault, as of now. Reads only.
    static Sources gather();

    /// Every recording of `sources`, each once, newest first (those without a date last).
    static std::vector<Item> run(const Sources& sources, const Options& options);

    static Counts count(const std::vector<Item>& items);

    /// "captured", "waiting", "skipped", "needs you", "removed by you".
    static std::string words(State state);
    /// "captured", "waiting", "skipped", "needsYou", "removedByYou": the key in JSON.
    static std::string key(State state);
};

} // namespace quillet
