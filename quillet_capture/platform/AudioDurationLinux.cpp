#include "quillet_capture/platform/AudioDuration.hpp"

#include "quillet_capture/platform/LazyLibrary.hpp"

#include <filesystem>
#include <string>
#include <system_error>

namespace quillet::AudioDuration {

namespace {

// `relative` to the folder of the program file itself (/proc/self/exe names it with every link
// resolved, so a copy started through a link in PATH finds its own tree). When that folder is
// unknown, the build's path: nothing is ever looked for relative to the working folder.
std::string fromProgramFolder(const std::filesystem::path& relative)
{
    static const std::filesystem::path folder = [] {
        std::error_code error;
        return std::filesystem::read_symlink("/proc/self/exe", error).parent_path();
    }();
    return folder.empty() ? std::string(QUILLET_TAGLIB_MODULE) : (folder / relative).lexically_normal().string();
}

// The TagLib module (platform/taglib/): beside the program (the build folder), in
// lib/quillet-capture/ beside the program's bin/ (an installed copy), where the build put it
// (the test and benchmark programs, which live in folders of their own), or on the library
// path. An installed copy so never takes the module of a build folder that was rebuilt or
// removed since it was installed.
LazyLibrary& tagLibModule()
{
    static const std::string besideProgram = fromProgramFolder("libquillet-taglib.so");
    static const std::string installed = fromProgramFolder("../lib/quillet-capture/libquillet-taglib.so");
    static LazyLibrary module{besideProgram.c_str(), installed.c_str(), QUILLET_TAGLIB_MODULE,
                              "libquillet-taglib.so"};
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
