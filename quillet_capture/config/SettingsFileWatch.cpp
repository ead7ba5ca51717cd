#include "quillet_capture/config/SettingsFileWatch.hpp"

#include "quillet_capture/config/Log.hpp"
#include "quillet_capture/config/Settings.hpp"
#include "quillet_capture/util/AtomicFile.hpp"

namespace quillet {

SettingsFileWatch::SettingsFileWatch(std::filesystem::path file)
    : file_(std::move(file))
{
}

std::optional<std::string> SettingsFileWatch::problem(const AppSettings& settings)
{
    Settings derived(settings);
    if (Settings::trimmed(settings.vaultPath).empty()) {
        return "it names no vault";
    }
    if (derived.enabledWatchedFolders().empty()) {
        return "it enables no watched folder";
    }
    // Checked here because the derived value ends the process on a bad address.
    if (settings.veldaneBaseURL && !Settings::validBaseURL(*settings.veldaneBaseURL)) {
        return "veldaneBaseURL is not an http(s) URL";
    }
    return std::nullopt;
}

std::optional<SettingsFileWatch::Change> SettingsFileWatch::check()
{
    // The signature is taken before the read: a save that lands in between gives the next
    // check another signature, so that version is read then.
    auto signature = FileSignature::of(file_);
    if (seen_ && *seen_ == signature) {
        return std::nullopt;
    }
    seen_ = signature;
    std::optional<std::string> trouble;
    std::optional<AppSettings> settings;
    if (!signature.exists) {
        trouble = "it is gone";
    } else if (auto contents = readWholeFile(file_); !contents) {
        trouble = "it cannot be read";
    } else {
        try {
            settings = AppSettings::decode(*contents);
            trouble = problem(*settings);
        } catch (const std::exception& error) {
            trouble = error.what();
        }
    }
    if (trouble) {
        rlog("[quillet] capture-cli: settings file %@ changed but cannot be used (%@); keeping the settings in use",
             file_.string(), *trouble);
        return std::nullopt;
    }
    return Change{std::move(*settings), signature};
}

} // namespace quillet
