#include "quillet_capture/cli/StatusCommand.hpp"

#include "quillet_capture/capture/CaptureAccess.hpp"
#include "quillet_capture/capture/FirstWatched.hpp"
#include "quillet_capture/capture/VoiceMemosKeeper.hpp"
#include "quillet_capture/cli/Commands.hpp"
#include "quillet_capture/cli/Console.hpp"
#include "quillet_capture/config/Keychain.hpp"
#include "quillet_capture/config/Log.hpp"
#include "quillet_capture/config/Settings.hpp"
#include "quillet_capture/library/VoiceMemosLibrary.hpp"
#include "quillet_capture/pipeline/CaptureIdentities.hpp"
#include "quillet_capture/pipeline/CapturePipeline.hpp"
#include "quillet_capture/pipeline/CaptureRecovery.hpp"
#include "quillet_capture/pipeline/CaptureRetry.hpp"
#include "quillet_capture/platform/AgentManager.hpp"
#include "quillet_capture/platform/Paths.hpp"
#include "quillet_capture/platform/Process.hpp"
#include "quillet_capture/platform/UserDefaults.hpp"
#include "quillet_capture/util/Iso8601.hpp"
#include "quillet_capture/util/Utf8.hpp"
#include "quillet_capture/vault/InboxWriter.hpp"
#include "quillet_capture/util/AtomicFile.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <deque>
#include <set>

namespace quillet {

namespace fs = std::filesystem;

namespace {

// What a note without a job status counts as.
const std::string kSkipped = "skipped";

std::string onOff(bool on)
{
    return on ? "on" : "off";
}

// Collects the lines of the log as they are read.
class LogScan {
public:
    explicit LogScan(std::size_t tailLines) : tailLines_(tailLines) {}

    // False once a line is not UTF-8: the whole file then counts as empty. A line feed never
    // occurs inside a UTF-8 sequence, so checking line by line checks the whole text.
    bool add(std::string line)
    {
        if (line.empty()) {
            return true;
        }
        if (!Utf8::isValid(line)) {
            return false;
        }
        if (line.find("access ->") != std::string::npos) {
            result_.accessLine = line;
        }
        if (tailLines_ == 0) {
            return true;
        }
        tail_.push_back(std::move(line));
        if (tail_.size() > tailLines_) {
            tail_.pop_front();
        }
        return true;
    }

    StatusLog finish()
    {
        result_.tail.assign(std::make_move_iterator(tail_.begin()), std::make_move_iterator(tail_.end()));
        return std::move(result_);
    }

private:
    std::size_t tailLines_;
    std::deque<std::string> tail_;
    StatusLog result_;
};

} // namespace

StatusLog readStatusLog(const fs::path& file, std::size_t tailLines)
{
    int fd = openRegularFile(file, O_RDONLY);
    if (fd < 0) {
        return {};
    }
    LogScan scan(tailLines);
    std::string line;
    static constexpr std::size_t kChunk = 64 * 1024;
    std::string buffer(kChunk, '\0');
    bool readable = true;
    for (;;) {
        ssize_t got = ::read(fd, buffer.data(), kChunk);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0) {
            readable = false; // a folder, an I/O error: unreadable counts as empty
            break;
        }
        if (got == 0) {
            break;
        }
        std::string_view piece(buffer.data(), static_cast<std::size_t>(got));
        for (std::size_t feed; (feed = piece.find('\n')) != std::string_view::npos;) {
            line.append(piece.substr(0, feed));
            piece.remove_prefix(feed + 1);
            if (!scan.add(std::move(line))) {
                readable = false;
                break;
            }
            line.clear();
        }
        if (!readable) {
            break;
        }
        line.append(piece);
    }
    ::close(fd);
    if (!readable || !scan.add(std::move(line))) {
        return {};
    }
    return scan.finish();
}

std::string inboxSummary(const fs::path& inbox,
                         const std::function<bool(const fs::path& note, const InboxWriter::Frontmatter&)>& canBeSent)
{
    std::error_code error;
    fs::directory_iterator it(inbox, error);
    if (error) {
        // On Linux a folder that is there but cannot be listed is said to be so.
        std::error_code missing;
        if (Paths::current() != Platform::macOS && fs::exists(inbox, missing)) {
            return "cannot read _inbox (" + error.message() + ")";
        }
        return "no _inbox yet";
    }
    const auto& resumable = CapturePipeline::resumableStates();
    int transcribed = 0;
    int inProgress = 0;
    int other = 0;
    int pending = 0;
    int needPairing = 0;
    for (; !error && it != fs::directory_iterator(); it.increment(error)) {
        const fs::path& entry = it->path();
        if (entry.extension() != ".md") {
            continue;
        }
        InboxWriter::Frontmatter frontmatter;
        try {
            frontmatter = InboxWriter::readFrontmatter(entry);
        } catch (const std::exception&) {
            continue; // no readable frontmatter: not a capture note
        }
        // Counted as retry counts them, hidden names included.
        pending += canBeSent(entry, frontmatter) ? 1 : 0;
        if (entry.filename().string().starts_with(".")) {
            continue;
        }
        const std::string& status = frontmatter.vdJobStatus ? *frontmatter.vdJobStatus : kSkipped;
        needPairing += status == CapturePipeline::needsPairingStatus ? 1 : 0;
        if (status == "done") {
            ++transcribed;
        } else if (resumable.contains(status)) {
            ++inProgress;
        } else {
            ++other;
        }
    }
    std::string summary = std::to_string(transcribed) + " transcribed, " + std::to_string(inProgress) +
                          " in progress, " + std::to_string(other) + " other";
    if (pending >= 1) {
        summary += " -- " + std::to_string(pending) + " can be sent with: quillet-capture retry";
    }
    if (needPairing >= 1) {
        summary += " -- " + std::to_string(needPairing) +
                   " wait because Veldane refused this device's token: run quillet-capture pair";
    }
    return summary;
}

/// The Voice Memos library as the agent sees it: readable or why not, and what waits.
static std::string libraryLine(const WatchedFolder& folder)
{
    VoiceMemosLibrary library(folder.url(), VoiceMemosLibrary::defaultCopies());
    library.refresh();
    auto line = library.summary();
    if (library.health() != VoiceMemosLibrary::Health::readable) {
        return line;
    }
    auto listed = CaptureAccess::list(folder.url(), CaptureAccess::voiceMemosExtensions, true);
    std::set<std::string, std::less<>> present(listed.names.begin(), listed.names.end());
    auto known = CaptureIdentities::shared().all();
    auto waiting = library.waitingForDownload(
        present, [&](const std::string& id) { return known.contains(id); },
        FirstWatched::find(folder.id));
    line += ", " + std::to_string(waiting.size()) + " waiting for download";
    if (!waiting.empty() && waiting.front()->date) {
        line += " (oldest recorded " + Iso8601::format(*waiting.front()->date).substr(0, 10) + ")";
    }
    auto deleted = std::count_if(library.recordings().begin(), library.recordings().end(),
                                 [](const LibraryRecording& row) { return row.deleted; });
    return line + ", " + std::to_string(deleted) + " in Recently Deleted";
}

std::string inboxSummary()
{
    auto inbox = Settings::shared().inboxURL();
    // The watermark that CaptureRetry uses, without fixing it when none is stored yet: a
    // watermark of now selects the same captures, and `status` changes nothing.
    auto watermark = UserDefaults::date(CaptureRetry::watermarkKey).value_or(std::chrono::system_clock::now());
    return inboxSummary(inbox, [&inbox, watermark](const fs::path& note, const InboxWriter::Frontmatter& frontmatter) {
        return CaptureRetry::selects(inbox, note, frontmatter, CaptureRetry::isRetryable, watermark);
    });
}

void cmdStatus()
{
    auto& settings = Settings::shared();
    std::error_code ignored;

    out("quillet-capture " + toolVersion);
    out("  program:     " + executablePath());
    out("  config:      " + fs::absolute(Settings::fileURL(), ignored).string() +
        (settings.isFirstRun() ? "  (missing -- run setup)" : ""));
    out("  vault:       " + settings.vaultPath());
    for (const auto& folder : settings.watchedFolders()) {
        out("  folder:      " + folder.displayName + " " + onOff(folder.enabled) + " -- " + folder.url().string());
        if (folder.enabled && folder.isVoiceMemos()) {
            out("  library:     " + libraryLine(folder));
        }
    }
    out("  upload:      " + onOff(settings.captureVeldaneEnabled()));
    out("  after a transcript: " + settings.afterTranscriptCommand().value_or("off"));
    // An empty item (written so by another program) is no token, as everywhere else.
    if (auto token = Keychain::deviceToken(); token && !token->empty()) {
        out("  paired:      yes (" + Utf8::prefix(*token, 12) + "...)");
    } else if (Paths::current() == Platform::macOS) {
        out("  paired:      no token readable here -- run pair (over SSH the keychain is locked; the agent can "
            "still read it)");
    } else if (auto file = Keychain::unreadableTokenFile()) {
        out("  paired:      no token readable here -- run pair (" + file->string() + " cannot be read)");
    } else {
        out("  paired:      no token readable here -- run pair");
    }
    out("  keep Voice Memos running: " + onOff(settings.keepVoiceMemosRunning()) +
        (VoiceMemosKeeper::shared().isVoiceMemosRunning() ? " (running now)" : " (not running now)"));
    out(std::string("  LaunchAgent: ") +
        (AgentManager::current().agentLoaded() ? "loaded" : "not loaded -- run install"));
    out("  inbox:       " + inboxSummary());
    // Failed captures that the agent tries again by itself, and those that wait for retry.
    auto recovery = CaptureRecovery::shared().summary();
    if (recovery.waiting > 0) {
        out("  tried again: " + plural(recovery.waiting, "capture") + ", next attempt at " +
            QuilletLog::stamp(*recovery.next));
    }
    if (recovery.givenUp > 0) {
        out("  failed:      " + plural(recovery.givenUp, "capture") + " the service failed " +
            std::to_string(CaptureRecovery::maxServiceFailures + 1) + " times -- run retry");
    }
    if (!recovery.unreadableNotes.empty()) {
        std::string names;
        for (const auto& id : recovery.unreadableNotes) {
            names += (names.empty() ? "" : ", ") + id + ".md";
        }
        out("  needs you:   " + plural(static_cast<int>(recovery.unreadableNotes.size()), "note") +
            " whose frontmatter does not parse (" + names + ") -- fix it; each transcript waits beside its note as "
            "<id>.transcript.md");
    }
    out();

    // Whatever this process logged (the migration from Pellam) belongs in the file before it
    // is read.
    QuilletLog::drain();
    fs::path logFile = fs::absolute(QuilletLog::fileURL(), ignored);
    StatusLog log = readStatusLog(logFile);
    out("Access as seen by the running capture (from the log; this Terminal has its own permissions):");
    out(log.accessLine ? "  " + *log.accessLine : "  (no access line yet)");
    out();
    out("Last log lines (" + logFile.string() + "):");
    for (const auto& line : log.tail) {
        out("  " + line);
    }
}

} // namespace quillet
