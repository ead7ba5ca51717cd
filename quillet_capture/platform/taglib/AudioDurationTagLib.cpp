// The TagLib module: built as a library of its own and opened by the program the first time a
// duration is needed (platform/AudioDurationLinux.cpp), so that TagLib is not loaded by
// every command at start.
#include <taglib/audioproperties.h>
#include <taglib/fileref.h>
#include <taglib/wavfile.h>

namespace {

// TagLib leaves a WAV file's properties empty (no sample rate, length 0) when its data chunk is
// empty, just as when it cannot read them. True when the file has a PCM format chunk with a
// sample rate and a data chunk that holds nothing: audio whose length was read, and is 0.
bool isEmptyWave(TagLib::File& file)
{
    file.seek(12);
    bool formatRead = false;
    for (int chunk = 0; chunk < 64; ++chunk) {
        TagLib::ByteVector header = file.readBlock(8);
        if (header.size() < 8) {
            return false;
        }
        TagLib::ByteVector name = header.mid(0, 4);
        unsigned int size = header.toUInt(4, false);
        if (name == "fmt ") {
            TagLib::ByteVector format = file.readBlock(size < 16 ? size : 16);
            formatRead = format.size() >= 8 && format.toUInt(4, false) > 0 && format.toUShort(2, false) > 0;
            file.seek(static_cast<long>(size - format.size() + (size & 1)), TagLib::File::Current);
        } else if (name == "data") {
            return formatRead && size == 0;
        } else {
            file.seek(static_cast<long>(size + (size & 1)), TagLib::File::Current);
        }
    }
    return false;
}

} // namespace

/// The length in milliseconds of the audio in `path`, 0 included; -1 when TagLib reads no
/// audio from it, or when its length could not be worked out (TagLib reports 0 then too), or
/// when something throws.
extern "C" __attribute__((visibility("default"))) long quillet_audio_duration_ms(const char* path)
{
    try {
        TagLib::FileRef ref(path);
        if (ref.isNull() || !ref.file()->isValid() || ref.audioProperties() == nullptr) {
            return -1;
        }
        const TagLib::AudioProperties& audio = *ref.audioProperties();
        long milliseconds = audio.lengthInMilliseconds();
        if (milliseconds > 0 || (audio.sampleRate() > 0 && audio.channels() > 0)) {
            return milliseconds;
        }
        auto* wave = dynamic_cast<TagLib::RIFF::WAV::File*>(ref.file());
        return wave != nullptr && isEmptyWave(*wave) ? 0 : -1;
    } catch (...) {
        return -1;
    }
}
