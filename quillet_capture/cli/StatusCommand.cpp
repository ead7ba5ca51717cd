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
#include "quillet_capture/platform/AgentLock.hpp"
#include "quillet_capture/platform/AgentManager.hpp"
#include "quillet_capture/platform/Paths.hpp"
#include "quillet_capture/platform/Process.hpp"
#include "quillet_capture/platform/UserDefaults.hpp"
#include "quillet_capture/util/Utf8.hpp"
#include "quillet_capture/vault/InboxWriter.hpp"
#include "quillet_capture/util/AtomicFile.hpp"

#include <cstdio>

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

StatusReport::Inbox countInbox(const fs::path& inbox, const CanBeSent& canBeSent)
{
    StatusReport::Inbox counts;
    std::error_code error;
    fs::directory_iterator it(inbox, error);
    if (error) {
        // On Linux a folder that is there but cannot be listed is said to be so.
        std::error_code missing;
        if (Paths::current() != Platform::macOS && fs::exists(inbox, missing)) {
            counts.state = StatusReport::Inbox::State::unreadable;
            counts.error = error.message();
        }
        return counts;
    }
    counts.state = StatusReport::Inbox::State::listed;
    const auto& resumable = CapturePipeline::resumableStates();
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
        counts.canBeSent += canBeSent(entry, frontmatter) ? 1 : 0;
        if (entry.filename().string().starts_with(".")) {
            continue;
        }
        const std::string& status = frontmatter.vdJobStatus ? *frontmatter.vdJobStatus : kSkipped;
        counts.waitingForPairing += status == CapturePipeline::needsPairingStatus ? 1 : 0;
        if (status == "done") {
            ++counts.transcribed;
        } else if (resumable.contains(status)) {
            ++counts.inProgress;
        } else {
            ++counts.other;
        }
    }
    return counts;
}

std::string inboxSummary(const fs::path& inbox, const CanBeSent& canBeSent)
{
    return countInbox(inbox, canBeSent).text();
}

namespace {

std::string healthWord(VoiceMemosLibrary::Health health)
{
    switch (health) {
    case VoiceMemosLibrary::Health::absent:
        return "absent";
    case VoiceMemosLibrary::Health::unreadable:
        return "unreadable";
    case VoiceMemosLibrary::Health::locked:
        return "locked";
    case VoiceMemosLibrary::Health::corrupt:
        return "corrupt";
    case VoiceMemosLibrary::Health::unknownSchema:
        return "unknownSchema";
    case VoiceMemosLibrary::Health::readable:
        break;
    }
    return "readable";
}

// The Voice Memos library as the agent sees it: readable or why not, and what waits.
StatusReport::Library gatherLibrary(const WatchedFolder& folder, const CaptureIdentities& identities)
{
    VoiceMemosLibrary library(folder.url(), VoiceMemosLibrary::defaultCopies());
    library.refresh();
    StatusReport::Library facts;
    facts.state = healthWord(library.health());
    facts.summary = library.summary();
    if (library.health() != VoiceMemosLibrary::Health::readable) {
        return facts;
    }
    auto listed = CaptureAccess::list(folder.url(), CaptureAccess::voiceMemosExtensions, true);
    std::set<std::string, std::less<>> present(listed.names.begin(), listed.names.end());
    auto known = identities.all();
    auto waiting = library.waitingForDownload(
        present, [&](const std::string& id) { return known.contains(id); },
        FirstWatched::find(folder.id));
    facts.recordings = static_cast<int>(library.recordings().size());
    facts.waitingForDownload = static_cast<int>(waiting.size());
    if (!waiting.empty() && waiting.front()->date) {
        facts.oldestWaiting = *waiting.front()->date;
    }
    facts.recentlyDeleted = static_cast<int>(std::count_if(library.recordings().begin(), library.recordings().end(),
                                                           [](const LibraryRecording& row) { return row.deleted; }));
    return facts;
}

// The inbox of `settings`, counted with the notes that `retry` would send.
StatusReport::Inbox countInboxOf(const Settings& settings)
{
    auto inbox = settings.inboxURL();
    // The watermark that CaptureRetry uses, without fixing it when none is stored yet: a
    // watermark of now selects the same captures, and `status` changes nothing.
    auto watermark = UserDefaults::date(CaptureRetry::watermarkKey).value_or(std::chrono::system_clock::now());
    return countInbox(inbox, [&inbox, watermark](const fs::path& note, const InboxWriter::Frontmatter& frontmatter) {
        return CaptureRetry::selects(inbox, note, frontmatter, CaptureRetry::isRetryable, watermark);
    });
}

} // namespace

std::string inboxSummary()
{
    return countInboxOf(Settings::shared()).text();
}

StatusReport gatherStatus(const StatusSources& sources)
{
    const Settings& settings = sources.settings;
    std::error_code ignored;
    StatusReport report;
    report.version = toolVersion;
    report.program = executablePath();
    report.settingsFile = fs::absolute(Settings::fileURL(), ignored).string();
    report.settingsMissing = settings.isFirstRun();
    report.vault = settings.vaultPath();
    report.inboxPath = settings.inboxURL().string();
    for (const auto& folder : settings.watchedFolders()) {
        StatusReport::Folder facts;
        facts.id = folder.id;
        facts.name = folder.displayName;
        facts.path = folder.url().string();
        facts.enabled = folder.enabled;
        facts.voiceMemos = folder.isVoiceMemos();
        if (folder.enabled && folder.isVoiceMemos()) {
            facts.library = gatherLibrary(folder, sources.identities);
        }
        report.folders.push_back(std::move(facts));
    }
    report.upload = settings.captureVeldaneEnabled();
    report.afterTranscript = settings.afterTranscriptCommand();
    // An empty item (written so by another program) is no token, as everywhere else.
    if (auto token = Keychain::deviceToken(); token && !token->empty()) {
        report.pairing = StatusReport::Pairing::paired;
        report.tokenPrefix = Utf8::prefix(*token, 12);
    } else if (Paths::current() == Platform::macOS) {
        report.pairing = StatusReport::Pairing::noTokenInKeychain;
    } else if (auto file = Keychain::unreadableTokenFile()) {
        report.pairing = StatusReport::Pairing::tokenFileUnreadable;
        report.unreadableTokenFile = file->string();
    }
    report.keepVoiceMemosRunning = settings.keepVoiceMemosRunning();
    report.voiceMemosRunning = sources.voiceMemosRunning();
    report.platform = Paths::current();
    report.agentName = sources.agent.name();
    report.agentLoaded = sources.agent.agentLoaded();
    report.agentPid = AgentLock::runningAgent();
    report.inbox = countInboxOf(settings);
    report.inbox.agentWorking = report.agentPid.has_value();
    report.recovery = sources.recovery.summary();
    // Whatever this process logged (the migration from Pellam, a token file made owner-only)
    // belongs in the file before it is read.
    QuilletLog::drain();
    report.logFile = fs::absolute(QuilletLog::fileURL(), ignored).string();
    report.log = readStatusLog(report.logFile);
    return report;
}

void cmdStatus(const std::vector<std::string>& arguments)
{
    StatusReport report = gatherStatus({
        .settings = Settings::shared(),
        .recovery = CaptureRecovery::shared(),
        .agent = AgentManager::current(),
        .identities = CaptureIdentities::shared(),
        .voiceMemosRunning = [] { return VoiceMemosKeeper::shared().isVoiceMemosRunning(); },
    });
    bool json = arguments.size() > 1 && std::find(arguments.begin() + 1, arguments.end(), "--json") != arguments.end();
    if (json && !Settings::shared().isFirstRun()) {
        // Read for scripts only: the text report stays as quick as it was.
        report.audit = CaptureAudit::count(CaptureAudit::run(CaptureAudit::gather(), {}));
    }
    std::string text = json ? report.jsonText() : report.text();
    std::fwrite(text.data(), 1, text.size(), stdout);
}

} // namespace quillet
