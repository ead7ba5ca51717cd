#pragma once

#include "quillet_capture/config/AppSettings.hpp"
#include "quillet_capture/config/Settings.hpp"
#include "quillet_capture/platform/Paths.hpp"
#include "tests/support/Scratch.hpp"

#include <functional>

namespace quillet::test {

/// Writes a complete settings file (the defaults, changed by `edit`) at the settings path of
/// the current home, and makes the in-process settings read it.
inline void writeSettings(const std::function<void(AppSettings&)>& edit = {})
{
    auto settings = AppSettings::defaults();
    if (edit) {
        edit(settings);
    }
    writeFile(Paths::settingsFile(), settings.toJSON().dump(2));
    Settings::shared().resetToDefaults();
}

} // namespace quillet::test
