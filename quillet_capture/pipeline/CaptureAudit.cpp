#include "quillet_capture/pipeline/CaptureAudit.hpp"

#include "quillet_capture/capture/CaptureAccess.hpp"
#include "quillet_capture/capture/CaptureGuards.hpp"
#include "quillet_capture/config/Keychain.hpp"
#include "quillet_capture/config/Settings.hpp"
#include "quillet_capture/pipeline/CaptureIntake.hpp"
#include "quillet_capture/platform/AgentLock.hpp"
#include "quillet_capture/platform/Paths.hpp"
#include "quillet_capture/platform/Sha256.hpp"
#include "quillet_capture/util/AtomicFile.hpp"
#include "quillet_capture/util/Iso8601.hpp"
#include "quillet_capture/vault/InboxWriter.hpp"
#include "quillet_capture/vault/NoteLedger.hpp"

#include <algorithm>
#include <cctype>
#include <set>
#include <system_error>

namespace quillet {

namespace fs = std::filesystem;

namespace {

using State = CaptureAudit::State;
using Item = CaptureAudit::Item;
using TimePoint = CaptureAudit::TimePoint;

const std::string kRestoreHint = "quillet-capture retry --restore ";

std::string lower(std::string text)
{
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
    return text;
}

std::string extensionOf(const std::string& name)
{
    auto dot = name.find_last_of('.');
    return dot == std::string::npos || dot == 0 ? std::string() : lower(name.substr(dot + 1));
}

std::optional<TimePoint> modified(const fs::path& file)
{
    std::error_code error;
    auto time = fs::last_write_time(file, error);
    if (error) {
        return std::nullopt;
    }
    return std::chrono::time_point_cast<std::chrono::system_clock::duration>(
        time - fs::file_time_type::clock::now() + std::chrono::system_clock::now());
}

std::string whenText(TimePoint time)
{
    return Iso8601::format(std::chrono::time_point_cast<std::chrono::seconds>(time));
}

// What a note says of its capture, as far as the audit needs it.
struct NoteFacts {
    bool parses = true;
    std::string problem;
    InboxWriter::Frontmatter frontmatter;
};

// The job status of a note in words, and whether only the person can move it on.
void judgeStatus(Item& item, const NoteFacts& note, const CaptureAudit::Sources& sources)
{
    const auto& frontmatter = note.frontmatter;
    const std::string status = frontmatter.vdJobStatus.value_or("");
    item.jobStatus = status;
    auto recovery = sources.recovery.find(item.id);
    const bool backfill = frontmatter.sourceOrigin == "veldane_backfill";
    if (status == "done") {
        item.state = State::captured;
        item.reason = backfill ? "transcript brought from the service by sync" : "transcribed";
        return;
    }
    if (recovery != sources.recovery.end() && recovery->second.reason == CaptureRecovery::noteUnreadable) {
        item.state = State::needsYou;
        item.reason = "its note's frontmatter does not parse: fix it, and its transcript (waiting in _inbox/" +
                      item.id + ".transcript.md) is written in";
        return;
    }
    if (status == "needs_pairing") {
        item.state = State::needsYou;
        item.reason = "the service refused this computer's token: run quillet-capture pair";
        return;
    }
    if (status == "paywalled") {
        item.state = State::needsYou;
        item.reason = "the service wants a paid plan for it: upgrade the plan, then run quillet-capture retry";
        return;
    }
    if (status == "skipped") {
        item.state = State::captured;
        item.reason = "kept in the vault, not sent: uploading is off (quillet-capture retry sends it)";
        return;
    }
    static const std::set<std::string> failures = {"upload_failed", "failed", "poll_timeout", "fetch_failed",
                                                   "copy_failed"};
    const bool failed = failures.contains(status) || recovery != sources.recovery.end();
    if (failed) {
        const std::string why = status.empty() ? recovery->second.reason : status;
        if (recovery != sources.recovery.end() && recovery->second.next) {
            item.state = State::captured;
            item.nextTry = recovery->second.next;
            item.reason = "failed (" + why + "); the agent tries again at " + whenText(*recovery->second.next);
            if (!sources.agentRunning) {
                item.reason += " once it runs";
            }
        } else {
            item.state = State::needsYou;
            item.reason = "failed (" + why + ") and the automatic tries are over: run quillet-capture retry";
        }
        return;
    }
    item.state = State::captured;
    if (frontmatter.externalId && !frontmatter.externalId->empty()) {
        item.reason = "at the service, transcript not ready yet";
    } else {
        item.reason = "waiting to be sent to the service";
    }
    if (!sources.agentRunning) {
        item.reason += "; the agent is not running (quillet-capture install starts it)";
    }
}

} // namespace

std::string CaptureAudit::words(State state)
{
    switch (state) {
    case State::captured:
        return "captured";
    case State::waiting:
        return "waiting";
    case State::skipped:
        return "skipped";
    case State::needsYou:
        return "needs you";
    case State::removedByYou:
        return "removed by you";
    }
    return "";
}

std::string CaptureAudit::key(State state)
{
    switch (state) {
    case State::needsYou:
        return "needsYou";
    case State::removedByYou:
        return "removedByYou";
    default:
        return words(state);
    }
}

CaptureAudit::Counts CaptureAudit::count(const std::vector<Item>& items)
{
    Counts counts;
    for (const auto& item : items) {
        switch (item.state) {
        case State::captured:
            ++counts.captured;
            break;
        case State::waiting:
            ++counts.waiting;
            break;
        case State::skipped:
            ++counts.skipped;
            break;
        case State::needsYou:
            ++counts.needsYou;
            break;
        case State::removedByYou:
            ++counts.removedByYou;
            break;
        }
    }
    return counts;
}

CaptureAudit::Sources CaptureAudit::gather()
{
    Sources sources;
    const auto& settings = Settings::shared();
    sources.vaultRoot = settings.vaultURL();
    sources.folders = settings.enabledWatchedFolders();
    sources.uploads = settings.captureVeldaneEnabled();
    sources.isExcluded = [](const std::string& name) { return Settings::shared().isExcludedFile(name); };
    sources.now = std::chrono::system_clock::now();
    // Read as the files hold them: the stores' own constructors may write (a migration, an
    // unreadable file kept aside), and the audit writes nothing.
    if (auto text = readWholeFile(Paths::stateFile())) {
        if (auto state = CaptureStateStore::decode(*text)) {
            sources.state = std::move(*state);
        }
    }
    const auto stateFolder = Paths::stateFile().parent_path();
    std::error_code missing;
    if (fs::exists(stateFolder / "recovery.json", missing)) {
        sources.recovery = CaptureRecovery(stateFolder / "recovery.json").entries();
    }
    if (fs::exists(stateFolder / "intake.json", missing)) {
        for (const auto& entry : CaptureIntake(stateFolder / "intake.json").entries()) {
            sources.handedOver.push_back(entry.canonicalId);
        }
    }
    sources.agentRunning = AgentLock::runningAgent().has_value();
    sources.tokenPresent = !sources.uploads || Keychain::hasCredentials();
    for (const auto& folder : sources.folders) {
        if (folder.isVoiceMemos()) {
            VoiceMemosLibrary library(folder.url(), VoiceMemosLibrary::defaultCopies());
            library.refresh();
            if (library.health() == VoiceMemosLibrary::Health::readable) {
                sources.library = library.recordings();
            }
        }
    }
    return sources;
}

std::vector<Item> CaptureAudit::run(const Sources& sources, const Options& options)
{
    const InboxWriter inbox(sources.vaultRoot);
    const auto ledger = NoteLedger(sources.vaultRoot).read();
    std::vector<Item> items;

    // 1. The notes of the inbox and the copies beside them.
    std::map<std::string, NoteFacts> notes;
    std::set<std::string> copies;
    std::error_code error;
    for (fs::directory_iterator it(inbox.inboxDirectory(), error); !error && it != fs::directory_iterator();
         it.increment(error)) {
        const auto name = it->path().filename().string();
        if (it->path().extension() != ".md" || name.ends_with(".transcript.md") || name.starts_with(".")) {
            continue;
        }
        std::error_code kind;
        if (!it->is_regular_file(kind)) {
            continue;
        }
        NoteFacts facts;
        try {
            facts.frontmatter = InboxWriter::readFrontmatter(it->path());
        } catch (const std::exception& problem) {
            facts.parses = false;
            facts.problem = problem.what();
        }
        notes.emplace(it->path().stem().string(), std::move(facts));
    }
    for (fs::directory_iterator it(inbox.audioDirectory(), error); !error && it != fs::directory_iterator();
         it.increment(error)) {
        if (it->path().extension() == ".m4a" && !it->path().filename().string().starts_with(".")) {
            copies.insert(it->path().stem().string());
        }
    }

    // Which file of which folder each capture came from: the ledger's word, else the state's
    // first entry that carries the id with a file.
    std::map<std::string, std::pair<std::string, std::string>> sourceOf;  // id -> (folder id, name)
    for (const auto& [id, record] : ledger) {
        if (!record.source.folderId.empty()) {
            sourceOf[id] = {record.source.folderId, record.source.name};
        }
    }
    for (const auto& [folderId, set] : sources.state.seenByFolder) {
        for (const auto& [name, entry] : set) {
            if (!entry.canonicalId.empty() && !entry.file.empty()) {
                sourceOf.emplace(entry.canonicalId, std::pair(folderId, name));
            }
        }
    }
    std::map<std::string, fs::path> folderPaths;
    for (const auto& folder : sources.folders) {
        folderPaths[folder.id] = folder.url();
    }
    auto describeSource = [&](Item& item) {
        auto found = sourceOf.find(item.id);
        if (found == sourceOf.end()) {
            return;
        }
        item.folderId = found->second.first;
        auto path = folderPaths.find(item.folderId);
        if (path != folderPaths.end()) {
            item.source = (path->second / found->second.second).string();
        }
    };
    auto verifyCopy = [&](Item& item) -> bool {
        auto record = ledger.find(item.id);
        if (record != ledger.end()) {
            item.sha256 = record->second.sha256;
        }
        if (!options.verify || item.sha256.empty()) {
            return true;
        }
        try {
            item.verified = Sha256::ofFile(item.copy) == item.sha256;
        } catch (const std::system_error& problem) {
            item.verified = false;
            item.state = State::needsYou;
            item.reason = "its audio copy cannot be read (" + std::string(problem.what()) +
                          "): put a good copy back from a backup";
            return false;
        }
        if (!*item.verified) {
            item.state = State::needsYou;
            item.reason = "its audio copy is no longer the one captured (its SHA-256 differs): put a good copy back "
                          "from a backup, or from the original recording";
            return false;
        }
        return true;
    };

    std::set<std::string> accounted;
    for (const auto& [id, facts] : notes) {
        Item item;
        item.id = id;
        item.note = inbox.noteURL(id).string();
        describeSource(item);
        if (!facts.parses) {
            item.state = State::needsYou;
            item.reason = "its note's frontmatter does not parse (" + facts.problem + "): fix it in an editor";
            if (copies.contains(id)) {
                item.copy = inbox.audioURL(id).string();
            }
            items.push_back(std::move(item));
            accounted.insert(id);
            continue;
        }
        const auto& frontmatter = facts.frontmatter;
        // A note of the person's own, or another tool's, is not a capture.
        if (frontmatter.id.empty() && !ledger.contains(id) && !copies.contains(id)) {
            continue;
        }
        item.title = frontmatter.title.value_or("");
        item.date = frontmatter.created;
        const bool backfill = frontmatter.sourceOrigin == "veldane_backfill";
        const bool expectsCopy = !backfill && frontmatter.audioPath.starts_with("_inbox/.audio/");
        if (copies.contains(id)) {
            item.copy = inbox.audioURL(id).string();
        }
        judgeStatus(item, facts, sources);
        if (expectsCopy && item.copy.empty()) {
            item.state = State::needsYou;
            item.reason = "its audio copy " + InboxWriter::audioLink(id) +
                          " is missing: put it back from a backup (the note stays as it is)";
        } else if (!item.copy.empty()) {
            verifyCopy(item);
        }
        items.push_back(std::move(item));
        accounted.insert(id);
    }

    // 2. Copies without their note, and notes made here that are gone.
    std::set<std::string> handedOver(sources.handedOver.begin(), sources.handedOver.end());
    std::set<std::string> capturedIds;
    for (const auto& [folderId, set] : sources.state.seenByFolder) {
        for (const auto& [name, entry] : set) {
            if (!entry.canonicalId.empty() && !entry.file.empty()) {
                capturedIds.insert(entry.canonicalId);
            }
        }
    }
    std::set<std::string> gone(copies.begin(), copies.end());
    for (const auto& [id, record] : ledger) {
        if (record.made) {
            gone.insert(id);
        }
    }
    for (const auto& id : gone) {
        if (accounted.contains(id)) {
            continue;
        }
        Item item;
        item.id = id;
        describeSource(item);
        auto record = ledger.find(id);
        if (copies.contains(id)) {
            item.copy = inbox.audioURL(id).string();
        }
        if (record != ledger.end()) {
            item.date = record->second.created;
        }
        const bool madeHere = (record != ledger.end() && record->second.made) || capturedIds.contains(id);
        if (record != ledger.end() && record->second.restorePending) {
            item.state = State::waiting;
            item.reason = item.copy.empty() ? "asked back: quillet-capture sync brings its transcript again"
                                            : "asked back: its note is written again";
        } else if (handedOver.contains(id) || sources.recovery.contains(id)) {
            item.state = State::waiting;
            item.reason = "being captured: its copy is made, its note comes next";
        } else if (madeHere) {
            item.state = State::removedByYou;
            item.reason = item.copy.empty()
                              ? "its note was removed from the inbox; it is not made again (" + kRestoreHint + id +
                                    " brings it back)"
                              : "its note was removed from the inbox; its audio copy stays (" + kRestoreHint + id +
                                    " brings the note back)";
        } else {
            item.state = State::needsYou;
            item.reason = "an audio copy without its note: move the note back into _inbox, or delete the copy";
        }
        if (item.state != State::removedByYou && !item.copy.empty()) {
            verifyCopy(item);
        }
        items.push_back(std::move(item));
        accounted.insert(id);
    }

    // 3. The files of the watched folders.
    std::set<std::string> voiceMemosOfNotes;
    for (const auto& [id, facts] : notes) {
        if (facts.frontmatter.voiceMemosId) {
            voiceMemosOfNotes.insert(*facts.frontmatter.voiceMemosId);
        }
    }
    for (const auto& [id, record] : ledger) {
        if (!record.source.voiceMemosId.empty()) {
            voiceMemosOfNotes.insert(record.source.voiceMemosId);
        }
    }
    for (const auto& folder : sources.folders) {
        const auto root = folder.url();
        const auto extensions = folder.effectiveExtensions().empty()
                                    ? (folder.isVoiceMemos() ? CaptureAccess::voiceMemosExtensions : CaptureAccess::audioExtensions)
                                    : folder.effectiveExtensions();
        static const CaptureStateStore::State::FolderSet none;
        auto setOf = sources.state.seenByFolder.find(folder.id);
        const auto& seen = setOf != sources.state.seenByFolder.end() ? setOf->second : none;
        const bool indexed = seen.contains(CaptureStateStore::indexedMarker);
        std::error_code listing;
        fs::directory_iterator it(root, listing);
        if (listing) {
            Item item;
            item.kind = "folder";
            item.state = State::needsYou;
            item.folderId = folder.id;
            item.source = root.string();
            item.title = folder.displayName;
            item.reason = listing == std::errc::no_such_file_or_directory
                              ? "the watched folder " + root.string() + " is not there"
                              : "the watched folder " + root.string() + " cannot be read (" + listing.message() +
                                    "): give the agent access to it";
            items.push_back(std::move(item));
            continue;
        }
        std::set<std::string, std::less<>> present;
        for (; !listing && it != fs::directory_iterator(); it.increment(listing)) {
            std::error_code kind;
            if (!it->is_regular_file(kind)) {
                continue;
            }
            const auto name = it->path().filename().string();
            if (name.starts_with(".") || name.starts_with(VoiceMemosLibrary::fileName)) {
                continue;
            }
            present.insert(name);
            auto entry = seen.find(name);
            if (entry != seen.end() && !entry->second.canonicalId.empty() && !entry->second.file.empty()) {
                // Captured: the capture's item speaks for it, unless another file of the folder
                // is its source (a rename or a copy of it).
                const auto& id = entry->second.canonicalId;
                auto origin = sourceOf.find(id);
                if (accounted.contains(id) &&
                    (origin == sourceOf.end() || (origin->second.first == folder.id && origin->second.second == name))) {
                    continue;
                }
                Item item;
                item.id = "";
                item.title = name;
                item.folderId = folder.id;
                item.source = it->path().string();
                item.date = modified(it->path());
                if (accounted.contains(id)) {
                    item.state = State::skipped;
                    item.reason = "the same recording as the one captured as " + id + " (renamed or copied)";
                } else {
                    item.state = State::waiting;
                    item.reason = "handed to the agent as " + id + "; its copy and note come next";
                }
                items.push_back(std::move(item));
                continue;
            }
            Item item;
            item.title = name;
            item.folderId = folder.id;
            item.source = it->path().string();
            item.date = modified(it->path());
            const LibraryRecording* row = nullptr;
            if (folder.isVoiceMemos() && sources.library) {
                for (const auto& candidate : *sources.library) {
                    if (candidate.fileName == name) {
                        row = &candidate;
                        break;
                    }
                }
            }
            if (row != nullptr) {
                if (!row->title.empty()) {
                    item.title = row->title;
                }
                if (row->date) {
                    item.date = row->date;
                }
            }
            if (!extensions.contains(extensionOf(name)) ||
                (!folder.isVoiceMemos() && sources.isExcluded && sources.isExcluded(name))) {
                item.state = State::skipped;
                item.reason = "not a recording the agent captures (its kind of file is not watched)";
            } else if (entry != seen.end()) {
                item.state = State::skipped;
                if (!entry->second.canonicalId.empty()) {
                    item.reason = "there before the folder was first watched (quillet-capture import-existing brings "
                                  "it in)";
                } else if (!entry->second.judged.empty()) {
                    item.reason = "too short to be worth capturing when judged; judged again if it changes";
                } else {
                    item.reason = "not captured when first seen: its name holds no recording time, or it held no "
                                  "audio";
                }
            } else if (row != nullptr && row->deleted) {
                item.state = State::skipped;
                item.reason = "deleted by you in Voice Memos before it was captured";
            } else if (!indexed) {
                item.state = State::waiting;
                item.reason = sources.agentRunning ? "the agent looks at this folder for the first time soon"
                                                   : "the agent has not looked at this folder yet: it is not running "
                                                     "(quillet-capture install starts it)";
            } else {
                item.state = State::waiting;
                const auto age = item.date ? std::chrono::duration<double>(sources.now - *item.date).count() : 1e9;
                if (extensionOf(name) == "qta" && age < CaptureGuards::qtaMinAge && row == nullptr) {
                    item.reason = "a Voice Memos recording that may still be recording; captured once it has rested";
                } else if (age < 30) {
                    item.reason = "still being written; captured once its size stays the same";
                } else if (!sources.agentRunning) {
                    item.reason = "the agent is not running (quillet-capture install starts it)";
                } else {
                    item.reason = "the agent captures it at its next look at the folder";
                }
            }
            items.push_back(std::move(item));
        }
        // Recordings that Voice Memos lists and whose audio is not on this computer yet.
        if (folder.isVoiceMemos() && sources.library) {
            for (const auto& row : *sources.library) {
                if (voiceMemosOfNotes.contains(row.uniqueId)) {
                    continue;
                }
                const auto stem = row.fileName.substr(0, row.fileName.find_last_of('.'));
                const bool onDisk = !row.fileName.empty() &&
                                    (present.contains(row.fileName) ||
                                     std::any_of(present.begin(), present.end(), [&](const std::string& name) {
                                         return name.substr(0, name.find_last_of('.')) == stem;
                                     }));
                if (onDisk) {
                    continue;
                }
                Item item;
                item.title = row.title.empty() ? row.fileName : row.title;
                item.folderId = folder.id;
                item.date = row.date;
                if (row.deleted) {
                    item.state = State::skipped;
                    item.reason = "deleted by you in Voice Memos before it was captured";
                } else {
                    item.state = State::waiting;
                    item.reason = "not downloaded to this computer yet";
                    if (row.date && sources.now - *row.date > std::chrono::hours(24)) {
                        item.reason += " after more than a day: open Voice Memos so that iCloud brings it";
                    }
                }
                items.push_back(std::move(item));
            }
        }
    }

    // 4. What keeps every recording from reaching the service.
    if (sources.uploads && !sources.tokenPresent) {
        Item item;
        item.kind = "account";
        item.state = State::needsYou;
        item.title = "Veldane";
        item.reason = "uploading is on but no device token is readable: run quillet-capture pair";
        items.push_back(std::move(item));
    }

    std::stable_sort(items.begin(), items.end(), [](const Item& a, const Item& b) {
        if (a.date.has_value() != b.date.has_value()) {
            return a.date.has_value();
        }
        return a.date && *a.date > *b.date;
    });
    return items;
}

} // namespace quillet
