#include "quillet_capture/pipeline/CapturePipeline.hpp"

#include "quillet_capture/config/Log.hpp"
#include "quillet_capture/pipeline/CaptureIntake.hpp"

#include <cmath>
#include <filesystem>

namespace quillet {

void CapturePipeline::describe(InboxWriter::Frontmatter& frontmatter, const LibraryRecording& recording)
{
    frontmatter.voiceMemosId = recording.uniqueId;
    if (!recording.folder.empty()) {
        frontmatter.voiceMemosFolder = recording.folder;
    }
    if (!recording.title.empty()) {
        frontmatter.title = recording.title;
    }
    // The moment it was recorded, not the one its file reached this computer.
    if (recording.date) {
        frontmatter.created = *recording.date;
    }
    if (recording.duration) {
        frontmatter.audioDurationSec = static_cast<std::int64_t>(std::llround(*recording.duration));
    }
}

bool CapturePipeline::retitle(const std::string& id, const std::string& from, const std::string& to)
{
    auto inbox = writer(id);
    const auto note = inbox.noteURL(id);
    std::error_code error;
    if (!std::filesystem::exists(note, error)) {
        // Not written yet (its capture waits in the journal for the next start): asked again.
        // Gone for good (the person deleted it): nothing to rename.
        return !(environment_.intake != nullptr && environment_.intake->holds(id));
    }
    // Only a capture at rest: one under way holds the note, and its claim is the promise
    // that it carries the capture to its end, which a rename must not take from it.
    try {
        auto status = InboxWriter::readFrontmatter(note).vdJobStatus.value_or("");
        if (status != "done" && status != "skipped") {
            return false;
        }
    } catch (const std::exception&) {
        return false;  // looked at again; the person's file is not touched
    }
    if (!claim(id)) {
        return false;
    }
    try {
        if (inbox.replaceTitle(id, from, to)) {
            rlog("[quillet] capture pipeline: %@ renamed in Voice Memos; its note's title is now %@", id, to);
        }
    } catch (const std::exception& error) {
        rlog("[quillet] capture pipeline: cannot give %@ its new title from Voice Memos: %@", id, error.what());
    }
    release(id);
    return true;
}

} // namespace quillet
