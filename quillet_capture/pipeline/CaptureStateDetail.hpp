#pragma once

#include "quillet_capture/pipeline/CaptureStateStore.hpp"

#include <string_view>

// Kept out of CaptureStateStore.hpp: the store's operations and the coding of its file share
// these, and no other code needs them.
namespace quillet::detail {

/// `time` in whole seconds, pinned to the whole years the system clock can hold.
CaptureStateStore::TimePoint normalised(CaptureStateStore::TimePoint time);

/// True when `text` is UTF-8 throughout.
bool isUtf8(std::string_view text);

} // namespace quillet::detail
