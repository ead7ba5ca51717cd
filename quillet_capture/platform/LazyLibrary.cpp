#include "quillet_capture/platform/LazyLibrary.hpp"

#include <dlfcn.h>

#include <cstdio>
#include <cstdlib>

namespace quillet {

LazyLibrary::LazyLibrary(std::initializer_list<const char*> names) : names_(names.begin(), names.end())
{
}

bool LazyLibrary::open()
{
    std::call_once(opened_, [this] {
        for (const auto& file : names_) {
            handle_ = ::dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL);
            if (handle_ != nullptr) {
                return;
            }
            const char* why = ::dlerror();
            tried_ += "\n  " + (why != nullptr ? std::string(why) : file);
        }
    });
    return handle_ != nullptr;
}

void* LazyLibrary::symbol(const char* name)
{
    if (!open()) {
        std::fprintf(stderr, "quillet-capture: cannot load a library it needs:%s\n", tried_.c_str());
        std::exit(1);
    }
    void* address = ::dlsym(handle_, name);
    if (address == nullptr) {
        std::fprintf(stderr, "quillet-capture: %s lacks %s\n", names_.front().c_str(), name);
        std::exit(1);
    }
    return address;
}

void* LazyLibrary::optionalSymbol(const char* name)
{
    return open() ? ::dlsym(handle_, name) : nullptr;
}

} // namespace quillet
