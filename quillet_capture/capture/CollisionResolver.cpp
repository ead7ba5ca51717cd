#include "quillet_capture/capture/CollisionResolver.hpp"

#include "quillet_capture/config/Log.hpp"
#include "quillet_capture/util/Uuid.hpp"

namespace quillet::CollisionResolver {

namespace {

// The suffixes run from 2 up to, but not including, this bound; the log line rounds the
// number of attempts up to it.
constexpr int kSuffixLimit = 1000;

} // namespace

std::string resolve(const std::string& base, const std::function<bool(const std::string&)>& isAvailable)
{
    if (isAvailable(base)) {
        return base;
    }
    for (int n = 2; n < kSuffixLimit; ++n) {
        std::string candidate = base + "_" + std::to_string(n);
        if (isAvailable(candidate)) {
            return candidate;
        }
    }
    std::string fallback = base + "_" + newUuid().substr(0, 8);
    rlog("[quillet] capture: collision resolver hit 1000 attempts on %@, fallback=%@", base, fallback);
    return fallback;
}

} // namespace quillet::CollisionResolver
