#include "quillet_capture/config/Log.hpp"
#include "quillet_capture/platform/Paths.hpp"
#include "quillet_capture/platform/SecretStore.hpp"
#include "quillet_capture/util/AtomicFile.hpp"

#include <nlohmann/json.hpp>

#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <mutex>

namespace quillet::SecretStore {

namespace {

using nlohmann::json;

// Serialises the read-modify-write of the file within this process; two processes writing at
// once can still race, as two Keychain writers can.
std::mutex fileLock;

json load(const std::filesystem::path& file)
{
    // The token gives the whole account: a file that others can read (copied in from a
    // backup, say) is made owner-only, and said.
    struct stat info {};
    if (::stat(file.c_str(), &info) == 0 && S_ISREG(info.st_mode) && (info.st_mode & 077) != 0 &&
        ::chmod(file.c_str(), 0600) == 0) {
        rlogNotice("[quillet] token store: %@ was readable by others; made it owner-only (0600)", file.string());
    }
    auto text = readWholeFile(file);
    if (!text) {
        return json::object();
    }
    json parsed = json::parse(*text, nullptr, false);
    return parsed.is_object() ? parsed : json::object();
}

// Creates the folder owner-only, and takes group and other access away from an existing one:
// the file beside the settings must not be reachable by other users even for a moment.
bool prepareFolder(const std::filesystem::path& folder)
{
    std::error_code error;
    std::filesystem::create_directories(folder, error);
    if (error) {
        return false;
    }
    return ::chmod(folder.c_str(), 0700) == 0;
}

bool save(const std::filesystem::path& file, const json& contents)
{
    if (!prepareFolder(file.parent_path())) {
        return false;
    }
    try {
        writeFileAtomically(file, contents.dump(2) + "\n", 0600);
        return true;
    } catch (const std::exception&) {
        return false;
    }
}

} // namespace

bool fileStoreRequested()
{
    const char* value = std::getenv("QUILLET_TOKEN_STORE");
    return value != nullptr && std::string_view(value) == "file";
}

namespace File {

std::optional<std::string> read(std::string_view service, std::string_view account)
{
    std::lock_guard guard(fileLock);
    json all = load(Paths::credentialsFile());
    auto entries = all.find(std::string(service));
    if (entries == all.end() || !entries->is_object()) {
        return std::nullopt;
    }
    auto secret = entries->find(std::string(account));
    if (secret == entries->end() || !secret->is_string()) {
        return std::nullopt;
    }
    return secret->get<std::string>();
}

bool write(std::string_view service, std::string_view account, std::string_view secret)
{
    std::lock_guard guard(fileLock);
    auto file = Paths::credentialsFile();
    json all = load(file);
    auto& entries = all[std::string(service)];
    if (!entries.is_object()) {
        entries = json::object();
    }
    entries[std::string(account)] = std::string(secret);
    // dump() refuses text that is not UTF-8; such a secret cannot be kept here.
    return save(file, all);
}

bool remove(std::string_view service, std::string_view account)
{
    std::lock_guard guard(fileLock);
    auto file = Paths::credentialsFile();
    std::error_code error;
    if (!std::filesystem::exists(file, error)) {
        return !error;
    }
    json all = load(file);
    auto entries = all.find(std::string(service));
    if (entries == all.end() || !entries->is_object() || !entries->contains(std::string(account))) {
        return true;
    }
    entries->erase(std::string(account));
    if (entries->empty()) {
        all.erase(entries);
    }
    if (all.empty()) {
        // No secret left: leave no file behind.
        std::filesystem::remove(file, error);
        return !error;
    }
    return save(file, all);
}

} // namespace File
} // namespace quillet::SecretStore
