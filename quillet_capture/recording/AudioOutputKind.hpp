#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace quillet {

/// Where the recorded computer's sound came out while recording. Stored as its raw value:
/// "builtInSpeakers", "externalSpeakers", "headphones", "unknown". The sidecar keeps the raw
/// text, so a value written by a newer recorder stays readable.
enum class AudioOutputKind { builtInSpeakers, externalSpeakers, headphones, unknown };

/// The raw value of `kind`.
std::string rawValue(AudioOutputKind kind);

/// The kind whose raw value is `text` (exact, case-sensitive); absent for anything else.
std::optional<AudioOutputKind> audioOutputKindFrom(std::string_view text);

} // namespace quillet
