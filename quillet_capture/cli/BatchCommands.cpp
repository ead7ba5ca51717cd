#include "quillet_capture/cli/Commands.hpp"

#include "quillet_capture/capture/CaptureImport.hpp"
#include "quillet_capture/cli/Console.hpp"
#include "quillet_capture/config/Keychain.hpp"
#include "quillet_capture/config/Settings.hpp"
#include "quillet_capture/pipeline/CaptureIdentities.hpp"
#include "quillet_capture/pipeline/CapturePipeline.hpp"
#include "quillet_capture/pipeline/CaptureRecovery.hpp"
#include "quillet_capture/pipeline/CaptureRetry.hpp"
#include "quillet_capture/pipeline/CaptureStateStore.hpp"
#include "quillet_capture/platform/Paths.hpp"
#include "quillet_capture/runtime/MainLoop.hpp"
#include "quillet_capture/runtime/Tasks.hpp"
#include "quillet_capture/service/BackfillSync.hpp"
#include "quillet_capture/service/VeldaneClient.hpp"
#include "quillet_capture/vault/InboxWriter.hpp"
#include "quillet_capture/vault/NoteLedger.hpp"

#include <asio/executor_work_guard.hpp>

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <map>
#include <memory>
#include <regex>
#include <set>

namespace quillet {

namespace fs = std::filesystem;

namespace {

// What to say when no token can be read: on Linux there is no Keychain to be locked over SSH.
std::string noTokenText()
{
    if (Paths::current() == Platform::macOS) {
        return "No device token readable here. Run pair first (over SSH the keychain is locked: run this in Terminal "
               "on the Mac).";
    }
    if (auto file = Keychain::unreadableTokenFile()) {
        return "No device token readable here (" + file->string() + " cannot be read). Run pair first.";
    }
    return "No device token readable here. Run pair first.";
}

void requireSetup()
{
    if (Settings::shared().isFirstRun()) {
        fail("Run setup first.");
    }
}

void requireToken()
{
    if (!Keychain::hasCredentials()) {
        fail(noTokenText());
    }
}

// "2026-03-14 08:26:53 +0000": how a time stamp prints by default, in UTC.
std::string defaultText(std::chrono::system_clock::time_point time)
{
    std::time_t seconds = std::chrono::system_clock::to_time_t(time);
    std::tm utc{};
    gmtime_r(&seconds, &utc);
    char text[64];
    std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S +0000", &utc);
    return text;
}

// The retry's task: runs the retry, then tells the main loop that it is over. Everything it
// uses comes in as parameters: the coroutine outlives this call's temporaries.
asio::awaitable<void> retryTask(CaptureRetry* retry, std::function<void(const CaptureRetry::Progress&)> printer,
                                bool* over)
{
    try {
        co_await retry->run(std::move(printer));
    } catch (const std::exception& error) {
        std::string text = error.what();
        runtime::onMain([text] { out(text); });
    }
    // Posted after every progress report, so the main loop prints them all before it sees
    // the end.
    runtime::onMain([over] { *over = true; });
}

void printRetryProgress(const CaptureRetry::Progress& progress)
{
    using Kind = CaptureRetry::Progress::Kind;
    switch (progress.kind) {
    case Kind::scanning:
        break;
    case Kind::uploading:
        out("  " + std::to_string(progress.index) + "/" + std::to_string(progress.total) + "  " + progress.id);
        break;
    case Kind::finished: {
        int skipped = std::max(0, progress.total - progress.succeeded - progress.failedCount);
        out("Uploaded " + std::to_string(progress.succeeded) + ", skipped " + std::to_string(skipped) + ", failed " +
            std::to_string(progress.failedCount) + ".");
        break;
    }
    case Kind::failed:
        // The retry reports which capture failed; why is in the log.
        out("  upload failed: " + progress.id);
        break;
    }
    std::fflush(stdout);
}

// The sync's task: runs the backfill; the printer ends the process. A run never throws, but
// if it did the process must not wait for ever.
asio::awaitable<void> syncTask(std::shared_ptr<BackfillSync> sync,
                               std::function<void(const BackfillSync::Progress&)> printer)
{
    std::optional<std::string> escaped;
    try {
        co_await sync->run(std::move(printer));
    } catch (const std::exception& error) {
        escaped = error.what();
    }
    if (escaped) {
        std::string text = *escaped;
        runtime::onMain([text] { fail("Sync failed: " + text); });
    }
}

// Whether a file of the folder `folderId` had its note made in the vault and removed by the
// person since: the vault's ledger says so, or, for a capture older than the ledger, the state
// says the file was captured and its copy is in the vault while its note is not.
CaptureImport::RemovedByPerson removedFromVault(std::string folderId)
{
    InboxWriter inbox(Settings::shared().vaultURL());
    auto removed = std::make_shared<std::set<std::string>>();
    for (const auto& [id, record] : NoteLedger(inbox.vaultRoot()).read()) {
        if (record.source.folderId == folderId && NoteLedger::removedByPerson(inbox.noteURL(id), record)) {
            removed->insert(record.source.name);
        }
    }
    return [removed, inbox, folderId](const std::string& name) {
        if (removed->contains(name)) {
            return true;
        }
        auto seen = CaptureStateStore::shared().seenEntry(name, folderId);
        if (!seen || seen->canonicalId.empty() || seen->file.empty()) {
            return false;
        }
        std::error_code error;
        return !fs::exists(inbox.noteURL(seen->canonicalId), error) && !error &&
               fs::exists(inbox.audioURL(seen->canonicalId), error);
    };
}

} // namespace

std::optional<std::chrono::system_clock::time_point> parseSince(const std::vector<std::string>& arguments)
{
    auto value = option("--since", arguments);
    if (!value) {
        return std::nullopt;
    }
    auto day = parseLocalDay(*value);
    if (!day) {
        fail("--since wants a date like 2026-09-01");
    }
    return day;
}

std::optional<std::chrono::system_clock::time_point> parseLocalDay(const std::string& text)
{
    static const std::regex pattern(R"(^(\d{1,4})-(\d{1,2})-(\d{1,2})$)");
    std::smatch match;
    if (!std::regex_match(text, match, pattern)) {
        return std::nullopt;
    }
    int year = std::stoi(match[1]);
    int month = std::stoi(match[2]);
    int day = std::stoi(match[3]);
    if (month < 1 || month > 12 || day < 1 || day > 31) {
        return std::nullopt;
    }
    tzset();
    std::tm wanted{};
    wanted.tm_year = year - 1900;
    wanted.tm_mon = month - 1;
    wanted.tm_mday = day;
    wanted.tm_isdst = -1;
    std::tm probe = wanted;
    std::time_t seconds = std::mktime(&probe);
    // mktime moves 31 April to 1 May; such a day does not exist.
    if (probe.tm_year != wanted.tm_year || probe.tm_mon != wanted.tm_mon || probe.tm_mday != wanted.tm_mday) {
        return std::nullopt;
    }
    // Beyond what the clock holds (about the year 2262) the time would wrap round.
    using Limit = std::chrono::duration<double>;
    if (Limit(static_cast<double>(seconds)) >=
        std::chrono::duration_cast<Limit>(std::chrono::system_clock::time_point::max().time_since_epoch())) {
        return std::nullopt;
    }
    return std::chrono::system_clock::from_time_t(seconds);
}

void cmdRestore(const std::string& id)
{
    requireSetup();
    InboxWriter inbox(Settings::shared().vaultURL());
    NoteLedger ledger(inbox.vaultRoot());
    auto records = ledger.read();
    auto found = records.find(id);
    if (found == records.end() || !NoteLedger::removedByPerson(inbox.noteURL(id), found->second)) {
        std::error_code error;
        if (fs::exists(inbox.noteURL(id), error)) {
            fail(id + " is in the inbox already: " + inbox.noteURL(id).string());
        }
        fail(id + " is not a note removed from the inbox (quillet-capture audit --all lists them).");
    }
    const auto& record = found->second;
    std::error_code error;
    const bool hasCopy = fs::is_regular_file(inbox.audioURL(id), error);
    if (!hasCopy && record.externalIds.empty()) {
        fail("Cannot bring back " + id + ": its audio copy is gone from " + inbox.audioDirectory().string() +
             " and the service never had it.");
    }
    std::optional<std::string> failure;
    withAgentStopped([&] {
        auto now = std::chrono::system_clock::now();
        ledger.restored(id, now);
        if (!hasCopy) {
            return;  // its transcript comes back with the next sync
        }
        // Made again from its copy, as a new capture of it: the agent uploads it when it starts.
        auto frontmatter = InboxWriter::Frontmatter::forCapture(id, record.created.value_or(now));
        frontmatter.vdJobStatus = Settings::shared().captureVeldaneEnabled() ? "queued" : "skipped";
        if (record.source.folderId != CaptureStateStore::voiceMemosFolderId) {
            frontmatter.sourceType = "audio_capture";
        }
        try {
            inbox.writeStub(frontmatter);
            ledger.noteMade(id, record.source, frontmatter.created, now);
        } catch (const std::exception& problem) {
            failure = problem.what();
        }
    });
    if (failure) {
        fail("Cannot bring back " + id + ": " + *failure);
    }
    if (hasCopy) {
        out("Brought back " + inbox.noteURL(id).string() + ".");
        out(Settings::shared().captureVeldaneEnabled() ? "The capture agent uploads its recording again for its transcript."
                                               : "Uploading is off: its recording waits in the vault.");
    } else {
        out("Brought back " + id + ": run quillet-capture sync to bring its transcript into the inbox again.");
    }
    runtime::exitProcess(0);
}

void cmdRetry(const std::vector<std::string>& arguments)
{
    if (std::find(arguments.begin(), arguments.end(), "--restore") != arguments.end()) {
        auto id = option("--restore", arguments);
        if (!id || id->empty() || id->starts_with("-")) {
            fail("--restore wants the id of a removed note, as quillet-capture audit --all shows it");
        }
        cmdRestore(*id);
    }
    requireSetup();
    requireToken();

    auto pending = CaptureRetry::pendingIds();
    if (pending.empty()) {
        out("Nothing to upload: every capture since " + defaultText(CaptureRetry::retryWatermark()) +
            " is transcribed or in progress.");
        runtime::exitProcess(0);
    }
    out("Uploading " + plural(static_cast<int>(pending.size()), "capture") + "...");
    std::fflush(stdout);

    withAgentStopped([&pending] {
        // What the user retries starts afresh: a capture the agent gave up on is its again.
        // Read only now that the agent is stopped, which writes the file while it runs.
        for (const auto& id : pending) {
            CaptureRecovery::shared().forget(id);
        }
        CaptureRetry retry(CapturePipeline::shared(), [] { return Settings::shared().inboxURL(); });
        bool over = false;
        runtime::spawn(retryTask(&retry, printRetryProgress, &over), "retry");
        // The main loop turns in short slices while the task runs, so that the progress
        // reports, which arrive on it, are printed as they come.
        auto& loop = runtime::mainContext();
        auto keepTurning = asio::make_work_guard(loop);
        while (!over) {
            loop.restart();
            loop.run_one_for(std::chrono::milliseconds(200));
        }
    });
    out("The capture agent polls them to their transcripts. Follow progress with: quillet-capture status");
    runtime::exitProcess(0);
}

namespace {

// "2024-02-01 09:30" in the local time zone; "unknown date" without one.
// The watched folder that `path` names (a leading "~" expanded, a relative path taken from the
// working folder, links resolved), among `folders`.
std::optional<WatchedFolder> watchedFolderAt(const std::string& path, const std::vector<WatchedFolder>& folders)
{
    fs::path expanded = WatchedFolder::generic(path).url();
    std::error_code error;
    fs::path absolute = fs::absolute(expanded, error);
    if (error) {
        return std::nullopt;
    }
    auto wanted = WatchedFolder::generic(absolute.string()).resolvedURL();
    for (const auto& folder : folders) {
        if (folder.resolvedURL() == wanted) {
            return folder;
        }
    }
    return std::nullopt;
}

void printImportSummary(const std::vector<CaptureImport::Result>& results, CaptureImport::Mode mode)
{
    int deleted = 0;
    int removed = 0;
    int duplicates = 0;
    int total = 0;
    for (const auto& result : results) {
        deleted += result.deleted;
        removed += result.removed;
        duplicates += result.duplicates;
        total += result.picked;
    }
    if (deleted > 0) {
        out("Left out " + plural(deleted, "recording") + " in Recently Deleted in Voice Memos.");
    }
    if (removed > 0) {
        out("Left out " + plural(removed, "recording") +
            " whose note you removed from the inbox (quillet-capture audit --all lists them; retry --restore ID "
            "brings one back).");
    }
    if (duplicates > 0) {
        out("Left out " + plural(duplicates, "recording") + " found twice (the same file or the same audio): " +
            "each is queued once.");
    }
    const bool dryRun = mode == CaptureImport::Mode::dryRun;
    for (const auto& result : results) {
        if (dryRun) {
            for (const auto& recording : result.recordings) {
                out(result.folderPath + "  " + recording.name + "  " + (recording.date ? localMinute(*recording.date) : "unknown date"));
            }
            continue;
        }
        if (result.missing) {
            out("No recordings to send in " + result.folderPath + " (it does not exist).");
        } else if (result.notIndexed) {
            out("No recordings to send in " + result.folderPath +
                " yet: the capture agent has not indexed it (start it with quillet-capture install, then run this "
                "again).");
        } else if (result.picked < 1) {
            out("No recordings to send in " + result.folderPath + ".");
        } else {
            out("Queued " + plural(result.picked, "recording") + " from " + result.folderPath + ".");
            // The names the person gave them in Voice Memos, so that they know what comes.
            constexpr std::size_t kTitlesShown = 10;
            for (std::size_t at = 0; at < result.titles.size() && at < kTitlesShown; ++at) {
                out("  " + result.titles[at].second + " (" + result.titles[at].first + ")");
            }
            if (result.titles.size() > kTitlesShown) {
                out("  and " + std::to_string(result.titles.size() - kTitlesShown) + " more with a title");
            }
        }
    }
    if (dryRun) {
        out("Would queue " + plural(total, "recording") + "; nothing was queued (--dry-run).");
        return;
    }
    if (results.size() > 1 && total > 0) {
        out("Queued " + plural(total, "recording") + " in all.");
    }
    if (total > 0) {
        requirePairedForUpload();
        out("The capture agent picks them up within about 30 seconds and uploads them one at a time.");
        out("Follow progress with: quillet-capture status");
    }
}

} // namespace

void cmdImportExisting(const std::vector<std::string>& arguments)
{
    requireSetup();
    auto since = parseSince(arguments);
    const auto mode = std::find(arguments.begin(), arguments.end(), "--dry-run") != arguments.end()
                          ? CaptureImport::Mode::dryRun
                          : CaptureImport::Mode::queue;

    auto folders = Settings::shared().enabledWatchedFolders();
    if (auto path = option("--folder", arguments)) {
        auto folder = watchedFolderAt(*path, folders);
        if (!folder) {
            std::string names;
            for (const auto& watched : folders) {
                names += (names.empty() ? "" : ", ") + watched.url().string();
            }
            std::fprintf(stderr, "%s is not a watched folder (the watched folders: %s).\n", path->c_str(),
                         names.empty() ? "none" : names.c_str());
            std::fflush(stderr);
            runtime::exitProcess(2);
        }
        folders = {*folder};
    }
    if (folders.empty()) {
        out("No folder is watched, so there is nothing to bring in. Add one with: quillet-capture config watch FOLDER");
        runtime::exitProcess(0);
    }

    // What the person removed from the vault, asked per folder.
    std::map<std::string, CaptureImport::RemovedByPerson> removedIn;
    for (const auto& folder : folders) {
        removedIn.emplace(folder.id, removedFromVault(folder.id));
    }
    auto removed = [&removedIn](const std::string& folderId, const std::string& name) {
        auto found = removedIn.find(folderId);
        return found != removedIn.end() && found->second(name);
    };

    // On a terminal a long run shows how far it is, on one line rewritten in place.
    const bool terminal = ::isatty(STDOUT_FILENO) == 1;
    bool progressShown = false;
    CaptureImport::Progress progress = [&progressShown, terminal](int done, int total) {
        constexpr int kWorthShowing = 50;
        if (!terminal || total <= kWorthShowing) {
            return;
        }
        std::printf("\rQueued %d of %d...", done, total);
        std::fflush(stdout);
        progressShown = true;
    };

    std::optional<std::vector<CaptureImport::Result>> results;
    auto work = [&] {
        try {
            results = CaptureImport::queueFolders(folders, since, CaptureStateStore::shared(),
                                                  mode == CaptureImport::Mode::queue ? &CaptureIdentities::shared()
                                                                                     : nullptr,
                                                  removed, mode, progress);
        } catch (const CaptureImport::Failure& failure) {
            out("Cannot read " + failure.path() + ": " + failure.reason() +
                (Paths::current() == Platform::macOS
                     ? ". If it says permission, grant Full Disk Access to this Terminal (to run this command) and "
                       "to quillet-capture (for the agent)."
                     : ". If it says permission, give this user read and search permission on the folder (for "
                       "example chmod u+rx on it)."));
        } catch (const std::exception& error) {
            out(error.what());
        }
    };
    // A dry run only reads: the agent may go on.
    if (mode == CaptureImport::Mode::dryRun) {
        work();
    } else {
        withAgentStopped(work);
    }
    if (progressShown) {
        std::printf("\r\033[K");
        std::fflush(stdout);
    }
    if (!results) {
        runtime::exitProcess(1);
    }
    printImportSummary(*results, mode);
    runtime::exitProcess(0);
}

void cmdSync()
{
    requireSetup();
    requireToken();

    auto& settings = Settings::shared();
    auto sync = std::make_shared<BackfillSync>(VeldaneClient(settings.veldaneBaseURL()),
                                               InboxWriter(settings.vaultURL()));
    std::string inbox = sync->inboxWriter().inboxDirectory().string();
    auto lastPrinted = std::make_shared<int>(-1);
    auto printer = [inbox, lastPrinted](const BackfillSync::Progress& progress) {
        using Kind = BackfillSync::Progress::Kind;
        switch (progress.kind) {
        case Kind::listing:
            out("Listing your Veldane library...");
            break;
        case Kind::syncing:
            if (progress.total <= 0) {
                break;
            }
            if (progress.done == 0 && *lastPrinted == -1) {
                out(std::to_string(progress.total) + " to bring down.");
            }
            if (progress.done == progress.total || progress.done / 10 != *lastPrinted / 10) {
                out("  " + std::to_string(progress.done) + "/" + std::to_string(progress.total));
                *lastPrinted = progress.done;
            }
            break;
        case Kind::finished:
            out("Done: " + std::to_string(progress.written) + " written to " + inbox + ", " +
                std::to_string(progress.alreadyThere) + " already there, " + std::to_string(progress.failed) +
                " failed.");
            runtime::exitProcess(progress.failed > 0 ? 1 : 0);
        case Kind::failed:
            out("Sync failed: " + progress.text);
            runtime::exitProcess(1);
        }
        std::fflush(stdout);
    };
    runtime::spawn(syncTask(sync, printer), "sync");
    runtime::runMainLoop();
}

} // namespace quillet
