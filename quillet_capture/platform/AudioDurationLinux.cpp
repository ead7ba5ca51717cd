#include "quillet_capture/platform/AudioDuration.hpp"

#include <taglib/audioproperties.h>
#include <taglib/fileref.h>

namespace quillet::AudioDuration {

std::optional<double> read(const std::filesystem::path& file)
{
    TagLib::FileRef ref(file.c_str());
    if (ref.isNull() || ref.audioProperties() == nullptr) {
        return std::nullopt;
    }
    // TagLib reports 0 both for a file it recognises by name but cannot read (a text file
    // called .wav) and for a length it could not work out. Neither is a measured duration, and
    // reading it as one would throw a real recording away as too short.
    int milliseconds = ref.audioProperties()->lengthInMilliseconds();
    if (milliseconds <= 0) {
        return std::nullopt;
    }
    return milliseconds / 1000.0;
}

} // namespace quillet::AudioDuration
