#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace quillet::test {

/// The bytes of a mono 16-bit PCM WAV file of `samples` samples at `sampleRate` (as
/// `writeWav` writes). With `declaredData`, its header says the data is that many bytes (and the
/// RIFF chunk 36 more, or 0xFFFFFFFF as well), whatever follows: what a recorder that writes
/// its sizes only when it stops leaves while it records, or after a crash.
inline std::string wavBytes(int sampleRate, int samples, std::optional<std::uint32_t> declaredData = std::nullopt)
{
    std::string out;
    auto put32 = [&](std::uint32_t value) {
        for (int i = 0; i < 4; ++i) {
            out.push_back(static_cast<char>((value >> (8 * i)) & 0xFF));
        }
    };
    auto put16 = [&](std::uint16_t value) {
        out.push_back(static_cast<char>(value & 0xFF));
        out.push_back(static_cast<char>(value >> 8));
    };
    const std::uint32_t dataBytes = declaredData.value_or(static_cast<std::uint32_t>(samples) * 2);
    out += "RIFF";
    put32(dataBytes == 0xFFFFFFFF ? dataBytes : 36 + dataBytes);
    out += "WAVEfmt ";
    put32(16);
    put16(1); // PCM
    put16(1); // mono
    put32(static_cast<std::uint32_t>(sampleRate));
    put32(static_cast<std::uint32_t>(sampleRate) * 2);
    put16(2);
    put16(16);
    out += "data";
    put32(dataBytes);
    for (int i = 0; i < samples; ++i) {
        put16(static_cast<std::uint16_t>((i * 97) % 4000));
    }
    return out;
}

} // namespace quillet::test
