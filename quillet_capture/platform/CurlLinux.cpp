// libcurl's functions, as the program calls them, forwarded to the library opened on the first
// call (platform/LazyLibrary.hpp): commands that never make a request, and an agent with
// nothing to send, do not load libcurl and its TLS, Kerberos and LDAP dependencies.
#define CURL_DISABLE_TYPECHECK 1
#include <curl/curl.h>

#include "quillet_capture/platform/LazyLibrary.hpp"

#include <cstdarg>

namespace {

quillet::LazyLibrary& curl()
{
    static quillet::LazyLibrary library{"libcurl.so.4", "libcurl-gnutls.so.4", "libcurl.so"};
    return library;
}

// The function `name` of libcurl as a pointer of the type of the function declared here.
#define QUILLET_CURL(name) static const auto forward = curl().function<decltype(&::name)>(#name)

} // namespace

extern "C" {

CURLcode curl_global_init(long flags)
{
    QUILLET_CURL(curl_global_init);
    return forward(flags);
}

CURL* curl_easy_init(void)
{
    QUILLET_CURL(curl_easy_init);
    return forward();
}

CURLcode curl_easy_setopt(CURL* handle, CURLoption option, ...)
{
    QUILLET_CURL(curl_easy_setopt);
    // The option's number says the type of its one argument.
    va_list arguments;
    va_start(arguments, option);
    CURLcode result;
    if (option < CURLOPTTYPE_OBJECTPOINT) {
        result = forward(handle, option, va_arg(arguments, long));
    } else if (option < CURLOPTTYPE_FUNCTIONPOINT) {
        result = forward(handle, option, va_arg(arguments, void*));
    } else if (option < CURLOPTTYPE_OFF_T) {
        result = forward(handle, option, va_arg(arguments, void (*)()));
    } else if (option < CURLOPTTYPE_BLOB) {
        result = forward(handle, option, va_arg(arguments, curl_off_t));
    } else {
        result = forward(handle, option, va_arg(arguments, void*));
    }
    va_end(arguments);
    return result;
}

CURLcode curl_easy_perform(CURL* handle)
{
    QUILLET_CURL(curl_easy_perform);
    return forward(handle);
}

CURLcode curl_easy_getinfo(CURL* handle, CURLINFO info, ...)
{
    QUILLET_CURL(curl_easy_getinfo);
    // Every kind of information is written through a pointer.
    va_list arguments;
    va_start(arguments, info);
    CURLcode result = forward(handle, info, va_arg(arguments, void*));
    va_end(arguments);
    return result;
}

void curl_easy_reset(CURL* handle)
{
    QUILLET_CURL(curl_easy_reset);
    forward(handle);
}

void curl_easy_cleanup(CURL* handle)
{
    QUILLET_CURL(curl_easy_cleanup);
    forward(handle);
}

const char* curl_easy_strerror(CURLcode code)
{
    QUILLET_CURL(curl_easy_strerror);
    return forward(code);
}

void curl_free(void* pointer)
{
    QUILLET_CURL(curl_free);
    forward(pointer);
}

struct curl_slist* curl_slist_append(struct curl_slist* list, const char* text)
{
    QUILLET_CURL(curl_slist_append);
    return forward(list, text);
}

void curl_slist_free_all(struct curl_slist* list)
{
    QUILLET_CURL(curl_slist_free_all);
    forward(list);
}

CURLU* curl_url(void)
{
    QUILLET_CURL(curl_url);
    return forward();
}

void curl_url_cleanup(CURLU* handle)
{
    QUILLET_CURL(curl_url_cleanup);
    forward(handle);
}

CURLUcode curl_url_get(CURLU* handle, CURLUPart what, char** part, unsigned int flags)
{
    QUILLET_CURL(curl_url_get);
    return forward(handle, what, part, flags);
}

CURLUcode curl_url_set(CURLU* handle, CURLUPart what, const char* part, unsigned int flags)
{
    QUILLET_CURL(curl_url_set);
    return forward(handle, what, part, flags);
}

} // extern "C"
