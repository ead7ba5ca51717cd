#include "quillet_capture/platform/Workspace.hpp"

#include "quillet_capture/platform/Process.hpp"

#include <CoreServices/CoreServices.h>

#include <climits>

namespace quillet {

namespace {

std::string trimmedLines(std::string text)
{
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r' || text.back() == ' ')) {
        text.pop_back();
    }
    return text;
}

class MacWorkspace final : public Workspace {
public:
    bool isRunning(const std::string& bundleId) override
    {
        // lsappinfo prints one "ASN:..." line per running application that matches, and
        // nothing when none does.
        auto result = shell("/usr/bin/lsappinfo", {"find", "bundleid=" + bundleId});
        return result.status == 0 && result.output.find("ASN:") != std::string::npos;
    }

    std::optional<std::string> applicationPath(const std::string& bundleId) override
    {
        CFStringRef identifier =
            CFStringCreateWithCString(kCFAllocatorDefault, bundleId.c_str(), kCFStringEncodingUTF8);
        if (identifier == nullptr) {
            return std::nullopt;
        }
        CFArrayRef urls = LSCopyApplicationURLsForBundleIdentifier(identifier, nullptr);
        CFRelease(identifier);
        if (urls == nullptr) {
            return std::nullopt;
        }
        std::optional<std::string> path;
        if (CFArrayGetCount(urls) > 0) {
            auto url = static_cast<CFURLRef>(CFArrayGetValueAtIndex(urls, 0));
            UInt8 buffer[PATH_MAX] = {};
            if (CFURLGetFileSystemRepresentation(url, true, buffer, sizeof buffer)) {
                path = std::string(reinterpret_cast<const char*>(buffer));
            }
        }
        CFRelease(urls);
        return path;
    }

    std::optional<std::string> openHidden(const std::string& path) override
    {
        // -g: do not bring it to the foreground; -j: launch it hidden.
        auto result = shell("/usr/bin/open", {"-g", "-j", path});
        if (result.status == 0) {
            return std::nullopt;
        }
        std::string reason = trimmedLines(result.output);
        return reason.empty() ? "open exited " + std::to_string(result.status) : reason;
    }
};

} // namespace

std::shared_ptr<Workspace> Workspace::system()
{
    static auto instance = std::make_shared<MacWorkspace>();
    return instance;
}

} // namespace quillet
