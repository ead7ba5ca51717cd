#include "quillet_capture/util/Uuid.hpp"

#include <uuid/uuid.h>

namespace quillet {

std::string newUuid()
{
    uuid_t value;
    uuid_generate_random(value);
    char text[37];
    uuid_unparse_upper(value, text);
    return text;
}

} // namespace quillet
