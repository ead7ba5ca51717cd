#include "quillet_capture/platform/LazyLibrary.hpp"

#include <dlfcn.h>

#include <cstdio>
#include <cstdlib>

namespace quillet {

LazyLibrary::LazyLibrary(std::initializer_list<const char*> names) : names_(names.begin(), names.end())
{
}

void* LazyLibrary::symbol(const char* name)
{
    std::call_once(opened_, [this] {
        std::string tried;
        for (const auto& file : names_) {
            handle_ = ::dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL);
            if (handle_ != nullptr) {
                return;
            }
            const char* why = ::dlerror();
            tried += "\n  " + (why != nullptr ? std::string(why) : file);
        }
        std::fprintf(stderr, "quillet-capture: cannot load a library it needs:%s\n", tried.c_str());
        std::exit(1);
    });
    void* address = ::dlsym(handle_, name);
    if (address == nullptr) {
        std::fprintf(stderr, "quillet-capture: %s lacks %s\n", names_.front().c_str(), name);
        std::exit(1);
    }
    return address;
}

} // namespace quillet
