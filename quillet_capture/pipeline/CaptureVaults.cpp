#include "quillet_capture/pipeline/CaptureVaults.hpp"

#include "quillet_capture/pipeline/StateFileJson.hpp"
#include "quillet_capture/platform/Paths.hpp"
#include "quillet_capture/runtime/MainLoop.hpp"
#include "quillet_capture/util/Utf8.hpp"

#include <nlohmann/json.hpp>

namespace quillet {

namespace fs = std::filesystem;

CaptureVaults& CaptureVaults::shared()
{
    static auto* vaults = [] {
        auto* made = new CaptureVaults(Paths::stateFile().parent_path() / "capture-vaults.json");
        runtime::addExitHook([made] { made->close(); });
        return made;
    }();
    return *vaults;
}

CaptureVaults::CaptureVaults(fs::path file)
    : file_(std::move(file))
{
    auto json = StateFileJson::read(file_);
    if (!json || !json->contains("captures") || !(*json)["captures"].is_object()) {
        return;
    }
    for (const auto& [id, vault] : (*json)["captures"].items()) {
        if (vault.is_string() && !vault.get<std::string>().empty()) {
            vaults_.insert_or_assign(Utf8::bytesOf(id), fs::path(Utf8::bytesOf(vault.get<std::string>())));
        }
    }
}

std::optional<fs::path> CaptureVaults::find(const std::string& id) const
{
    std::lock_guard guard(lock_);
    auto found = vaults_.find(id);
    if (found == vaults_.end()) {
        return std::nullopt;
    }
    return found->second;
}

void CaptureVaults::record(const std::string& id, const fs::path& vault)
{
    std::lock_guard guard(lock_);
    auto [at, added] = vaults_.try_emplace(id, vault);
    if (!added && at->second == vault) {
        return;
    }
    at->second = vault;
    persistLocked();
}

void CaptureVaults::forget(const std::string& id)
{
    std::lock_guard guard(lock_);
    if (vaults_.erase(id) > 0) {
        persistLocked();
    }
}

std::map<std::string, fs::path> CaptureVaults::all() const
{
    std::lock_guard guard(lock_);
    return vaults_;
}

void CaptureVaults::close()
{
    std::lock_guard guard(lock_);
    closed_ = true;
}

void CaptureVaults::persistLocked()
{
    if (closed_) {
        return;
    }
    auto captures = nlohmann::json::object();
    for (const auto& [id, vault] : vaults_) {
        captures[Utf8::lossless(id)] = Utf8::lossless(vault.string());
    }
    StateFileJson::write(file_, {{"captures", std::move(captures)}});
}

} // namespace quillet
