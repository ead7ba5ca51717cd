#pragma once

#include "quillet_capture/pipeline/CapturePipeline.hpp"

#include <array>
#include <mutex>
#include <string>
#include <utility>

// Kept out of CapturePipeline.hpp: these are the pipeline's private guards, needed by the
// several files that define its member functions and by no other code.
namespace quillet {

// Holds an id in the claim set for as long as it lives.
class CapturePipeline::Claim {
public:
    Claim(CapturePipeline& pipeline, std::string id)
        : pipeline_(&pipeline)
        , id_(std::move(id))
    {
    }
    Claim(Claim&& other) noexcept
        : pipeline_(std::exchange(other.pipeline_, nullptr))
        , id_(std::move(other.id_))
    {
    }
    Claim(const Claim&) = delete;
    /// Leaves the id claimed for whoever takes it over.
    void handOver() { pipeline_ = nullptr; }
    ~Claim()
    {
        if (pipeline_ != nullptr) {
            pipeline_->release(id_);
        }
    }

private:
    CapturePipeline* pipeline_;
    std::string id_;
};

// The pauses (seconds) between the reads of a note that does not parse: an editor's save
// leaves it empty or half-written for milliseconds, and a note still unparseable after these
// few seconds is one the person must fix.
inline const std::array<double, 5>& unparseableNotePauses()
{
    static constexpr std::array<double, 5> kPauses{0, 0.25, 0.5, 1, 2};
    return kPauses;
}

// Counts a capture task for `waitUntilIdle`.
class CapturePipeline::TaskCount {
public:
    explicit TaskCount(CapturePipeline& pipeline)
        : pipeline_(pipeline)
    {
        ++pipeline_.inFlight_;
    }
    TaskCount(const TaskCount&) = delete;
    ~TaskCount()
    {
        if (--pipeline_.inFlight_ == 0) {
            std::lock_guard guard(pipeline_.idleLock_);
            pipeline_.idle_.notify_all();
        }
    }

private:
    CapturePipeline& pipeline_;
};

} // namespace quillet
