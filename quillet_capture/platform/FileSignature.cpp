#include "quillet_capture/platform/FileSignature.hpp"

namespace quillet {

std::string FileSignature::text() const
{
    if (!exists) {
        return "none";
    }
    return std::to_string(size) + ":" + std::to_string(modifiedNs) + ":" + std::to_string(changedNs) + ":" +
           std::to_string(device) + ":" + std::to_string(inode);
}

} // namespace quillet
