#pragma once

#include "quillet_capture/config/Settings.hpp"
#include "quillet_capture/config/SettingsFileWatch.hpp"

#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace quillet {

/// The settings a running agent works by: the settings file as the agent last found it
/// usable. Each caller takes a snapshot, which never changes under it; a new version of the
/// file replaces the snapshot for later callers. The agent says which version it applied in
/// `acknowledgementFile()`, so that `setup` can tell the person when the change was taken.
class AgentSettings {
public:
    /// The agent's, made on first use from `Settings::shared()` as it was read then.
    static AgentSettings& shared();

    /// Settings starting from `initial`, following the settings file at `file`.
    AgentSettings(AppSettings initial, std::filesystem::path file);

    /// The settings in effect. Any thread.
    std::shared_ptr<const Settings> current() const;

    /// Looks at the settings file (one stat when it has not changed). A new usable version
    /// becomes the settings in effect, logged in one line when it differs from them, and is
    /// acknowledged; an unusable one is logged once and changes nothing. True when the
    /// settings in effect changed. One caller at a time (the agent: the coordinator's queue).
    bool followFile();

    /// Where the agent writes the signature (`FileSignature::text`) of the version of the
    /// settings file it applied last: "settings-applied" beside the state file.
    static std::filesystem::path acknowledgementFile();

    /// The signature in `acknowledgementFile()`; nothing when there is none. Any process.
    static std::optional<std::string> acknowledged();

private:
    mutable std::mutex lock_;
    std::shared_ptr<const Settings> current_;
    SettingsFileWatch watch_;
};

} // namespace quillet
