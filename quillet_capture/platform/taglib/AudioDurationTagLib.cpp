// The TagLib module: built as a library of its own and opened by the program the first time a
// duration is needed (platform/AudioDurationLinux.cpp), so that TagLib is not loaded by
// every command at start.
#include <taglib/audioproperties.h>
#include <taglib/fileref.h>

/// The length in milliseconds of the audio in `path`: 0 when TagLib reads no audio from it or
/// cannot work the length out (it reports 0 then too), -1 when something throws.
extern "C" __attribute__((visibility("default"))) long quillet_audio_duration_ms(const char* path)
{
    try {
        TagLib::FileRef ref(path);
        if (ref.isNull() || ref.audioProperties() == nullptr) {
            return 0;
        }
        return ref.audioProperties()->lengthInMilliseconds();
    } catch (...) {
        return -1;
    }
}
