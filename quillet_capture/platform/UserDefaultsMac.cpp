#include "quillet_capture/platform/UserDefaults.hpp"

#include <CoreFoundation/CoreFoundation.h>

namespace quillet::UserDefaults {

namespace {

constexpr const char* kApplicationId = "quillet-capture";

struct CFString {
    explicit CFString(const std::string& text)
        : ref(CFStringCreateWithCString(kCFAllocatorDefault, text.c_str(), kCFStringEncodingUTF8))
    {
    }
    ~CFString()
    {
        if (ref != nullptr) {
            CFRelease(ref);
        }
    }
    CFStringRef ref;
};

} // namespace

std::optional<TimePoint> date(const std::string& key)
{
    CFString name(key);
    CFString application(kApplicationId);
    CFPropertyListRef value = CFPreferencesCopyAppValue(name.ref, application.ref);
    if (value == nullptr) {
        return std::nullopt;
    }
    std::optional<TimePoint> result;
    if (CFGetTypeID(value) == CFDateGetTypeID()) {
        double seconds = CFDateGetAbsoluteTime(static_cast<CFDateRef>(value)) + kCFAbsoluteTimeIntervalSince1970;
        result = TimePoint(std::chrono::duration_cast<TimePoint::duration>(std::chrono::duration<double>(seconds)));
    }
    CFRelease(value);
    return result;
}

void setDate(const std::string& key, TimePoint value)
{
    CFString name(key);
    CFString application(kApplicationId);
    double seconds = std::chrono::duration<double>(value.time_since_epoch()).count();
    CFDateRef date = CFDateCreate(kCFAllocatorDefault, seconds - kCFAbsoluteTimeIntervalSince1970);
    CFPreferencesSetAppValue(name.ref, date, application.ref);
    CFPreferencesAppSynchronize(application.ref);
    CFRelease(date);
}

void remove(const std::string& key)
{
    CFString name(key);
    CFString application(kApplicationId);
    CFPreferencesSetAppValue(name.ref, nullptr, application.ref);
    CFPreferencesAppSynchronize(application.ref);
}

} // namespace quillet::UserDefaults
