#pragma once

#include <initializer_list>
#include <mutex>
#include <string>
#include <vector>

namespace quillet {

/// A shared library opened on first use instead of at start. Loading libcurl or libsecret
/// with their dependencies (TLS, Kerberos, LDAP, GLib: some forty libraries) costs several
/// milliseconds of symbol binding, which every command would pay, `version` included, and
/// keeps their pages resident in an agent that sits idle. A library that cannot be opened, or
/// lacks a function, ends the process with a message when the program cannot work without it
/// (`symbol`); one it can do without is asked with `optionalSymbol`.
class LazyLibrary {
public:
    /// `names`: the file names to try in order (sonames, such as "libcurl.so.4").
    LazyLibrary(std::initializer_list<const char*> names);

    /// The address of `name` in the library, opening the library on the first call.
    void* symbol(const char* name);

    /// `symbol(name)` as a pointer of the function's type.
    template <typename Function>
    Function function(const char* name)
    {
        return reinterpret_cast<Function>(symbol(name));
    }

    /// The address of `name`, or null when the library cannot be opened or lacks it; never
    /// ends the process. Opens the library on the first call. Any thread.
    void* optionalSymbol(const char* name);

    /// `optionalSymbol(name)` as a pointer of the function's type.
    template <typename Function>
    Function optionalFunction(const char* name)
    {
        return reinterpret_cast<Function>(optionalSymbol(name));
    }

private:
    /// Opens the library once; true when it is open.
    bool open();

    std::vector<std::string> names_;
    std::string tried_;
    std::once_flag opened_;
    void* handle_ = nullptr;
};

} // namespace quillet
