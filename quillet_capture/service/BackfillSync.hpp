#pragma once

#include "quillet_capture/runtime/Clock.hpp"
#include "quillet_capture/service/SourceMetadata.hpp"
#include "quillet_capture/service/VeldaneClient.hpp"
#include "quillet_capture/vault/InboxWriter.hpp"

#include <asio/awaitable.hpp>

#include <atomic>
#include <functional>
#include <set>
#include <string>

namespace quillet {

/// Brings into the vault every transcript of the user's Veldane library that the vault does
/// not hold yet: lists the library, compares it with the cache keys of the notes in the inbox,
/// fetches each missing source and writes it as a new note. No audio is downloaded. A later
/// run finds the notes it wrote through their cache key and skips them.
class BackfillSync {
public:
    using TimePoint = std::chrono::system_clock::time_point;

    /// A report of a run, handed to the caller's callback on the main event loop.
    struct Progress {
        enum class Kind { syncing, finished, failed, listing };

        Kind kind = Kind::listing;
        int done = 0;          // syncing: items handled so far
        int total = 0;         // syncing: items to fetch
        int written = 0;       // finished
        int alreadyThere = 0;  // finished: listed items not fetched because the vault has them
        int failed = 0;        // finished
        std::string text;      // failed: why the library could not be listed

        static Progress listing();
        static Progress syncing(int done, int total);
        static Progress finished(int written, int alreadyThere, int failed);
        static Progress failure(std::string text);

        bool operator==(const Progress&) const = default;
    };

    /// A sync reading from `client` and writing through `inboxWriter`. `clock` dates a source
    /// that carries no time of its own and must outlive the sync.
    BackfillSync(VeldaneClient client, InboxWriter inboxWriter, runtime::Clock& clock = runtime::systemClock());

    BackfillSync(const BackfillSync&) = delete;
    BackfillSync& operator=(const BackfillSync&) = delete;

    /// Set from any thread to stop a run before its next item; the item in progress is
    /// finished, and the run still reports `finished` with the counts reached.
    std::atomic<bool> isCancelled{false};

    /// One run: reports `listing`; lists the library (a failure is logged and reported as
    /// `failed`, which ends the run); then fetches the missing sources one after another, in
    /// listing order, and writes their notes in that order on a queue of its own (a note is
    /// written while the next source is fetched), reporting `syncing` after each item; flushes
    /// the notes to the disk once; reports `finished`. A failed item is logged and counted and
    /// never stops the run. Never throws. `progress` is called on the main event loop, in
    /// order. Any executor; the sync must outlive the run.
    asio::awaitable<void> run(std::function<void(const Progress&)> progress);

    /// The non-empty cache keys ("externalId") of the notes in the inbox (every entry whose
    /// extension is exactly ".md" and whose frontmatter reads), and those of the notes the
    /// vault's ledger says were made and that the person has removed or moved from the inbox
    /// since (unless asked back): a transcript the person removed is never brought again. Empty
    /// when the inbox cannot be listed. Blocking; any thread.
    std::set<std::string> readExistingExternalIDs() const;

    /// Writes `detail` (listed as `metadata`) as a new note: dated by the listing's creation
    /// time, else its time stamp, else now; named by the canonical id of that time made unique
    /// in the inbox; marked as a finished backfill with the cache key; the transcript, else the
    /// summary, else "(no transcript content available)" as its body. The note replaces its
    /// file atomically but is not flushed to the disk: `run` flushes all its notes at its end
    /// (util/AtomicFile.hpp, flushFileSystem). Throws std::system_error (or InboxWriter::Error) when it cannot be
    /// written. Blocking; any thread, one call at a time per inbox.
    void writeBackfilledItem(const VeldaneClient::SourceDetail& detail, const SourceMetadata& metadata) const;

    /// `base` when the inbox holds no note `base`.md, otherwise the first of base_2, base_3,
    /// ... that is free. Blocking; any thread.
    std::string uniqueID(const std::string& base) const;

    const InboxWriter& inboxWriter() const { return inboxWriter_; }

private:
    VeldaneClient client_;
    InboxWriter inboxWriter_;
    runtime::Clock& clock_;
};

} // namespace quillet
