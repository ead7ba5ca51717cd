#include "quillet_capture/platform/AudioDuration.hpp"

#include "quillet_capture/platform/LazyLibrary.hpp"

namespace quillet::AudioDuration {

namespace {

// The TagLib module (platform/taglib/), beside the program or where the build put it.
LazyLibrary& tagLibModule()
{
    static LazyLibrary module{QUILLET_TAGLIB_MODULE, "libquillet-taglib.so"};
    return module;
}

} // namespace

std::optional<double> read(const std::filesystem::path& file)
{
    static const auto durationMilliseconds =
        tagLibModule().function<long (*)(const char*)>("quillet_audio_duration_ms");
    // TagLib reports 0 both for a file it recognises by name but cannot read (a text file
    // called .wav) and for a length it could not work out. Neither is a measured duration, and
    // reading it as one would throw a real recording away as too short.
    long milliseconds = durationMilliseconds(file.c_str());
    if (milliseconds <= 0) {
        return std::nullopt;
    }
    return milliseconds / 1000.0;
}

} // namespace quillet::AudioDuration
