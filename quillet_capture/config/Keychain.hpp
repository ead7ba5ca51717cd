#pragma once

#include <filesystem>
#include <optional>
#include <string>

namespace quillet {

/// The stored device token that authorises every request to Veldane, shared with the menu-bar
/// application (same service and account). Static operations only and no cache: every call
/// asks the platform's secret store afresh (platform/SecretStore.hpp), so a token that the
/// other program writes or deletes is seen at the next call. Synchronous, may block for a few
/// seconds at most, safe from any thread; nothing throws or logs.
namespace Keychain {

/// The service of the item.
inline constexpr const char* service = "se.Brannick.quillet.mac";
/// The account of the device token.
inline constexpr const char* deviceTokenAccount = "vd_device_token";

/// The item's data as text; absent when there is no item, access is refused, or the data is
/// not valid UTF-8.
std::optional<std::string> read(const std::string& account, const std::string& service = Keychain::service);

/// Stores `value` (update of the existing item, else add); an absent or empty value deletes
/// the item instead, which succeeds also when there was none. True on success.
bool write(const std::string& account, const std::optional<std::string>& value,
           const std::string& service = Keychain::service);

/// The device token as stored (possibly empty, when another program stored it so).
std::optional<std::string> deviceToken();

/// Stores the device token (empty or absent deletes it). True on success.
bool setDeviceToken(const std::optional<std::string>& value);

/// "Paired": the token reads back and is not empty.
bool hasCredentials();
/// The same test as hasCredentials.
bool hasDeviceToken();

/// Where no token is readable on Linux: the token file when one is there but cannot be read
/// or is not a JSON object (a token saved while no Secret Service answered is then lost until
/// the next pair). Absent on macOS, and when there is no such file.
std::optional<std::filesystem::path> unreadableTokenFile();

/// "Bearer " + the token when it reads back and is not empty; otherwise absent.
std::optional<std::string> authorizationHeader();

} // namespace Keychain
} // namespace quillet
