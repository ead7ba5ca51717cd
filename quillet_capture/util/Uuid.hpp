#pragma once

#include <string>

namespace quillet {

/// A new random UUID in its upper-case text form (8-4-4-4-12 hexadecimal digits).
std::string newUuid();

} // namespace quillet
