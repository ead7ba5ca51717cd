#include "quillet_capture/capture/WaveLength.hpp"

#include "tests/support/Scratch.hpp"
#include "tests/support/WavBytes.hpp"

#include <gtest/gtest.h>

namespace quillet {
namespace {

namespace fs = std::filesystem;

// A recorder that writes a WAV file's sizes only when it stops leaves 0, a placeholder, or a
// size from long before in the header while seconds of samples follow it: the samples in the
// file are the recording's length. A header that is right (data followed by nothing, or by
// another chunk) is believed.
TEST(WaveLength, TheSamplesInTheFileCountWhenTheHeaderCannotBeRight)
{
    test::ScratchDir dir;
    auto length = [&](const std::string& bytes) {
        test::writeFile(dir.path() / "a.wav", bytes);
        return WaveLength::read(dir.path() / "a.wav");
    };
    // 3 s of 8 kHz mono 16-bit samples.
    constexpr int kSamples = 24000;
    EXPECT_EQ(length(test::wavBytes(8000, kSamples)), 3.0);
    EXPECT_EQ(length(test::wavBytes(8000, kSamples, 0)), 3.0) << "a header still saying 0";
    EXPECT_EQ(length(test::wavBytes(8000, kSamples, 0xFFFFFFFF)), 3.0) << "the placeholder";
    EXPECT_EQ(length(test::wavBytes(8000, kSamples, 1600)), 3.0) << "a size written early, no chunk after it";
    EXPECT_EQ(length(test::wavBytes(8000, kSamples, 96000)), 3.0) << "more than the file holds";
    EXPECT_EQ(length(test::wavBytes(8000, kSamples, 0) + "x"), 3.0) << "half a sample at the end is no audio";

    // The header is right: data, then a chunk of metadata.
    std::string list = std::string("LIST") + std::string("\x04\0\0\0", 4) + "INFO";
    EXPECT_EQ(length(test::wavBytes(8000, 8000) + list), 1.0);
    EXPECT_EQ(length(test::wavBytes(8000, 0)), 0.0) << "a header with no samples: 0, not unknown";

    // RF64: the placeholder in the data chunk, the real size in "ds64".
    std::string samples = test::wavBytes(8000, kSamples).substr(44);
    std::string rf64 = std::string("RF64") + std::string("\xff\xff\xff\xff", 4) + "WAVE" + "ds64" +
                       std::string("\x1c\0\0\0", 4) + std::string(8, '\0') +
                       std::string("\x80\xbb\0\0\0\0\0\0", 8) +  // 48000 bytes of data
                       std::string(12, '\0') + test::wavBytes(8000, 0).substr(12, 24) + "data" +
                       std::string("\xff\xff\xff\xff", 4) + samples + list;
    EXPECT_EQ(length(rf64), 3.0);

    EXPECT_EQ(length("this is not audio\n"), std::nullopt);
    EXPECT_EQ(length(test::wavBytes(8000, kSamples).substr(0, 36)), std::nullopt) << "no data chunk";
    std::string noFormat = test::wavBytes(8000, kSamples);
    noFormat.replace(12, 4, "junk");
    EXPECT_EQ(length(noFormat), std::nullopt) << "no byte rate to count with";
    EXPECT_EQ(WaveLength::read(dir.path() / "missing.wav"), std::nullopt);
    fs::create_directory(dir.path() / "folder.wav");
    EXPECT_EQ(WaveLength::read(dir.path() / "folder.wav"), std::nullopt);
}

} // namespace
} // namespace quillet
