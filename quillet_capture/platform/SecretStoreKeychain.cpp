#include "quillet_capture/platform/SecretStore.hpp"

#include "quillet_capture/platform/Paths.hpp"

#include <CoreFoundation/CoreFoundation.h>
#include <Security/Security.h>

namespace quillet::SecretStore {

namespace {

// Owns one Core Foundation reference.
template <typename T>
class CFRef {
public:
    explicit CFRef(T value = nullptr) : value_(value) {}
    ~CFRef()
    {
        if (value_ != nullptr) {
            CFRelease(value_);
        }
    }
    CFRef(const CFRef&) = delete;
    CFRef& operator=(const CFRef&) = delete;

    T get() const { return value_; }
    explicit operator bool() const { return value_ != nullptr; }

private:
    T value_;
};

CFRef<CFStringRef> makeString(std::string_view text)
{
    return CFRef<CFStringRef>(CFStringCreateWithBytes(kCFAllocatorDefault, reinterpret_cast<const UInt8*>(text.data()),
                                                      static_cast<CFIndex>(text.size()), kCFStringEncodingUTF8, false));
}

CFRef<CFDataRef> makeData(std::string_view bytes)
{
    return CFRef<CFDataRef>(CFDataCreate(kCFAllocatorDefault, reinterpret_cast<const UInt8*>(bytes.data()),
                                         static_cast<CFIndex>(bytes.size())));
}

// The base query: class generic password, the service and the account. No access group,
// accessibility, label or synchronisation attribute, so the item takes the system defaults
// and is the same item that the menu-bar application reads.
CFRef<CFMutableDictionaryRef> baseQuery(CFStringRef service, CFStringRef account)
{
    CFMutableDictionaryRef query = CFDictionaryCreateMutable(kCFAllocatorDefault, 0, &kCFTypeDictionaryKeyCallBacks,
                                                             &kCFTypeDictionaryValueCallBacks);
    CFDictionarySetValue(query, kSecClass, kSecClassGenericPassword);
    CFDictionarySetValue(query, kSecAttrService, service);
    CFDictionarySetValue(query, kSecAttrAccount, account);
    return CFRef<CFMutableDictionaryRef>(query);
}

std::optional<std::string> keychainRead(std::string_view service, std::string_view account)
{
    auto serviceText = makeString(service);
    auto accountText = makeString(account);
    if (!serviceText || !accountText) {
        return std::nullopt;
    }
    auto query = baseQuery(serviceText.get(), accountText.get());
    CFDictionarySetValue(query.get(), kSecReturnData, kCFBooleanTrue);
    CFDictionarySetValue(query.get(), kSecMatchLimit, kSecMatchLimitOne);
    CFTypeRef result = nullptr;
    OSStatus status = SecItemCopyMatching(query.get(), &result);
    CFRef<CFTypeRef> owned(result);
    if (status != errSecSuccess || result == nullptr || CFGetTypeID(result) != CFDataGetTypeID()) {
        return std::nullopt;
    }
    auto data = static_cast<CFDataRef>(result);
    return std::string(reinterpret_cast<const char*>(CFDataGetBytePtr(data)),
                       static_cast<std::size_t>(CFDataGetLength(data)));
}

// Update before add: an existing item keeps its identity, creation date and the access the
// user granted to it; only its data changes.
bool keychainWrite(std::string_view service, std::string_view account, std::string_view secret)
{
    auto serviceText = makeString(service);
    auto accountText = makeString(account);
    auto data = makeData(secret);
    if (!serviceText || !accountText || !data) {
        return false;
    }
    auto query = baseQuery(serviceText.get(), accountText.get());
    CFRef<CFMutableDictionaryRef> update(CFDictionaryCreateMutable(
        kCFAllocatorDefault, 0, &kCFTypeDictionaryKeyCallBacks, &kCFTypeDictionaryValueCallBacks));
    CFDictionarySetValue(update.get(), kSecValueData, data.get());
    OSStatus status = SecItemUpdate(query.get(), update.get());
    if (status == errSecItemNotFound) {
        CFDictionarySetValue(query.get(), kSecValueData, data.get());
        return SecItemAdd(query.get(), nullptr) == errSecSuccess;
    }
    return status == errSecSuccess;
}

bool keychainRemove(std::string_view service, std::string_view account)
{
    auto serviceText = makeString(service);
    auto accountText = makeString(account);
    if (!serviceText || !accountText) {
        return false;
    }
    auto query = baseQuery(serviceText.get(), accountText.get());
    OSStatus status = SecItemDelete(query.get());
    return status == errSecSuccess || status == errSecItemNotFound;
}

} // namespace

std::optional<std::string> read(std::string_view service, std::string_view account)
{
    return fileStoreRequested() ? File::read(service, account) : keychainRead(service, account);
}

bool write(std::string_view service, std::string_view account, std::string_view secret)
{
    return fileStoreRequested() ? File::write(service, account, secret) : keychainWrite(service, account, secret);
}

bool remove(std::string_view service, std::string_view account)
{
    return fileStoreRequested() ? File::remove(service, account) : keychainRemove(service, account);
}

std::string backendName()
{
    return fileStoreRequested() ? "file" : "keychain";
}

std::string place()
{
    return backendName() == "file" ? Paths::credentialsFile().string() : "the Keychain";
}

} // namespace quillet::SecretStore
