#include "quillet_capture/config/AgentSettings.hpp"

#include "quillet_capture/config/Log.hpp"
#include "quillet_capture/platform/Paths.hpp"
#include "quillet_capture/util/AtomicFile.hpp"

namespace quillet {

namespace {

std::string folderNames(const Settings& settings)
{
    std::string names;
    for (const auto& folder : settings.enabledWatchedFolders()) {
        names += (names.empty() ? "" : ", ") + folder.displayName;
    }
    return names;
}

} // namespace

AgentSettings& AgentSettings::shared()
{
    // Never destroyed: capture tasks may still read it while the process ends.
    static auto* settings = new AgentSettings(Settings::shared().settings, Settings::fileURL());
    return *settings;
}

AgentSettings::AgentSettings(AppSettings initial, std::filesystem::path file)
    : current_(std::make_shared<const Settings>(std::move(initial)))
    , watch_(std::move(file))
{
}

std::shared_ptr<const Settings> AgentSettings::current() const
{
    std::lock_guard guard(lock_);
    return current_;
}

bool AgentSettings::followFile()
{
    auto change = watch_.check();
    if (!change) {
        return false;
    }
    auto next = std::make_shared<const Settings>(std::move(change->settings));
    bool differs = false;
    {
        std::lock_guard guard(lock_);
        differs = !(current_->settings == next->settings);
        if (differs) {
            current_ = next;
        }
    }
    if (differs) {
        rlog("[quillet] capture-cli: settings changed; now using vault %@, folders %@, upload %@, after a "
             "transcript %@",
             next->vaultPath(), folderNames(*next), next->captureVeldaneEnabled() ? "on" : "off",
             next->afterTranscriptCommand().value_or("nothing"));
    }
    try {
        std::error_code ignored;
        std::filesystem::create_directories(acknowledgementFile().parent_path(), ignored);
        writeFileAtomically(acknowledgementFile(), change->signature.text() + "\n", 0600);
    } catch (const std::exception& error) {
        rlog("[quillet] capture-cli: cannot write %@: %@", acknowledgementFile().string(), error.what());
    }
    return differs;
}

std::filesystem::path AgentSettings::acknowledgementFile()
{
    return Paths::stateFile().parent_path() / "settings-applied";
}

std::optional<std::string> AgentSettings::acknowledged()
{
    auto text = readWholeFile(acknowledgementFile());
    if (!text) {
        return std::nullopt;
    }
    return Settings::trimmed(*text);
}

} // namespace quillet
