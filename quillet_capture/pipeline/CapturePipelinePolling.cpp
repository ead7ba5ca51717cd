#include "quillet_capture/pipeline/CapturePipeline.hpp"

#include "quillet_capture/config/Log.hpp"
#include "quillet_capture/pipeline/AgentNotifications.hpp"
#include "quillet_capture/pipeline/CapturePipelineDetail.hpp"
#include "quillet_capture/pipeline/CaptureRecovery.hpp"
#include "quillet_capture/runtime/Tasks.hpp"
#include "quillet_capture/vault/NoteLedger.hpp"

#include <chrono>
#include <cmath>
#include <cstdint>
#include <exception>
#include <set>
#include <sstream>
#include <string>

namespace quillet {

namespace {

const std::set<std::string> kFinishedDocumentStates = {"success", "completed", "done"};

// The wait before the next status question, growing with the time the capture has waited.
double backoff(double elapsedSeconds)
{
    if (elapsedSeconds < 60) {
        return 5;
    }
    if (elapsedSeconds < 600) {
        return 30;
    }
    if (elapsedSeconds < 3600) {
        return 120;
    }
    return 300;
}

bool isNotFound(const VeldaneClient::ClientError& error)
{
    return error.kind() == VeldaneClient::ClientError::Kind::requestFailed && error.status() == 404;
}

// The service declines to hand a transcript over when the account's plan does not cover it
// (402) or the key's owner is not this device (403); asking again will not help, so the
// capture ends as "failed" for the retry batch. Everything else (network, 5xx, a garbled
// answer, a token refused with 401, which a new pair mends) may pass, and the note keeps its
// status for the next attempt.
bool isRetrievalRefused(const VeldaneClient::ClientError& error)
{
    using Kind = VeldaneClient::ClientError::Kind;
    if (error.kind() == Kind::planRequired || error.kind() == Kind::missingCredentials) {
        return true;
    }
    return error.kind() == Kind::requestFailed && error.status() == 403;
}

int countWords(const std::string& text)
{
    std::istringstream words(text);
    int count = 0;
    for (std::string word; words >> word;) {
        ++count;
    }
    return count;
}

double secondsBetween(runtime::Clock::TimePoint from, runtime::Clock::TimePoint to)
{
    return std::chrono::duration<double>(to - from).count();
}

} // namespace

asio::awaitable<std::optional<std::string>> CapturePipeline::resolvedCacheKey(const VeldaneClient::UploadResult& result,
                                                                              VeldaneClient& client,
                                                                              const std::string& id)
{
    if (result.cache_key && !result.cache_key->empty()) {
        co_return *result.cache_key;
    }
    if (result.task_id && !result.task_id->empty()) {
        std::string task = *result.task_id;
        rlog("[quillet] capture pipeline: %@ queued as task %@; resolving its cache_key", id, task);
        auto key = co_await client.cacheKey(task, 600);
        if (!key) {
            rlog("[quillet] capture pipeline: no cache_key for task %@ (%@) within 10 minutes", task, id);
        }
        co_return key;
    }
    rlog("[quillet] capture pipeline: upload for %@ returned neither cache_key nor task_id (status %@)", id,
         result.status);
    co_return std::nullopt;
}

asio::awaitable<void> CapturePipeline::pollUntilDone(VeldaneClient& client, std::string id, std::string cacheKey)
{
    auto& clock = *environment_.clock;
    auto start = clock.now();
    int notFound = 0;
    bool sourceListConsulted = false;
    bool detailConsulted = false;

    for (;;) {
        bool finished = false;
        bool refused = false;
        try {
            auto answer = co_await client.status(cacheKey);
            auto stage = answer.transcription();
            std::string word = stage && stage->status ? *stage->status : "unknown";
            setStatus(id, word);
            if (word == "paywalled" && waitsForPair_) {
                AgentNotifications::planRequired("");
            }
            // A good answer means the key is alive: not-found answers count afresh from here.
            notFound = 0;
            if (word == "completed") {
                finished = true;
            } else if (word == "failed") {
                rlog("[quillet] capture pipeline: VD reported failed for %@", id);
                setStatus(id, "failed");
                send(CaptureEvent::Kind::failed, id, "failed");
                noteFailure(id, "failed");
                co_return;
            } else if (cacheKey.starts_with("DOC_") && !detailConsulted) {
                detailConsulted = true;
                try {
                    auto detail = co_await client.source(cacheKey);
                    auto status = detail.result.status.value_or("");
                    if (kFinishedDocumentStates.contains(status)) {
                        rlog("[quillet] capture pipeline: %@ is done in VD (status %@, %d words)", id, status,
                             detail.result.word_count.value_or(0));
                        finished = true;
                    }
                } catch (const std::exception& error) {
                    rlog("[quillet] capture pipeline: status poll error for %@: %@", id, error.what());
                }
            }
        } catch (const VeldaneClient::ClientError& error) {
            if (isNotFound(error)) {
                ++notFound;
            } else if (error.isTokenRefusal() && waitsForPair_) {
                refused = true;
            } else {
                rlog("[quillet] capture pipeline: status poll error for %@: %@", id, error.what());
            }
        } catch (const std::exception& error) {
            rlog("[quillet] capture pipeline: status poll error for %@: %@", id, error.what());
        }

        // Polling goes on once the person has paired again; the time waited for that does not
        // count towards the polling time-out.
        if (refused) {
            auto waitFrom = clock.now();
            co_await waitForNewToken(id);
            start += clock.now() - waitFrom;
            continue;
        }

        // The service has not known the key for a while: look for where the capture went.
        if (notFound >= maxNotFoundPolls) {
            std::optional<std::string> moved;
            if (!sourceListConsulted) {
                sourceListConsulted = true;
                moved = co_await currentCacheKey(client, id, cacheKey);
            }
            if (moved && *moved != cacheKey) {
                rlog("[quillet] capture pipeline: %@ moved in VD: %@ -> %@", id, cacheKey, *moved);
                cacheKey = *moved;
                notFound = 0;
                recordKey(id, cacheKey);
            } else {
                rlog("[quillet] capture pipeline: VD has no document for %@ (cache_key %@); giving up", id, cacheKey);
                setStatus(id, "failed");
                send(CaptureEvent::Kind::failed, id, "failed");
                noteFailure(id, "failed");
                co_return;
            }
        }

        if (finished) {
            co_await fetchTranscriptAndWrite(client, id, cacheKey);
            co_return;
        }

        double elapsed = secondsBetween(start, clock.now());
        if (elapsed >= pollTimeout) {
            rlog("[quillet] capture pipeline: polling timed out for %@ (>%g min)", id, pollTimeout / 60);
            setStatus(id, "poll_timeout");
            send(CaptureEvent::Kind::failed, id, "poll_timeout");
            noteFailure(id, "poll_timeout");
            co_return;
        }
        co_await clock.wait(std::chrono::duration<double>(backoff(elapsed)));
    }
}

asio::awaitable<void> CapturePipeline::fetchTranscriptAndWrite(VeldaneClient& client, std::string id,
                                                               std::string cacheKey)
{
    VeldaneClient::SourceDetail detail;
    try {
        detail = co_await client.source(cacheKey);
    } catch (const VeldaneClient::ClientError& error) {
        if (isRetrievalRefused(error)) {
            rlog("[quillet] capture pipeline: retrieval refused for %@: %@", id, error.what());
            if (error.kind() == VeldaneClient::ClientError::Kind::planRequired && waitsForPair_) {
                AgentNotifications::planRequired(error.what());
            }
            setStatus(id, "failed");
            send(CaptureEvent::Kind::failed, id, "failed");
        } else {
            rlog("[quillet] capture pipeline: fetch transcript failed for %@: %@", id, error.what());
            noteFailure(id, "fetch_failed");
        }
        co_return;
    } catch (const std::exception& error) {
        rlog("[quillet] capture pipeline: fetch transcript failed for %@: %@", id, error.what());
        noteFailure(id, "fetch_failed");
        co_return;
    }

    const std::string text = detail.result.text.value_or("");
    std::optional<std::int64_t> duration;
    if (detail.result.duration && std::isfinite(*detail.result.duration) && *detail.result.duration >= 0 &&
        *detail.result.duration < 1e12) {
        duration = static_cast<std::int64_t>(std::llround(*detail.result.duration));
    }
    co_await vaultPresent(id);
    auto inbox = writer(id);
    if (NoteLedger(inbox.vaultRoot()).removedByPerson(id)) {
        rlog("[quillet] capture pipeline: the note of %@ was removed from the inbox; its transcript is not written "
             "(bring the note back with: quillet-capture retry --restore %@)",
             id, id);
        if (environment_.recovery != nullptr) {
            environment_.recovery->forget(id);
        }
        co_return;
    }
    // An editor's save leaves the note empty or half-written for a moment: it is read again a
    // few times before it counts as a note the person must fix.
    std::optional<std::string> unparseable;
    for (double pause : unparseableNotePauses()) {
        if (pause > 0) {
            co_await environment_.clock->wait(std::chrono::duration<double>(pause));
        }
        unparseable.reset();
        try {
            inbox.writeTranscript(id, text, cacheKey, detail.result.language, duration, detail.result.llm_title, {});
            break;
        } catch (const InboxWriter::Error& error) {
            if (error.code() == InboxWriter::Error::invalidIdCode) {
                rlog("[quillet] capture pipeline: fetch transcript failed for %@: %@", id, error.what());
                noteFailure(id, "fetch_failed");
                co_return;
            }
            unparseable = error.what();
        } catch (const std::exception& error) {
            // The note keeps its status, so the next attempt polls it again and writes it then.
            rlog("[quillet] capture pipeline: fetch transcript failed for %@: %@", id, error.what());
            noteFailure(id, "fetch_failed");
            co_return;
        }
    }
    if (unparseable) {
        // The person's file stays as it is; the transcript waits beside it, where they see it.
        try {
            auto beside = inbox.writeTranscriptBeside(id, text);
            rlog("[quillet] capture pipeline: the note of %@ does not parse (%@); it is left as it is and its "
                 "transcript is in %@ -- fix the note's frontmatter and the transcript is written into it",
                 id, *unparseable, beside.string());
        } catch (const std::exception& error) {
            rlog("[quillet] capture pipeline: the note of %@ does not parse (%@), and its transcript cannot be "
                 "written beside it: %@",
                 id, *unparseable, error.what());
        }
        send(CaptureEvent::Kind::failed, id, CaptureRecovery::noteUnreadable);
        noteFailure(id, CaptureRecovery::noteUnreadable);
        co_return;
    }
    int words = detail.result.word_count ? static_cast<int>(*detail.result.word_count) : countWords(text);
    rlog("[quillet] capture pipeline: transcript written for %@ (%d words)", id, words);
    if (environment_.recovery != nullptr) {
        environment_.recovery->forget(id);
    }
    forgetVault(id);
    if (environment_.transcriptWritten) {
        environment_.transcriptWritten(id, inbox.noteURL(id));
    }
    send(CaptureEvent::Kind::transcriptReady, id);
}

asio::awaitable<std::optional<std::string>> CapturePipeline::currentCacheKey(VeldaneClient& client, std::string id,
                                                                             std::string deadKey)
{
    // A recent upload is on the first pages; the listing walks newest first.
    constexpr int kPagesToSearch = 10;
    std::string uploadedName = id + ".m4a";
    std::optional<std::string> excluding = deadKey;
    auto found = co_await client.currentKey(std::move(uploadedName), std::move(excluding), kPagesToSearch);
    if (found) {
        rlog("[quillet] capture pipeline: %@ found in the source list", id);
        co_return found;
    }
    rlog("[quillet] capture pipeline: %@ not in the source list; uploading again to learn its key", id);
    auto profile = uploadProfile(id);
    try {
        auto audio = writer(id).audioURL(id);
        std::optional<std::string> language;
        auto result = co_await client.uploadAudio(std::move(audio), std::move(profile.contentSource),
                                                  std::move(language), std::move(profile.tags),
                                                  std::move(profile.sourceMetadata));
        co_return co_await resolvedCacheKey(result, client, id);
    } catch (const std::exception& error) {
        rlog("[quillet] capture pipeline: upload failed for %@: %@", id, error.what());
        co_return std::nullopt;
    }
}

void CapturePipeline::spawnPolling(std::string id, std::string key)
{
    // The caller has claimed `id`; the polling task owns the claim from here on.
    auto task = [](CapturePipeline& pipeline, std::string id, std::string key) -> asio::awaitable<void> {
        TaskCount counting(pipeline);
        Claim claimed(pipeline, id);
        auto service = pipeline.client();
        co_await pipeline.pollUntilDone(service, id, key);
    };
    runtime::spawn(task(*this, id, std::move(key)), "poll " + id);
}

} // namespace quillet
