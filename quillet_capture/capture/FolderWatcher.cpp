#include "quillet_capture/capture/FolderWatcher.hpp"

#include "quillet_capture/capture/CollisionResolver.hpp"
#include "quillet_capture/capture/FilenameNormaliser.hpp"
#include "quillet_capture/capture/FirstWatched.hpp"
#include "quillet_capture/config/Log.hpp"
#include "quillet_capture/pipeline/AgentNotifications.hpp"
#include "quillet_capture/pipeline/CaptureIdentities.hpp"
#include "quillet_capture/pipeline/CaptureIntake.hpp"
#include "quillet_capture/pipeline/CaptureStateStore.hpp"

#include "quillet_capture/util/AtomicFile.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstring>

namespace quillet {

namespace fs = std::filesystem;

namespace {

constexpr std::string_view kCannotStat = "cannot stat file";
// How long after its capture a file is looked at at every poll, for growth.
constexpr auto kWatchedAfterCapture = std::chrono::hours(1);

} // namespace

FolderWatcher::FolderWatcher(WatchedFolder folder, CaptureStateStore& store, bool runGuards, runtime::Clock& clock,
                             CaptureGuards::Probes probes, CaptureIntake* intake, Vault vault,
                             fs::path firstWatchedFile, CaptureIdentities* identities, fs::path libraryCopies)
    : folder_(std::move(folder))
    , store_(store)
    , runGuards_(runGuards)
    , clock_(clock)
    , probes_(std::move(probes))
    , intake_(intake)
    , vault_(std::move(vault))
    , firstWatchedFile_(firstWatchedFile.empty() ? FirstWatched::defaultFile() : std::move(firstWatchedFile))
    , identities_(identities)
{
    if (identities_ != nullptr && folder_.normaliser == WatchedFolder::Normaliser::voiceMemos) {
        library_ = std::make_unique<VoiceMemosLibrary>(
            folder_.url(),
            libraryCopies.empty() ? VoiceMemosLibrary::defaultCopies() : std::move(libraryCopies));
    }
}

bool FolderWatcher::refreshLibrary()
{
    if (!library_) {
        return false;
    }
    bool changed = library_->refresh();
    auto health = library_->health();
    // Said once per change, not per poll; a busy library is only looked at again.
    if (health != VoiceMemosLibrary::Health::locked && reportedHealth_ != health) {
        const bool news = reportedHealth_ || health != VoiceMemosLibrary::Health::absent;
        reportedHealth_ = health;
        if (!news) {
            return changed;  // a folder without a library, as it has always been
        }
        rlog("[quillet] capture: [%@] Voice Memos library %@", folder_.displayName, library_->summary());
    }
    return changed;
}

const VoiceMemosLibrary* FolderWatcher::usableLibrary() const
{
    if (!library_) {
        return nullptr;
    }
    auto health = library_->health();
    return health == VoiceMemosLibrary::Health::readable ||
                   (health == VoiceMemosLibrary::Health::locked && !library_->recordings().empty())
               ? library_.get()
               : nullptr;
}

const LibraryRecording* FolderWatcher::recordingOf(std::string_view name) const
{
    const auto* library = usableLibrary();
    if (library == nullptr) {
        return nullptr;
    }
    const auto* row = library->byFile(name);
    return row != nullptr ? row : library->byTwin(name);
}

std::optional<std::pair<std::string, CaptureStateStore::State::SeenEntry>>
FolderWatcher::siblingSeen(const std::string& name, const CaptureAccess::Listing& listed) const
{
    auto stem = [](std::string_view file) {
        auto dot = file.find_last_of('.');
        return file.substr(0, dot == std::string_view::npos ? file.size() : dot);
    };
    for (const auto& other : listed.names) {
        if (other == name || stem(other) != stem(name)) {
            continue;
        }
        // Captured (it keeps what the file was) or indexed as history (an id, no file);
        // skipped files have neither.
        auto seen = store_.seenEntry(other, folder_.id);
        if (seen && !(seen->canonicalId.empty() && seen->file.empty())) {
            return std::pair(other, *seen);
        }
    }
    return std::nullopt;
}

std::optional<CaptureIdentities::Entry> FolderWatcher::adoptedIdentity(const LibraryRecording& recording,
                                                                       const std::string& name,
                                                                       const CaptureAccess::Listing& listed)
{
    auto sibling = siblingSeen(name, listed);
    if (!sibling) {
        return std::nullopt;
    }
    // A history file's recording stays history (until the person imports it). A captured
    // one's note got no title from the library: a title the library has is offered to it as
    // to a note without one.
    const auto& [other, seen] = *sibling;
    CaptureIdentities::Entry entry{seen.file.empty() ? "" : seen.canonicalId, other, recording.digest, ""};
    identities_->record({{recording.uniqueId, entry}});
    return entry;
}

void FolderWatcher::followLibrary(const CaptureAccess::Listing& listed, bool changed)
{
    const auto* library = usableLibrary();
    const auto now = clock_.now();
    // Waits are looked at whenever the library changed, and hourly: a day passes without it.
    const bool lookAtWaits = changed || !waitsLookedAt_ || now - *waitsLookedAt_ >= std::chrono::hours(1);
    if (library == nullptr || identities_ == nullptr || !(lookAtWaits || retitlePending_)) {
        return;
    }
    auto known = identities_->all();
    if (!(changed || retitlePending_)) {
        known.clear();  // nothing to retitle; only the waits below
    }
    retitlePending_ = false;
    std::vector<std::pair<std::string, CaptureIdentities::Entry>> retitled;
    for (const auto& [uniqueId, entry] : known) {
        const auto* row = library->byId(uniqueId);
        if (row == nullptr || entry.canonicalId.empty() || row->title == entry.title || row->title.empty()) {
            continue;
        }
        if (vault_.retitle && !vault_.retitle(entry.canonicalId, entry.title, row->title)) {
            retitlePending_ = true;
            continue;
        }
        auto renamed = entry;
        renamed.title = row->title;
        retitled.emplace_back(uniqueId, std::move(renamed));
    }
    identities_->record(retitled);

    if (!lookAtWaits) {
        return;
    }
    waitsLookedAt_ = now;
    // Recordings that Voice Memos lists and whose audio iCloud has not brought yet: captured
    // when it comes; one that waits more than a day is named once.
    std::set<std::string, std::less<>> present(listed.names.begin(), listed.names.end());
    auto since = FirstWatched::find(folder_.id, firstWatchedFile_);
    auto met = identities_->all();
    for (const auto* row : library->waitingForDownload(
             present, [&](const std::string& id) { return met.contains(id); }, since)) {
        if (row->date && now - *row->date > std::chrono::hours(24) && reportedWaiting_.insert(row->uniqueId).second) {
            rlog("[quillet] capture: [%@] \"%@\" (%@) has waited more than a day for its audio to download from "
                 "iCloud",
                 folder_.displayName, row->title.empty() ? row->fileName : row->title, row->fileName);
            AgentNotifications::voiceMemoWaiting(row->uniqueId, row->title.empty() ? row->fileName : row->title);
        }
    }
}

std::set<std::string> FolderWatcher::extensions() const
{
    auto own = folder_.effectiveExtensions();
    if (!own.empty()) {
        return own;
    }
    return folder_.normaliser == WatchedFolder::Normaliser::voiceMemos ? CaptureAccess::voiceMemosExtensions
                                                                        : CaptureAccess::audioExtensions;
}

CaptureAccess::State FolderWatcher::accessState() const
{
    return CaptureAccess::check(folder_.url(), extensions(), folder_.enabled);
}

std::optional<std::vector<fs::path>> FolderWatcher::candidateFiles() const
{
    auto listed = listing();
    if (!listed.state.isUsable()) {
        return std::nullopt;
    }
    auto root = folder_.url();
    std::vector<fs::path> files;
    files.reserve(listed.names.size());
    for (const auto& name : listed.names) {
        files.push_back(root / name);
    }
    return files;
}

CaptureAccess::Listing FolderWatcher::listing() const
{
    return CaptureAccess::list(folder_.url(), extensions(), folder_.enabled);
}

std::optional<FolderWatcher::TimePoint> FolderWatcher::startTime(const fs::path& root, const std::string& name) const
{
    if (folder_.normaliser == WatchedFolder::Normaliser::voiceMemos) {
        if (auto parsed = FilenameNormaliser::parse(name)) {
            return parsed->timestamp;
        }
        return std::nullopt;
    }
    const fs::path file = root / name;
    return probes_.modified ? probes_.modified(file) : CaptureGuards::defaultModified(file);
}

int FolderWatcher::runInitialIndex()
{
    if (store_.seenCount(folder_.id) != 0) {
        // A folder indexed before moments were kept: its earliest entry tells when.
        if (!FirstWatched::find(folder_.id, firstWatchedFile_)) {
            auto state = store_.state();
            std::optional<TimePoint> earliest;
            for (const auto& [name, entry] : state.seenByFolder[folder_.id]) {
                earliest = earliest ? std::min(*earliest, entry.firstSeen) : entry.firstSeen;
            }
            if (earliest) {
                FirstWatched::fix(folder_.id, *earliest, firstWatchedFile_);
            }
        }
        indexQtaHistory();
        return 0;
    }
    // An empty folder is indexed too: what arrives in it later, while the agent is stopped as
    // well, is new.
    auto listed = listing();
    if (!listed.state.isUsable() && listed.state.kind() != CaptureAccess::State::Kind::empty) {
        return 0;
    }
    const auto since = FirstWatched::fix(folder_.id, clock_.now(), firstWatchedFile_);
    auto root = folder_.url();
    // A folder whose entries last changed before that moment holds only files that were there
    // then: no file need be looked at (a folder of thousands costs one look, not thousands).
    // Its status change time tells, which no copy tool can set back (its modification time
    // can be). Only with the real probe: tests that fake files' times keep the look per file.
    using ModifiedProbe = std::optional<TimePoint> (*)(const fs::path&);
    const auto* probe = probes_.modified.target<ModifiedProbe>();
    const bool realProbe = !probes_.modified || (probe != nullptr && *probe == &CaptureGuards::defaultModified);
    const auto folderChanged = realProbe ? CaptureGuards::statusChanged(root) : std::nullopt;
    const bool allOlder = folderChanged && *folderChanged < since;
    std::vector<CaptureStateStore::SeenName> names;
    names.reserve(listed.names.size());
    int arrived = 0;
    for (auto& name : listed.names) {
        auto start = startTime(root, name);
        auto id = start ? FilenameNormaliser::canonicalId(*start) : "";
        if (!allOlder) {
            const fs::path file = root / name;
            auto modified = probes_.modified ? probes_.modified(file) : CaptureGuards::defaultModified(file);
            bool history = !modified || *modified < since;
            if (!history && !(vault_.holds && !id.empty() && vault_.holds(id, file))) {
                ++arrived;
                continue;
            }
        }
        names.push_back({std::move(name), std::move(id)});
    }
    // One write for the whole folder: a crash part-way through leaves the folder unindexed,
    // never half-indexed (which would later capture old recordings as new).
    int count = static_cast<int>(names.size());
    if (folder_.normaliser == WatchedFolder::Normaliser::voiceMemos) {
        names.push_back({std::string(kQtaIndexedMarker), ""});  // its .qta files are in this index
    }
    // The Voice Memos recordings among them are history too, in whichever form their files
    // come later (an ".m4a" joining a ".qta"): remembered by the library's id.
    refreshLibrary();
    if (usableLibrary() != nullptr) {
        std::vector<std::pair<std::string, CaptureIdentities::Entry>> history;
        for (const auto& seen : names) {
            const auto* row = recordingOf(seen.name);
            if (row != nullptr && !identities_->find(row->uniqueId)) {
                history.emplace_back(row->uniqueId, CaptureIdentities::Entry{"", seen.name, row->digest, row->title});
            }
        }
        identities_->record(history);
    }
    store_.markIndexed(std::move(names), folder_.id, clock_.now());
    rlog("[quillet] capture: [%@] initial index complete (%d existing files marked seen)", folder_.displayName, count);
    if (arrived > 0) {
        rlog("[quillet] capture: [%@] %d file(s) arrived after %@ was first watched and are not in the vault; "
             "capturing them",
             folder_.displayName, arrived, folder_.displayName);
    }
    return count;
}

void FolderWatcher::indexQtaHistory()
{
    if (folder_.normaliser != WatchedFolder::Normaliser::voiceMemos || store_.hasSeen(kQtaIndexedMarker, folder_.id)) {
        return;
    }
    auto listed = listing();
    if (!listed.state.isUsable() && listed.state.kind() != CaptureAccess::State::Kind::empty) {
        return;  // looked at again at the next start
    }
    // Before this version .qta files were no recordings: those of them made before the folder
    // was first watched are history, as its other files were at its first index, and those
    // made since are the recordings that were missed, captured from now on.
    const auto since = FirstWatched::find(folder_.id, firstWatchedFile_).value_or(clock_.now());
    const auto root = folder_.url();
    refreshLibrary();
    std::vector<CaptureStateStore::SeenFile> history;
    std::vector<std::pair<std::string, CaptureIdentities::Entry>> identities;
    for (const auto& name : listed.names) {
        std::string extension = fs::path(name).extension().string();
        std::transform(extension.begin(), extension.end(), extension.begin(),
                       [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
        if (extension != ".qta" || store_.hasSeen(name, folder_.id)) {
            continue;
        }
        auto start = startTime(root, name);
        auto modified = probes_.modified ? probes_.modified(root / name) : CaptureGuards::defaultModified(root / name);
        if (!(start && *start < since) && !(modified && *modified < since)) {
            continue;
        }
        history.push_back({name, start ? FilenameNormaliser::canonicalId(*start) : "", ""});
        const auto* row = recordingOf(name);
        if (row != nullptr && identities_ != nullptr && !identities_->find(row->uniqueId)) {
            identities.emplace_back(row->uniqueId, CaptureIdentities::Entry{"", name, row->digest, row->title});
        }
    }
    const int count = static_cast<int>(history.size());
    history.push_back({std::string(kQtaIndexedMarker), "", ""});
    if (identities_ != nullptr) {
        identities_->record(identities);
    }
    store_.markSeen(std::move(history), folder_.id, clock_.now());
    if (count > 0) {
        rlog("[quillet] capture: [%@] %d .qta recording(s) from before %@ was first watched marked seen; import-existing "
             "brings them in",
             folder_.displayName, count, folder_.displayName);
    }
}

std::optional<std::string> FolderWatcher::notARecording(const fs::path& file)
{
    std::error_code error;
    auto status = fs::symlink_status(file, error);
    if (error) {
        return std::nullopt;  // gone already, or unreadable: the guards say which
    }
    if (status.type() == fs::file_type::symlink) {
        return "a symbolic link";
    }
    if (status.type() != fs::file_type::regular) {
        return "not a regular file";
    }
    return std::nullopt;
}

std::optional<std::string> FolderWatcher::fileIdentity(const fs::path& file)
{
    struct stat info {};
    if (::stat(file.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) {
        return std::nullopt;
    }
    auto inNanoseconds = [](std::optional<TimePoint> time) {
        return time ? std::chrono::duration_cast<std::chrono::nanoseconds>(time->time_since_epoch()).count() : 0;
    };
    // The status change time is the one no tool can set back: bytes rewritten in place and the
    // modification time put back still move it.
    return std::to_string(info.st_size) + ":" + std::to_string(inNanoseconds(CaptureGuards::defaultModified(file))) +
           ":" + std::to_string(static_cast<unsigned long long>(info.st_ino)) + ":" +
           std::to_string(inNanoseconds(CaptureGuards::statusChanged(file))) + ":" +
           std::to_string(static_cast<unsigned long long>(info.st_dev));
}

std::vector<std::string> FolderWatcher::identityFields(std::string_view identity)
{
    std::vector<std::string> fields;
    std::size_t start = 0;
    while (start <= identity.size()) {
        auto colon = identity.find(':', start);
        if (colon == std::string_view::npos) {
            colon = identity.size();
        }
        fields.emplace_back(identity.substr(start, colon - start));
        start = colon + 1;
    }
    return fields;
}

bool FolderWatcher::sameFile(const std::string& now, const std::string& kept)
{
    if (now == kept) {
        return true;
    }
    // Kept before the status change time was: what it kept still has to match.
    auto keptFields = identityFields(kept);
    auto nowFields = identityFields(now);
    return keptFields.size() == 3 && nowFields.size() >= 3 &&
           std::equal(keptFields.begin(), keptFields.end(), nowFields.begin());
}

std::optional<std::string> FolderWatcher::folderStamp(const fs::path& folder)
{
    struct stat info {};
    if (::stat(folder.c_str(), &info) != 0) {
        return std::nullopt;
    }
    auto modified = CaptureGuards::defaultModified(folder);
    return std::to_string(static_cast<unsigned long long>(info.st_ino)) + ":" +
           std::to_string(modified ? modified->time_since_epoch().count() : 0);
}

bool FolderWatcher::changedSinceCapture(const fs::path& file, const std::string& name,
                                        const CaptureStateStore::State::SeenEntry& seen)
{
    auto now = fileIdentity(file);
    if (!now || sameFile(*now, seen.file)) {
        changing_.erase(name);
        return false;
    }
    // A file still being changed is taken once it has stayed the same for a whole poll.
    auto [last, first] = changing_.try_emplace(name, *now);
    if (first) {
        rlog("[quillet] capture: [%@] %@ changed after it was captured as %@; capturing it again once it is still",
             folder_.displayName, name, seen.canonicalId);
        return false;
    }
    if (last->second != *now) {
        last->second = *now;
        return false;
    }
    return true;
}

std::vector<FolderWatcher::NewCapture> FolderWatcher::poll()
{
    return poll(listing());
}

std::vector<FolderWatcher::NewCapture> FolderWatcher::poll(const CaptureAccess::Listing& listed)
{
    std::vector<NewCapture> captures;
    if (!listed.state.isUsable()) {
        // A Voice Memos folder whose recordings are all still in iCloud has no audio file,
        // and a library that tells what is coming.
        if (listed.state.kind() == CaptureAccess::State::Kind::empty) {
            followLibrary(listed, refreshLibrary());
        }
        return captures;
    }
    const auto root = folder_.url();
    // Whether the files captured before are looked at again: all of them when the folder's
    // entries changed (a file deleted, created or renamed over another) and at the first poll,
    // otherwise those captured in the last hour (a recording still being written).
    auto stamp = folderStamp(root);
    const bool everyFile = !stamp || stamp != folderStamp_;
    folderStamp_ = stamp;
    const auto now = clock_.now();
    const bool libraryChanged = refreshLibrary();

    // 1. The files to take: those never seen, and captured ones that have changed since.
    struct Candidate {
        const std::string& name;
        fs::path file;
        std::optional<CaptureStateStore::State::SeenEntry> captured;
        const LibraryRecording* recording = nullptr;
        /// The capture this file is the recording of, edited in Voice Memos; "" when none.
        std::string editOf = {};
    };
    std::vector<Candidate> candidates;
    // Other files of recordings captured before (an ".m4a" joining its ".qta", a renamed
    // file): marked seen under that capture's id, never captured twice.
    std::vector<CaptureStateStore::SeenFile> aliases;
    for (const auto& name : listed.names) {
        auto seen = store_.seenEntry(name, folder_.id);
        if (seen && seen->file.empty() && !seen->judged.empty()) {
            // Skipped for its length as it was then: a file that changed since (grew, had its
            // header finished, was rewritten) is judged again, as a new file.
            auto current = fileIdentity(root / name);
            if (!current || *current == seen->judged) {
                continue;
            }
            seen.reset();
        }
        if (seen && (seen->file.empty() ||
                     !(everyFile || now - seen->firstSeen < kWatchedAfterCapture || changing_.contains(name)) ||
                     !changedSinceCapture(root / name, name, *seen))) {
            continue;
        }
        fs::path file = root / name;
        // A link would copy and upload whatever file it points at (any file the user can
        // read), and a folder, FIFO or device named like a recording is no recording: skipped,
        // not marked seen (a recording put in its place later is captured), and said once.
        if (auto other = notARecording(file)) {
            if (reported_.insert(name).second) {
                rlog("[quillet] capture: [%@] skipping %@ (%@)", folder_.displayName, name, *other);
            }
            continue;
        }
        const auto* recording = recordingOf(name);
        std::string editOf;
        if (recording != nullptr) {
            auto known = identities_->find(recording->uniqueId);
            if (!known) {
                // Another file of it captured before the library listed it (the audio came
                // before its row, or the library could not be read then): that capture is it.
                known = adoptedIdentity(*recording, name, listed);
            }
            if (!known && recording->deleted) {
                // The person threw it away before it was captured. Not marked seen: put back
                // from Recently Deleted, it is captured then.
                if (reported_.insert(name).second) {
                    rlog("[quillet] capture: [%@] %@ is in Recently Deleted in Voice Memos; not capturing it",
                         folder_.displayName, name);
                }
                continue;
            }
            if (!known && name != recording->fileName &&
                std::find(listed.names.begin(), listed.names.end(), recording->fileName) != listed.names.end()) {
                // The other form of a recording whose own file is here too: that one is taken.
                continue;
            }
            if (known) {
                // The file it was captured from changed: the person edited it. Any other file
                // of it (its other form, a new name, whatever the library's digest says) is
                // the same recording again, never a second upload.
                if (!known->canonicalId.empty() && !recording->deleted && seen && name == known->fileName) {
                    editOf = known->canonicalId;
                } else if (!seen || seen->canonicalId != known->canonicalId) {
                    rlog("[quillet] capture: [%@] %@ is the Voice Memos recording %@ again; not capturing it twice",
                         folder_.displayName, name, known->canonicalId.empty() ? known->fileName : known->canonicalId);
                    aliases.push_back({name, known->canonicalId, ""});
                    continue;
                } else {
                    // Its capture's file changing again without an edit: nothing to take.
                    aliases.push_back({name, known->canonicalId, ""});
                    continue;
                }
            }
        }
        if (recording == nullptr && !seen && folder_.normaliser == WatchedFolder::Normaliser::voiceMemos) {
            // Without the library's word, the same name with another extension is still the
            // same Voice Memos recording (its ".m4a" after its ".qta" was captured): never a
            // second capture.
            if (auto sibling = siblingSeen(name, listed)) {
                const auto& [other, entry] = *sibling;
                rlog("[quillet] capture: [%@] %@ is another form of %@; not capturing it twice", folder_.displayName,
                     name, other);
                aliases.push_back({name, entry.file.empty() ? "" : entry.canonicalId, ""});
                continue;
            }
        }
        candidates.push_back({name, std::move(file), std::move(seen), recording, std::move(editOf)});
    }
    followLibrary(listed, libraryChanged);
    if (!aliases.empty()) {
        store_.markSeen(std::move(aliases), folder_.id, clock_.now());
    }
    if (candidates.empty()) {
        return captures;
    }

    // 2. The guards look at all of them together: one stability wait serves a burst.
    std::vector<CaptureGuards::Verdict> verdicts(candidates.size(), CaptureGuards::Verdict::proceed());
    // What each file was before it was judged: a file skipped as too short is kept as it was
    // when measured, so that bytes written while it was measured (or before its skip is
    // recorded) count as a change and it is judged again.
    std::vector<std::optional<std::string>> judged(candidates.size());
    if (runGuards_) {
        std::vector<fs::path> files;
        files.reserve(candidates.size());
        for (std::size_t index = 0; index < candidates.size(); ++index) {
            files.push_back(candidates[index].file);
            judged[index] = fileIdentity(candidates[index].file);
        }
        auto probes = probes_;
        if (usableLibrary() != nullptr) {
            // Listed with a length (a row without one may be a recording still being made),
            // or the file a known recording was captured from, edited since.
            std::set<fs::path> edited;
            for (const auto& candidate : candidates) {
                if (!candidate.editOf.empty()) {
                    edited.insert(candidate.file);
                }
            }
            probes.listed = [this, edited = std::move(edited)](const fs::path& file) {
                const auto* row = usableLibrary()->byFile(file.filename().string());
                return edited.contains(file) || (row != nullptr && !row->deleted && row->duration.value_or(0) > 0);
            };
        }
        verdicts = CaptureGuards::evaluateAll(files, clock_.now(), probes, clock_);
    }

    // 3. Handed over in listing order. The journal and the seen set are each written once
    // for the whole poll, the journal first: once a file counts as seen, only the journal
    // remembers it until the pipeline has written its note.
    std::vector<CaptureIntake::Entry> journal;
    std::vector<CaptureStateStore::SeenFile> seen;
    std::set<std::string> taken;  // the ids given in this poll
    std::vector<std::pair<std::string, CaptureIdentities::Entry>> identified;
    for (std::size_t index = 0; index < candidates.size(); ++index) {
        const auto& [name, file, captured, recording, editOf] = candidates[index];
        // Two files of one recording in one poll: the first taken is its capture.
        if (recording != nullptr &&
            std::any_of(identified.begin(), identified.end(),
                        [&](const auto& entry) { return entry.first == recording->uniqueId; })) {
            continue;
        }
        const auto& verdict = verdicts[index];
        if (verdict.kind == CaptureGuards::Verdict::Kind::defer) {
            // A file in flux is reported at each poll; one that cannot be looked at stays
            // so, and is reported once.
            if (verdict.reason != kCannotStat || reported_.insert(name).second) {
                rlog("[quillet] capture: [%@] deferring %@ (%@)", folder_.displayName, name, verdict.reason);
            }
            continue;
        }
        if (verdict.kind == CaptureGuards::Verdict::Kind::skip) {
            rlog("[quillet] capture: [%@] skipping %@ (%@)", folder_.displayName, name, verdict.reason);
            // Too short as it is now; kept as it is, to be judged again once it changes.
            seen.push_back({name, "", "", CaptureGuards::skipsForLength(verdict) ? judged[index].value_or("") : ""});
            continue;
        }
        if (!captured && recording == nullptr && editOf.empty()) {
            // A new name for a recording captured before (renamed in the folder), or the same
            // bytes again under another name: one capture, one note.
            if (auto earlier = earlierCapture(file, name)) {
                const auto& [other, id, how] = *earlier;
                rlog("[quillet] capture: [%@] %@ is %@ (captured as %@); not capturing it twice", folder_.displayName,
                     name, how == Earlier::renamed ? other + " renamed" : "a copy of " + other, id);
                seen.push_back({name, id, fileIdentity(file).value_or("")});
                continue;
            }
        }
        // A captured file that changed: the same recording grown (its copy in the vault is
        // where it begins: a sync or recorder that was still writing), the same bytes (only
        // touched), or another recording under the name.
        auto change = Change::another;
        const std::string comparedWith = !editOf.empty() ? editOf : captured ? captured->canonicalId : "";
        if (!comparedWith.empty() && vault_.copyOf) {
            change = compareWithCopy(file, vault_.copyOf(comparedWith));
        }
        if (change == Change::same) {
            seen.push_back({name, comparedWith, fileIdentity(file).value_or("")});
            changing_.erase(name);
            continue;
        }
        if (!editOf.empty()) {
            // The library's id says whose recording this is: edited, it replaces that
            // capture's copy and transcript, whatever its bytes.
            change = Change::grown;
        }
        auto start = startTime(root, name);
        if (!start && recording != nullptr && recording->date) {
            start = recording->date;  // a name of its own, but the library knows when it was made
        }
        if (!start) {
            rlog("[quillet] capture: [%@] unparseable name, marking seen: %@", folder_.displayName, name);
            seen.push_back({name, "", ""});
            continue;
        }
        // Two recordings of one second (Voice Memos' "-hex" twins, or files that a sync dates
        // by their arrival) would share an id, and the second would never get a copy and a
        // note of its own: an id that the seen set, or this poll, gives another file takes a
        // suffix. Another recording under a name captured before also never takes an id whose
        // note the vault has: the earlier recording's entry no longer holds it.
        const bool grown = change == Change::grown;
        std::string id = grown ? comparedWith
                               : CollisionResolver::resolve(FilenameNormaliser::canonicalId(*start),
                                                            [&](const std::string& candidate) {
                                                                return !store_.holdsCanonicalId(candidate) &&
                                                                       !taken.contains(candidate) &&
                                                                       !(captured && vault_.holds &&
                                                                         vault_.holds(candidate, fs::path()));
                                                            });
        taken.insert(id);
        std::optional<LibraryRecording> known;
        if (recording != nullptr) {
            known = *recording;
            // An edited recording's note keeps its title; a rename reaches it through the
            // title kept here.
            std::string title = recording->title;
            if (auto before = identities_->find(recording->uniqueId); before && !editOf.empty()) {
                title = before->title;
            }
            identified.emplace_back(recording->uniqueId,
                                    CaptureIdentities::Entry{id, name, recording->digest, std::move(title)});
        }
        journal.push_back({folder_.id, name, file, id, *start, grown, known});
        seen.push_back({name, id, fileIdentity(file).value_or("")});
        changing_.erase(name);
        captures.push_back({file, id, *start, folder_.id, grown, std::move(known)});
        if (!editOf.empty()) {
            rlog("[quillet] capture: [%@] %@ was edited in Voice Memos -- replacing %@", folder_.displayName, name, id);
        } else if (grown) {
            rlog("[quillet] capture: [%@] %@ grew after its capture -- replacing %@", folder_.displayName, name, id);
        } else if (captured) {
            rlog("[quillet] capture: [%@] %@ is another recording now -- %@ -> %@", folder_.displayName, name, name,
                 id);
        } else {
            rlog("[quillet] capture: [%@] new file -- %@ -> %@", folder_.displayName, name, id);
        }
    }
    if (intake_ != nullptr && !journal.empty()) {
        intake_->add(journal);
    }
    // After the journal, which hands the identity over again if this write is lost.
    if (identities_ != nullptr) {
        identities_->record(identified);
    }
    if (!seen.empty()) {
        store_.markSeen(std::move(seen), folder_.id, clock_.now());
    }
    return captures;
}

std::optional<FolderWatcher::EarlierCapture> FolderWatcher::earlierCapture(const fs::path& file,
                                                                          const std::string& name) const
{
    auto identity = fileIdentity(file);
    if (!identity) {
        return std::nullopt;
    }
    const auto fields = identityFields(*identity);
    // Only captures of exactly this size can hold its bytes: a file of any other size costs
    // this one look through the folder's entries, and no read.
    auto captures = store_.entriesWhere(folder_.id, [&](std::string_view other, const auto& entry) {
        return !entry.canonicalId.empty() && !entry.file.empty() && other != name &&
               entry.file.starts_with(fields[0] + ":");
    });
    for (const auto& [other, entry] : captures) {
        // The same file under a new name: its inode (on the same device, when that is kept)
        // and modification time, which a rename keeps.
        auto kept = identityFields(entry.file);
        if (kept.size() >= 3 && kept[1] == fields[1] && kept[2] == fields[2] &&
            (kept.size() < 5 || kept[4] == fields[4])) {
            return EarlierCapture{other, entry.canonicalId, Earlier::renamed};
        }
    }
    for (const auto& [other, entry] : captures) {
        // The same bytes: compared with the capture's copy in the vault, or with the file it
        // was captured from when that is still as it was then.
        if (vault_.copyOf && compareWithCopy(file, vault_.copyOf(entry.canonicalId)) == Change::same) {
            return EarlierCapture{other, entry.canonicalId, Earlier::copied};
        }
        const fs::path original = folder_.url() / other;
        auto now = fileIdentity(original);
        if (now && sameFile(*now, entry.file) && compareWithCopy(file, original) == Change::same) {
            return EarlierCapture{other, entry.canonicalId, Earlier::copied};
        }
    }
    return std::nullopt;
}

bool FolderWatcher::takeWaveSizes(const char* file, char* copy, std::size_t size)
{
    auto isWave = [](const char* bytes) {
        return (std::memcmp(bytes, "RIFF", 4) == 0 || std::memcmp(bytes, "RF64", 4) == 0) &&
               std::memcmp(bytes + 8, "WAVE", 4) == 0;
    };
    if (size < 12 || !isWave(file) || !isWave(copy)) {
        return false;
    }
    bool differed = false;
    auto take = [&](std::size_t from, std::size_t count) {
        count = std::min(count, size - from);
        differed |= std::memcmp(copy + from, file + from, count) != 0;
        std::memcpy(copy + from, file + from, count);
    };
    take(4, 4);
    // The copy's chunks up to its data: the sizes that a recorder writes when it stops are the
    // RIFF chunk's, the data chunk's and, in RF64, those in "ds64".
    for (std::size_t offset = 12; offset + 8 <= size;) {
        std::uint32_t length = 0;
        for (int i = 3; i >= 0; --i) {
            length = length << 8 | static_cast<unsigned char>(copy[offset + 4 + static_cast<std::size_t>(i)]);
        }
        if (std::memcmp(copy + offset, "data", 4) == 0) {
            take(offset + 4, 4);
            break;
        }
        if (std::memcmp(copy + offset, "ds64", 4) == 0) {
            take(offset + 8, std::min<std::size_t>(length, 24));
        }
        if (length == 0xFFFFFFFF) {
            break;
        }
        offset += 8 + std::size_t{length} + (length & 1);
    }
    return differed;
}

FolderWatcher::Change FolderWatcher::compareWithCopy(const fs::path& file, const fs::path& copy)
{
    // Read side by side until the copy ends: the file begins with it (grown), is it (same),
    // or differs (another recording). A copy that cannot be read proves nothing: another.
    int fileFd = openRegularFile(file, O_RDONLY);
    if (fileFd < 0) {
        return Change::another;
    }
    int copyFd = openRegularFile(copy, O_RDONLY);
    if (copyFd < 0) {
        ::close(fileFd);
        return Change::another;
    }
    auto readFull = [](int fd, char* buffer, std::size_t size) -> ssize_t {
        std::size_t done = 0;
        while (done < size) {
            ssize_t got = ::read(fd, buffer + done, size - done);
            if (got < 0 && errno == EINTR) {
                continue;
            }
            if (got < 0) {
                return -1;
            }
            if (got == 0) {
                break;
            }
            done += static_cast<std::size_t>(got);
        }
        return static_cast<ssize_t>(done);
    };
    constexpr std::size_t kChunk = 1 << 16;
    std::vector<char> ours(kChunk);
    std::vector<char> theirs(kChunk);
    auto change = Change::another;
    bool sizesWritten = false;
    for (bool first = true;; first = false) {
        ssize_t inCopy = readFull(copyFd, ours.data(), kChunk);
        ssize_t inFile = readFull(fileFd, theirs.data(), kChunk);
        if (inCopy < 0 || inFile < 0 || inFile < inCopy) {
            break;
        }
        if (first) {
            sizesWritten = takeWaveSizes(theirs.data(), ours.data(), static_cast<std::size_t>(inCopy));
        }
        if (std::memcmp(ours.data(), theirs.data(), static_cast<std::size_t>(inCopy)) != 0) {
            break;
        }
        if (inCopy < static_cast<ssize_t>(kChunk)) {
            // The copy has ended: the file goes on (grown) or ends here too (the same bytes).
            // A WAV file whose recorder has written its sizes since is the recording finished:
            // grown, so that its copy gets them too.
            char more = 0;
            change = inFile > inCopy || readFull(fileFd, &more, 1) == 1 || sizesWritten ? Change::grown : Change::same;
            break;
        }
    }
    ::close(copyFd);
    ::close(fileFd);
    return change;
}

} // namespace quillet
