#pragma once

#include "quillet_capture/config/AppSettings.hpp"
#include "quillet_capture/platform/FileSignature.hpp"

#include <filesystem>
#include <optional>
#include <string>

namespace quillet {

/// Notices a new version of the settings file by its signature (one stat per check) and reads
/// it. A version that cannot be used (gone, unreadable, not a settings record, or one the agent
/// cannot run with) is logged in one line and not again until the file changes once more.
/// Not synchronised: one owner calls it (the agent: the coordinator's queue).
class SettingsFileWatch {
public:
    /// A version of the file that can be used, and the signature it was read under.
    struct Change {
        AppSettings settings;
        FileSignature signature;
    };

    /// Watches `file`. Nothing is taken as seen yet: the first `check` reads the file.
    explicit SettingsFileWatch(std::filesystem::path file);

    /// The version of the file now, when it is another one than at the last check and can be
    /// used; nothing otherwise. Never throws except for memory.
    std::optional<Change> check();

    /// Why the agent cannot run with `settings` (no vault, no watched folder enabled, a
    /// service address that is not an http(s) URL); nothing when it can.
    static std::optional<std::string> problem(const AppSettings& settings);

private:
    std::filesystem::path file_;
    std::optional<FileSignature> seen_;
};

} // namespace quillet
