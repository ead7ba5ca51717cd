#include "quillet_capture/pipeline/CaptureStatus.hpp"

#include "quillet_capture/config/AgentSettings.hpp"
#include "quillet_capture/platform/FileTimes.hpp"
#include "quillet_capture/runtime/MainLoop.hpp"
#include "quillet_capture/vault/InboxWriter.hpp"

#include <ctime>

namespace quillet {

namespace fs = std::filesystem;

namespace {

CaptureStatus::TimePoint startOfLocalDay(CaptureStatus::TimePoint now)
{
    std::time_t seconds = std::chrono::system_clock::to_time_t(now);
    std::tm local{};
    localtime_r(&seconds, &local);
    local.tm_hour = 0;
    local.tm_min = 0;
    local.tm_sec = 0;
    local.tm_isdst = -1;
    return std::chrono::system_clock::from_time_t(std::mktime(&local));
}

} // namespace

CaptureStatus& CaptureStatus::shared()
{
    static auto* status = new CaptureStatus([] { return AgentSettings::shared().current()->inboxURL(); },
                                            [](std::function<void()> change) { runtime::onMain(std::move(change)); });
    return *status;
}

CaptureStatus::CaptureStatus(std::function<fs::path()> inbox, Publisher publish, std::chrono::milliseconds firstRefresh,
                             std::chrono::milliseconds interval)
    : queue_("quillet.capture.status")
    , inbox_(std::move(inbox))
    , publish_(std::move(publish))
    , firstRefresh_(firstRefresh)
    , interval_(interval)
{
}

CaptureStatus::~CaptureStatus()
{
    stop();
    queue_.drain();
}

void CaptureStatus::start()
{
    std::lock_guard guard(timerLock_);
    if (timer_) {
        return;
    }
    timer_ = runtime::Timer::repeating(queue_.executor(), firstRefresh_, interval_, [this] {
        auto counted = count(inbox_(), std::chrono::system_clock::now());
        publish([this, counted] { snapshot_ = counted; });
    });
}

void CaptureStatus::stop()
{
    std::lock_guard guard(timerLock_);
    timer_.reset();
}

void CaptureStatus::refresh()
{
    queue_.async([this] {
        auto counted = count(inbox_(), std::chrono::system_clock::now());
        publish([this, counted] { snapshot_ = counted; });
    });
}

void CaptureStatus::publish(std::function<void()> change)
{
    publish_([this, change = std::move(change)] {
        std::lock_guard guard(valuesLock_);
        change();
    });
}

void CaptureStatus::poll(int newCaptures)
{
    auto now = std::chrono::system_clock::now();
    publish([this, now, newCaptures] {
        lastPoll_ = now;
        if (newCaptures >= 1) {
            lastNewCapture_ = now;
        }
    });
}

void CaptureStatus::updateAccess(const CaptureAccess::State& state)
{
    publish([this, state] { access_ = state; });
}

CaptureStatus::Snapshot CaptureStatus::snapshot() const
{
    std::lock_guard guard(valuesLock_);
    return snapshot_;
}

std::optional<CaptureAccess::State> CaptureStatus::access() const
{
    std::lock_guard guard(valuesLock_);
    return access_;
}

std::optional<CaptureStatus::TimePoint> CaptureStatus::lastPoll() const
{
    std::lock_guard guard(valuesLock_);
    return lastPoll_;
}

std::optional<CaptureStatus::TimePoint> CaptureStatus::lastNewCapture() const
{
    std::lock_guard guard(valuesLock_);
    return lastNewCapture_;
}

CaptureStatus::Snapshot CaptureStatus::count(const fs::path& inbox, TimePoint now)
{
    Snapshot snapshot;
    auto today = startOfLocalDay(now);
    std::optional<TimePoint> newest;
    std::error_code error;
    fs::directory_iterator it(inbox, error);
    if (error) {
        return snapshot;
    }
    for (; it != fs::directory_iterator(); it.increment(error)) {
        if (error) {
            break;
        }
        const auto& note = it->path();
        if (note.extension() != ".md") {
            continue;
        }
        InboxWriter::Frontmatter frontmatter;
        try {
            frontmatter = InboxWriter::readFrontmatter(note);
        } catch (const std::exception&) {
            // A note without a readable frontmatter has no job status: it counts as pending.
            frontmatter = InboxWriter::Frontmatter{};
            frontmatter.id = note.stem().string();
        }
        const std::string status = frontmatter.vdJobStatus.value_or("");
        if (status == "processing") {
            ++snapshot.processing;
        } else if (status == "done") {
            ++snapshot.done;
        } else if (status == "upload_failed" || status == "failed" || status == "poll_timeout" ||
                   status == "paywalled") {
            ++snapshot.failed;
        } else {
            ++snapshot.pending;
        }
        auto created = FileTimes::created(note);
        if (!created) {
            continue;
        }
        if (*created >= today) {
            ++snapshot.totalToday;
        }
        if (!newest || *created > *newest) {
            newest = created;
            snapshot.mostRecentTitle = frontmatter.title;
            snapshot.mostRecentId = frontmatter.id;
        }
    }
    return snapshot;
}

} // namespace quillet
