#include "quillet_capture/config/Keychain.hpp"

#include "quillet_capture/platform/Paths.hpp"
#include "quillet_capture/platform/SecretStore.hpp"
#include "quillet_capture/util/AtomicFile.hpp"
#include "quillet_capture/util/Utf8.hpp"

#include <nlohmann/json.hpp>

namespace quillet::Keychain {

std::optional<std::string> read(const std::string& account, const std::string& service)
{
    auto data = SecretStore::read(service, account);
    if (!data || !Utf8::isValid(*data)) {
        return std::nullopt;
    }
    return data;
}

bool write(const std::string& account, const std::optional<std::string>& value, const std::string& service)
{
    if (value && !value->empty()) {
        return SecretStore::write(service, account, *value);
    }
    return SecretStore::remove(service, account);
}

std::optional<std::string> deviceToken()
{
    return read(deviceTokenAccount);
}

bool setDeviceToken(const std::optional<std::string>& value)
{
    return write(deviceTokenAccount, value);
}

bool hasCredentials()
{
    auto token = deviceToken();
    return token && !token->empty();
}

std::optional<std::filesystem::path> unreadableTokenFile()
{
    if (Paths::current() == Platform::macOS) {
        return std::nullopt;
    }
    auto file = Paths::credentialsFile();
    std::error_code error;
    if (!std::filesystem::exists(file, error)) {
        return std::nullopt;
    }
    auto text = readWholeFile(file);
    if (text && nlohmann::json::parse(*text, nullptr, false).is_object()) {
        return std::nullopt;
    }
    return file;
}

bool hasDeviceToken()
{
    return hasCredentials();
}

std::optional<std::string> authorizationHeader()
{
    auto token = deviceToken();
    if (!token || token->empty()) {
        return std::nullopt;
    }
    return "Bearer " + *token;
}

} // namespace quillet::Keychain
