#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace quillet {

/// The platform's store of small secrets, one per (service, account) pair: the login Keychain
/// on macOS (generic password items), the Secret Service through libsecret on Linux (items
/// with the attributes `service` and `account`). When `QUILLET_TOKEN_STORE=file` is set, or
/// on Linux when no Secret Service answers within a few seconds, the file back end below takes
/// their place. No call caches anything: a secret written by another program is seen at once.
/// Every call is synchronous, may block for a bounded time (a few seconds at most) and is safe
/// from any thread. Nothing here throws or logs.
namespace SecretStore {

/// The stored bytes, exactly as stored; absent when there is no item or the store refuses
/// access (locked, denied, not answering).
std::optional<std::string> read(std::string_view service, std::string_view account);

/// Replaces the data of an existing item, or adds an item when there is none (an existing item
/// keeps its identity and access rules). `secret` must not be empty. True on success.
bool write(std::string_view service, std::string_view account, std::string_view secret);

/// Deletes the item. True when it is gone afterwards, also when there was none.
bool remove(std::string_view service, std::string_view account);

/// Which back end the calls above use right now: "keychain", "secret-service" or "file".
std::string backendName();

/// Where a secret written now is kept, in words for the person: "the Keychain" on macOS,
/// "the Secret Service" on Linux, or the path of the credentials file when the file back end
/// is used.
std::string place();

/// True when the environment asks for the file back end (`QUILLET_TOKEN_STORE=file`).
bool fileStoreRequested();

/// The file back end: `Paths::credentialsFile()`, a JSON object of services, each an object
/// of accounts and their secrets (UTF-8 text only), kept with mode 0600 in a folder with mode
/// 0700 and replaced atomically on every change. A file that cannot be parsed holds nothing.
namespace File {

std::optional<std::string> read(std::string_view service, std::string_view account);
bool write(std::string_view service, std::string_view account, std::string_view secret);
bool remove(std::string_view service, std::string_view account);

} // namespace File
} // namespace SecretStore
} // namespace quillet
