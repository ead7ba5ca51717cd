#include "quillet_capture/pipeline/CaptureRetry.hpp"

#include "quillet_capture/config/Log.hpp"
#include "quillet_capture/config/Settings.hpp"
#include "quillet_capture/pipeline/CapturePipeline.hpp"
#include "quillet_capture/platform/FileTimes.hpp"
#include "quillet_capture/platform/UserDefaults.hpp"
#include "quillet_capture/runtime/MainLoop.hpp"
#include "quillet_capture/util/Iso8601.hpp"

#include <asio/error.hpp>
#include <asio/this_coro.hpp>

#include <mutex>
#include <system_error>

namespace quillet {

namespace fs = std::filesystem;

const std::set<std::string>& CaptureRetry::retryableStates()
{
    static const std::set<std::string> states = {"skipped", "upload_failed", "poll_timeout", "failed", "paywalled"};
    return states;
}

CaptureRetry::TimePoint CaptureRetry::retryWatermark()
{
    // Two first calls at once must not both store and log.
    static std::mutex lock;
    std::lock_guard guard(lock);
    if (auto stored = UserDefaults::date(watermarkKey)) {
        return *stored;
    }
    auto now = std::chrono::system_clock::now();
    UserDefaults::setDate(watermarkKey, now);
    // The store may keep less precision than the clock (whole seconds on Linux): the first run
    // must select with the same watermark as every later one.
    auto stored = UserDefaults::date(watermarkKey).value_or(now);
    rlog("[quillet] capture retry: watermark set to %@ \u2014 captures older than this are never retried",
         Iso8601::format(stored));
    return stored;
}

bool CaptureRetry::isRetryable(const Frontmatter& frontmatter)
{
    std::string status = frontmatter.vdJobStatus.value_or("skipped");
    if (retryableStates().contains(status)) {
        return true;
    }
    return status == "queued" && frontmatter.externalId.value_or("").empty();
}

std::vector<std::string> CaptureRetry::ids(const fs::path& inbox, const std::function<bool(const Frontmatter&)>& where,
                                           TimePoint watermark)
{
    std::vector<std::string> result;
    std::error_code error;
    fs::directory_iterator it(inbox, error);
    for (; !error && it != fs::directory_iterator(); it.increment(error)) {
        const auto& note = it->path();
        if (note.extension() != ".md") {
            continue;
        }
        Frontmatter frontmatter;
        try {
            frontmatter = InboxWriter::readFrontmatter(note);
        } catch (const std::exception&) {
            continue;
        }
        if (selects(inbox, note, frontmatter, where, watermark)) {
            result.push_back(note.stem().string());
        }
    }
    return result;
}

bool CaptureRetry::selects(const fs::path& inbox, const fs::path& note, const Frontmatter& frontmatter,
                           const std::function<bool(const Frontmatter&)>& where, TimePoint watermark)
{
    if (!where(frontmatter)) {
        return false;
    }
    auto created = FileTimes::created(note);
    if (created && *created < watermark && !CapturePipeline::isRecordingOrigin(frontmatter.sourceOrigin)) {
        return false;
    }
    std::error_code missing;
    return fs::is_regular_file(inbox / ".audio" / (note.stem().string() + ".m4a"), missing);
}

std::vector<std::string> CaptureRetry::ids(const std::function<bool(const Frontmatter&)>& where)
{
    return ids(Settings::shared().inboxURL(), where, retryWatermark());
}

std::vector<std::string> CaptureRetry::pendingIds()
{
    return ids(isRetryable);
}

int CaptureRetry::pendingCount()
{
    return static_cast<int>(pendingIds().size());
}

std::vector<std::string> CaptureRetry::ids(const std::set<std::string>& states)
{
    return ids([&states](const Frontmatter& frontmatter) {
        return frontmatter.vdJobStatus && states.contains(*frontmatter.vdJobStatus);
    });
}

CaptureRetry::CaptureRetry(CapturePipeline& pipeline, std::function<fs::path()> inbox, runtime::Clock& clock)
    : pipeline_(pipeline)
    , inbox_(std::move(inbox))
    , clock_(clock)
{
}

asio::awaitable<void> CaptureRetry::run(std::function<void(const Progress&)> onProgress)
{
    if (isRunning_.exchange(true)) {
        co_return;
    }
    // Cleared on every way out, so that a run ended by cancellation or an error does not
    // refuse every run after it.
    struct Running {
        std::atomic<bool>& flag;
        ~Running() { flag = false; }
    } running{isRunning_};
    auto report = [&onProgress](Progress progress) {
        if (onProgress) {
            runtime::onMain([onProgress, progress] { onProgress(progress); });
        }
    };
    report({.kind = Progress::Kind::scanning});

    auto inbox = inbox_();
    auto pending = ids(inbox, isRetryable, retryWatermark());
    int total = static_cast<int>(pending.size());
    int succeeded = 0;
    int failed = 0;
    for (int index = 0; index < total; ++index) {
        auto cancelled = (co_await asio::this_coro::cancellation_state).cancelled();
        if (cancelled != asio::cancellation_type::none) {
            break;
        }
        const std::string& id = pending[static_cast<size_t>(index)];
        // Another path (the watcher's resume, a second command) may have taken it up meanwhile.
        try {
            if (!isRetryable(InboxWriter::readFrontmatter(inbox / (id + ".md")))) {
                continue;
            }
        } catch (const std::exception&) {
            continue;
        }
        report({Progress::Kind::uploading, index + 1, total, id, succeeded, failed});
        std::optional<std::string> noSource;
        std::optional<std::vector<std::string>> noTags;
        std::optional<std::map<std::string, std::string>> noMetadata;
        std::string current = id;
        bool accepted = co_await pipeline_.uploadExisting(std::move(current), std::move(noSource), std::move(noTags),
                                                          std::move(noMetadata));
        if (accepted) {
            ++succeeded;
        } else {
            ++failed;
            report({Progress::Kind::failed, index + 1, total, id, succeeded, failed});
        }
        std::chrono::duration<double> gap(gapBetweenUploads);
        try {
            co_await clock_.wait(gap);
        } catch (const std::system_error& error) {
            // Cancelled while pausing: the run ends as when the cancellation is seen above.
            if (error.code() != asio::error::operation_aborted) {
                throw;
            }
            break;
        }
    }
    report({Progress::Kind::finished, total, total, "", succeeded, failed});
}

} // namespace quillet
