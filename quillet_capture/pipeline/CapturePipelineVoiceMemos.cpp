#include "quillet_capture/pipeline/CapturePipeline.hpp"

#include "quillet_capture/config/Log.hpp"

#include <cmath>

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
    // The claim keeps the capture's own writes away while the note is rewritten.
    if (!claim(id)) {
        return false;
    }
    try {
        if (writer().replaceTitle(id, from, to)) {
            rlog("[quillet] capture pipeline: %@ renamed in Voice Memos; its note's title is now %@", id, to);
        }
    } catch (const std::exception& error) {
        // A note that is gone or cannot be read keeps what it has; the person's file wins.
        rlog("[quillet] capture pipeline: cannot give %@ its new title from Voice Memos: %@", id, error.what());
    }
    release(id);
    return true;
}

} // namespace quillet
