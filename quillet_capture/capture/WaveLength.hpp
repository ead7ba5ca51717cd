#pragma once

#include <filesystem>
#include <optional>

namespace quillet::WaveLength {

/// The length in seconds of the audio that a RIFF or RF64 WAVE file at `file` really holds:
/// the bytes of its "data" chunk that are in the file, over the byte rate of its "fmt " chunk.
/// A data size in the header that cannot be right (0, the 0xFFFFFFFF placeholder, more than
/// the file holds, or less than the file holds with no chunk after it) is what a recorder
/// writes before it stops; the bytes in the file count then. Absent when the file is not a
/// WAVE file this reads (no "fmt " chunk with a byte rate before a "data" chunk within the
/// first 64 chunks), or cannot be read. Blocks on the file's reads; any thread.
std::optional<double> read(const std::filesystem::path& file);

} // namespace quillet::WaveLength
