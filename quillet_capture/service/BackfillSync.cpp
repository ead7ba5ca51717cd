#include "quillet_capture/service/BackfillSync.hpp"

#include "quillet_capture/capture/FilenameNormaliser.hpp"
#include "quillet_capture/config/Log.hpp"
#include "quillet_capture/runtime/MainLoop.hpp"
#include "quillet_capture/runtime/SerialQueue.hpp"
#include "quillet_capture/runtime/Tasks.hpp"
#include "quillet_capture/util/AtomicFile.hpp"
#include "quillet_capture/vault/NoteLedger.hpp"

#include <asio/co_spawn.hpp>
#include <asio/use_awaitable.hpp>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <system_error>
#include <vector>

namespace quillet {

namespace fs = std::filesystem;

namespace {

// How many fetched items may wait for their notes to be written.
constexpr int kFetchedAhead = 32;

// A time of the listing, when it is one that can date a note: after 1970, and no later than
// both the year 9999 (a note's date has four digits for the year) and what a time point holds.
std::optional<BackfillSync::TimePoint> usableTime(const std::optional<double>& seconds)
{
    static const double latest = std::min(
        253402300799.0,
        static_cast<double>(
            std::chrono::duration_cast<std::chrono::seconds>(BackfillSync::TimePoint::duration::max()).count() - 1));
    if (!seconds || !(*seconds > 0) || *seconds > latest) {
        return std::nullopt;
    }
    auto whole = std::chrono::duration<double>(*seconds);
    return BackfillSync::TimePoint(std::chrono::duration_cast<BackfillSync::TimePoint::duration>(whole));
}

std::string describe(const std::exception& error)
{
    return error.what();
}

// Hands the run's reports to the caller's callback on the main loop, in order. Reports that
// arrive while earlier ones still wait for the main loop join them, so that a run of thousands
// of items does not wake the main thread thousands of times when it is busy.
class Reports : public std::enable_shared_from_this<Reports> {
public:
    explicit Reports(std::function<void(const BackfillSync::Progress&)> callback) : callback_(std::move(callback)) {}

    // Any thread.
    void add(BackfillSync::Progress progress)
    {
        if (!callback_) {
            return;
        }
        std::lock_guard guard(lock_);
        waiting_.push_back(std::move(progress));
        if (!posted_) {
            posted_ = true;
            runtime::onMain([self = shared_from_this()] { self->deliver(); });
        }
    }

private:
    void deliver()
    {
        std::vector<BackfillSync::Progress> ready;
        {
            std::lock_guard guard(lock_);
            ready.swap(waiting_);
            posted_ = false;
        }
        for (const auto& progress : ready) {
            callback_(progress);
        }
    }

    std::function<void(const BackfillSync::Progress&)> callback_;
    std::mutex lock_;
    std::vector<BackfillSync::Progress> waiting_;
    bool posted_ = false;
};

// The items of a run to fetch, and what became of them.
struct Batch {
    std::vector<const SourceMetadata*> items;
    int total = 0;
    bool cancelled = false;
    // Counted on the note queue; read by the run once the queue has drained.
    int written = 0;
    int failed = 0;
    int handled = 0;
};

// Fetches the batch's items one after another. Each note is written on the queue `notes`
// while the next item is fetched, so that the service and the disk do not wait for each
// other; the queue takes the items in order, one at a time, and counts and reports each once
// its note is written or has failed. At most kFetchedAhead items wait for it, so that a slow
// disk never holds many transcripts in memory.
asio::awaitable<void> fetchAll(BackfillSync* sync, VeldaneClient* client, Batch* batch, runtime::SerialQueue* notes,
                               std::function<void(BackfillSync::Progress)> report)
{
    int fetched = 0;
    for (const SourceMetadata* item : batch->items) {
        if (sync->isCancelled.load()) {
            batch->cancelled = true;
            break;
        }
        std::optional<VeldaneClient::SourceDetail> detail;
        std::optional<std::string> failure;
        try {
            std::string key = item->cache_key;
            detail = co_await client->source(std::move(key));
        } catch (const std::exception& error) {
            failure = describe(error);
        }
        notes->async([sync, batch, report, item, detail = std::move(detail), failure = std::move(failure)]() mutable {
            if (detail) {
                try {
                    sync->writeBackfilledItem(*detail, *item);
                } catch (const std::exception& error) {
                    failure = describe(error);
                }
            }
            if (failure) {
                rlog("[quillet] BackfillSync: failed cache_key=%@ err=%@", item->cache_key, *failure);
                ++batch->failed;
            } else {
                ++batch->written;
            }
            ++batch->handled;
            report(BackfillSync::Progress::syncing(batch->handled, batch->total));
        });
        if (++fetched % kFetchedAhead == 0) {
            auto catchUp = [notes] { notes->drain(); };
            co_await runtime::blocking(std::move(catchUp));
        }
    }
}

} // namespace

BackfillSync::Progress BackfillSync::Progress::listing()
{
    return {};
}

BackfillSync::Progress BackfillSync::Progress::syncing(int done, int total)
{
    Progress progress;
    progress.kind = Kind::syncing;
    progress.done = done;
    progress.total = total;
    return progress;
}

BackfillSync::Progress BackfillSync::Progress::finished(int written, int alreadyThere, int failed)
{
    Progress progress;
    progress.kind = Kind::finished;
    progress.written = written;
    progress.alreadyThere = alreadyThere;
    progress.failed = failed;
    return progress;
}

BackfillSync::Progress BackfillSync::Progress::failure(std::string text)
{
    Progress progress;
    progress.kind = Kind::failed;
    progress.text = std::move(text);
    return progress;
}

BackfillSync::BackfillSync(VeldaneClient client, InboxWriter inboxWriter, runtime::Clock& clock)
    : client_(std::move(client))
    , inboxWriter_(std::move(inboxWriter))
    , clock_(clock)
{
}

// GCC 12 takes the coroutine frame's operator delete, once inlined here, for a mismatch with
// the frame's operator new; both are asio's recycling allocator and do match.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
#endif
asio::awaitable<void> BackfillSync::run(std::function<void(const Progress&)> progress)
{
    auto reports = std::make_shared<Reports>(std::move(progress));
    auto report = [reports](Progress value) { reports->add(std::move(value)); };

    report(Progress::listing());
    std::vector<SourceMetadata> listed;
    std::optional<std::string> listingFailure;
    try {
        auto includeDeleted = VeldaneClient::IncludeDeleted::no;
        listed = co_await client_.listAllSources(includeDeleted);
    } catch (const std::exception& error) {
        listingFailure = describe(error);
    }
    if (listingFailure) {
        rlog("[quillet] BackfillSync: listAllSources failed: %@", *listingFailure);
        report(Progress::failure(*listingFailure));
        co_return;
    }

    auto read = [this] { return readExistingExternalIDs(); };
    std::set<std::string> present = co_await runtime::blocking(std::move(read));

    std::vector<const SourceMetadata*> toFetch;
    std::set<std::string> chosen;
    int alreadyThere = 0;
    for (const auto& item : listed) {
        if (item.is_deleted.value_or(false)) {
            continue;
        }
        if (present.contains(item.cache_key)) {
            ++alreadyThere;
            continue;
        }
        // A key listed twice is fetched once; its second listing is there by then.
        if (!chosen.insert(item.cache_key).second) {
            ++alreadyThere;
            continue;
        }
        toFetch.push_back(&item);
    }
    const int total = static_cast<int>(toFetch.size());
    rlog("[quillet] BackfillSync: total_remote=%d already_local=%d to_fetch=%d", listed.size(), alreadyThere, total);
    report(Progress::syncing(0, total));

    Batch batch;
    batch.items = std::move(toFetch);
    batch.total = total;
    runtime::SerialQueue notes("quillet.backfill.notes");
    // The loop runs on the blocking pool: each request is a blocking call there, and the loop
    // carries on on the thread that made it instead of waking a thread of its own per item.
    auto loop = fetchAll(this, &client_, &batch, &notes, report);
    auto pool = runtime::blockingPool().get_executor();
    auto looping = asio::co_spawn(pool, std::move(loop), asio::use_awaitable);
    co_await std::move(looping);

    auto finish = [this, &notes, &batch]() -> std::optional<std::string> {
        notes.drain();
        if (batch.written == 0) {
            return std::nullopt;
        }
        try {
            flushFileSystem(inboxWriter_.inboxDirectory());
        } catch (const std::exception& error) {
            return describe(error);
        }
        return std::nullopt;
    };
    std::optional<std::string> flushFailure = co_await runtime::blocking(std::move(finish));
    if (flushFailure) {
        rlog("[quillet] BackfillSync: could not flush the notes to disk: %@", *flushFailure);
    }
    if (batch.cancelled) {
        rlog("[quillet] BackfillSync: cancelled at %d/%d", batch.handled, total);
    }
    report(Progress::finished(batch.written, alreadyThere, batch.failed));
}
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif

std::set<std::string> BackfillSync::readExistingExternalIDs() const
{
    std::set<std::string> keys;
    std::error_code error;
    fs::directory_iterator it(inboxWriter_.inboxDirectory(), error);
    for (; !error && it != fs::directory_iterator(); it.increment(error)) {
        const fs::path& note = it->path();
        if (note.extension() != ".md") {
            continue;
        }
        try {
            auto frontmatter = InboxWriter::readFrontmatter(note);
            if (frontmatter.externalId && !frontmatter.externalId->empty()) {
                keys.insert(std::move(*frontmatter.externalId));
            }
        } catch (const std::exception&) {
            // A note without frontmatter, or one that went away meanwhile, holds no key.
        }
    }
    if (error) {
        return keys;
    }
    for (const auto& [id, record] : NoteLedger(inboxWriter_.vaultRoot()).read()) {
        if (!record.restorePending) {
            keys.insert(record.externalIds.begin(), record.externalIds.end());
        }
    }
    return keys;
}

void BackfillSync::writeBackfilledItem(const VeldaneClient::SourceDetail& detail, const SourceMetadata& metadata) const
{
    auto created = usableTime(metadata.created_at);
    if (!created) {
        created = usableTime(metadata.timestamp);
    }
    if (!created) {
        created = clock_.now();
    }
    std::string id = uniqueID(recordingCanonicalID(*created));

    auto frontmatter = InboxWriter::Frontmatter::forCapture(id, *created);
    frontmatter.sourceOrigin = "veldane_backfill";
    frontmatter.externalId = detail.cache_key;
    frontmatter.vdJobStatus = "done";
    if (detail.result.llm_title) {
        frontmatter.title = detail.result.llm_title;
    }
    if (detail.result.duration) {
        double seconds = std::trunc(*detail.result.duration);
        // Durations beyond what the field holds are left out rather than wrapped.
        if (std::isfinite(seconds) && std::abs(seconds) < 9.0e18) {
            frontmatter.audioDurationSec = static_cast<std::int64_t>(seconds);
        }
    }
    for (const char* tag : {"voice-memo", "quillet-backfill"}) {
        if (std::find(frontmatter.tags.begin(), frontmatter.tags.end(), tag) == frontmatter.tags.end()) {
            frontmatter.tags.emplace_back(tag);
        }
    }

    const std::string* body = nullptr;
    static const std::string kNoContent = "(no transcript content available)";
    if (detail.result.text) {
        body = &*detail.result.text;
    } else if (detail.result.llm_summary) {
        body = &*detail.result.llm_summary;
    } else {
        body = &kNoContent;
    }

    std::string text = InboxWriter::renderMarkdown(frontmatter, *body);
    auto note = inboxWriter_.inboxDirectory() / (id + ".md");
    // A flush per note would cost more than fetching it; the run flushes once at its end, and
    // a note lost to a power cut before that is fetched again by the next run.
    try {
        writeFileAtomically(note, text, 0644, Durability::deferred);
    } catch (const std::system_error& error) {
        // The folders are made only when they are missing: asking for them before every note
        // would cost a third of the note's own write.
        if (error.code() != std::errc::no_such_file_or_directory) {
            throw;
        }
        inboxWriter_.ensureDirectories();
        writeFileAtomically(note, text, 0644, Durability::deferred);
    }
    NoteLedger(inboxWriter_.vaultRoot()).noteMade(id, {}, *created, clock_.now(), detail.cache_key, false);
}

std::string BackfillSync::uniqueID(const std::string& base) const
{
    auto inbox = inboxWriter_.inboxDirectory();
    auto taken = [&inbox](const std::string& candidate) {
        std::error_code error;
        return fs::exists(inbox / (candidate + ".md"), error);
    };
    if (!taken(base)) {
        return base;
    }
    for (long n = 2;; ++n) {
        std::string candidate = base + "_" + std::to_string(n);
        if (!taken(candidate)) {
            return candidate;
        }
    }
}

} // namespace quillet
