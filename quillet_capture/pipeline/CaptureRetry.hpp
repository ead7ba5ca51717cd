#pragma once

#include "quillet_capture/runtime/Clock.hpp"
#include "quillet_capture/vault/InboxWriter.hpp"

#include <asio/awaitable.hpp>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <functional>
#include <set>
#include <string>
#include <vector>

namespace quillet {

class CapturePipeline;

/// Finds the captures in the vault whose upload never happened or ended badly and sends them
/// again, strictly one at a time with a pause between uploads. A watermark, fixed the first
/// time it is needed, keeps it from reaching back to captures older than the feature.
class CaptureRetry {
public:
    using TimePoint = std::chrono::system_clock::time_point;
    using Frontmatter = InboxWriter::Frontmatter;

    /// Progress of a run, delivered on the main event loop.
    struct Progress {
        enum class Kind { scanning, uploading, finished, failed };
        Kind kind;
        int index = 0;       // 1-based position of the current id (uploading, failed)
        int total = 0;       // ids of the run (from uploading on)
        std::string id = {}; // the current id (uploading, failed)
        int succeeded = 0;   // uploads accepted so far
        int failedCount = 0; // uploads that failed so far
    };

    static constexpr double gapBetweenUploads = 2.0;
    static constexpr const char* watermarkKey = "quillet.captureRetry.watermark";
    static const std::set<std::string>& retryableStates();

    /// The stored watermark; the first call stores now and logs it. Any thread.
    static TimePoint retryWatermark();

    /// True when the capture's job status ("skipped" when missing) allows a retry, or it is
    /// "queued" without a cache key.
    static bool isRetryable(const Frontmatter& frontmatter);

    /// The ids of the captures in `inbox` that match `where`, were made at or after
    /// `watermark` (recorder captures whatever their age) and still have their audio copy,
    /// in listing order. An inbox that cannot be listed gives none.
    static std::vector<std::string> ids(const std::filesystem::path& inbox,
                                        const std::function<bool(const Frontmatter&)>& where, TimePoint watermark);

    /// Whether the note `note` of `inbox`, whose frontmatter is `frontmatter`, is one of
    /// `ids(inbox, where, watermark)`.
    static bool selects(const std::filesystem::path& inbox, const std::filesystem::path& note,
                        const Frontmatter& frontmatter, const std::function<bool(const Frontmatter&)>& where,
                        TimePoint watermark);

    /// The same over the inbox of the settings, with the stored watermark.
    static std::vector<std::string> ids(const std::function<bool(const Frontmatter&)>& where);
    static std::vector<std::string> pendingIds();
    static int pendingCount();
    /// The ids whose job status is one of `states`.
    static std::vector<std::string> ids(const std::set<std::string>& states);

    /// A retry over `pipeline`, waiting on `clock`, reading the inbox `inbox` names.
    CaptureRetry(CapturePipeline& pipeline, std::function<std::filesystem::path()> inbox,
                 runtime::Clock& clock = runtime::systemClock());

    /// Retries every pending id. Returns at once when a run is already under way.
    /// `onProgress` is called on the main event loop.
    asio::awaitable<void> run(std::function<void(const Progress&)> onProgress);

    bool isRunning() const { return isRunning_.load(); }

private:
    CapturePipeline& pipeline_;
    std::function<std::filesystem::path()> inbox_;
    runtime::Clock& clock_;
    std::atomic<bool> isRunning_{false};
};

} // namespace quillet
