#include "quillet_capture/platform/DesktopNotifier.hpp"

#include "tests/support/FakeNotificationBus.hpp"
#include "tests/support/LogLines.hpp"
#include "tests/support/Scratch.hpp"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <optional>
#include <string>

namespace quillet {
namespace {

using Record = test::FakeNotificationBus::Record;

// Sets an environment variable for the life of the value, and puts the old value back.
class ScopedVariable {
public:
    ScopedVariable(const char* name, std::optional<std::string> value) : name_(name)
    {
        if (const char* old = std::getenv(name)) {
            old_ = old;
        }
        value ? ::setenv(name, value->c_str(), 1) : ::unsetenv(name);
    }
    ~ScopedVariable() { old_ ? ::setenv(name_, old_->c_str(), 1) : ::unsetenv(name_); }

private:
    const char* name_;
    std::optional<std::string> old_;
};

TEST(DesktopNotifierLinux, TheNotificationServiceOnTheSessionBusGetsEachNotification)
{
    test::ScratchHome home;
    {
        test::FakeNotificationBus bus;
        if (!bus.available()) {
            GTEST_SKIP() << bus.why();
        }
        ScopedVariable address("DBUS_SESSION_BUS_ADDRESS", bus.address());
        DesktopNotifier::system().post("Transcript ready", "240301-080000: its note has the transcript.");
        // A server that reads the body as markup gets the person's "<" and "&" as text.
        DesktopNotifier::system().post("Vault <not> writable", "a < b & \"c\" > d");
        auto records = bus.waitFor(2);
        EXPECT_EQ(records, (std::vector<Record>{
                               {"quillet-capture", "Transcript ready", "240301-080000: its note has the transcript."},
                               {"quillet-capture", "Vault <not> writable", "a &lt; b &amp; \"c\" &gt; d"},
                           }));
    }
    {
        // Another bus (the person logged in again), whose server shows the body as typed.
        test::FakeNotificationBus bus(false);
        ASSERT_TRUE(bus.available()) << bus.why();
        ScopedVariable address("DBUS_SESSION_BUS_ADDRESS", bus.address());
        DesktopNotifier::system().post("Plain", "a < b & c");
        EXPECT_EQ(bus.waitFor(1), (std::vector<Record>{{"quillet-capture", "Plain", "a < b & c"}}));
    }
    EXPECT_EQ(test::countLogLines("no desktop notification shown"), 0);
}

TEST(DesktopNotifierLinux, WithoutABusOrAServiceNothingFailsNorWaits)
{
    test::ScratchHome home;
    ScopedVariable runtime("XDG_RUNTIME_DIR", std::nullopt);
    for (std::optional<std::string> address :
         {std::optional<std::string>("unix:path=" + (home.path() / "no-bus").string()), std::optional<std::string>()}) {
        ScopedVariable variable("DBUS_SESSION_BUS_ADDRESS", address);
        auto started = std::chrono::steady_clock::now();
        for (int i = 0; i < 50; ++i) {
            DesktopNotifier::system().post("Recording sent to Veldane", "240301-080000");
        }
        EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::milliseconds(500))
            << "posting never waits for the desktop";
    }
    // At most one line for all of it (none when an earlier test in this process said it).
    test::eventually([] { return test::countLogLines("no desktop notification shown") > 0; }, 3);
    EXPECT_LE(test::countLogLines("no desktop notification shown"), 1);

    // A service that comes later is used: the failures before it leave nothing behind.
    test::FakeNotificationBus bus;
    if (bus.available()) {
        ScopedVariable address("DBUS_SESSION_BUS_ADDRESS", bus.address());
        DesktopNotifier::system().post("Before", "the service is there");
        EXPECT_EQ(bus.waitFor(1).size(), 1u);
    }
}

} // namespace
} // namespace quillet
