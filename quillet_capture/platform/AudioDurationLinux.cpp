#include "quillet_capture/platform/AudioDuration.hpp"

#include "quillet_capture/platform/LazyLibrary.hpp"

#include <string>
#include <system_error>

namespace quillet::AudioDuration {

namespace {

// The TagLib module (platform/taglib/): where the build put it, beside the program, or on the
// library path.
LazyLibrary& tagLibModule()
{
    static const std::string besideProgram = [] {
        std::error_code error;
        auto program = std::filesystem::read_symlink("/proc/self/exe", error);
        return (program.parent_path() / "libquillet-taglib.so").string();
    }();
    static LazyLibrary module{QUILLET_TAGLIB_MODULE, besideProgram.c_str(), "libquillet-taglib.so"};
    return module;
}

} // namespace

std::optional<double> read(const std::filesystem::path& file)
{
    static const auto durationMilliseconds =
        tagLibModule().function<long (*)(const char*)>("quillet_audio_duration_ms");
    // A file TagLib recognises by name but cannot read (a text file called .wav), or whose
    // length it could not work out, has no measured duration: reading it as 0 would throw a
    // real recording away as too short. A length of 0 with the audio's format read is one.
    long milliseconds = durationMilliseconds(file.c_str());
    if (milliseconds < 0) {
        return std::nullopt;
    }
    return milliseconds / 1000.0;
}

} // namespace quillet::AudioDuration
