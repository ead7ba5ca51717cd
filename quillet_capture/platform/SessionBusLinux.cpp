#include "quillet_capture/platform/SessionBusLinux.hpp"

#include <sys/stat.h>

#include <cstdlib>
#include <string>

namespace quillet::SessionBus {

bool conceivable()
{
    const char* address = std::getenv("DBUS_SESSION_BUS_ADDRESS");
    if (address != nullptr && *address != '\0') {
        return true;
    }
    const char* runtime = std::getenv("XDG_RUNTIME_DIR");
    if (runtime == nullptr || *runtime == '\0') {
        return false;
    }
    struct stat info {};
    return ::stat((std::string(runtime) + "/bus").c_str(), &info) == 0 && S_ISSOCK(info.st_mode);
}

} // namespace quillet::SessionBus
