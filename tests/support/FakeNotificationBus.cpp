#include "tests/support/FakeNotificationBus.hpp"

#include "quillet_capture/platform/Process.hpp"

#include <nlohmann/json.hpp>

#include <signal.h>

#include <filesystem>
#include <sstream>

namespace quillet::test {

FakeNotificationBus::FakeNotificationBus(bool markup)
{
#ifndef QUILLET_FAKE_NOTIFICATIONS
    why_ = "the fake notification service is built on Linux only";
    (void)markup;
#else
    auto runner = Process::findInPath("dbus-run-session");
    if (!runner) {
        why_ = "dbus-run-session is missing (scripts/deps installs dbus)";
        return;
    }
    auto ready = dir_.path() / "ready";
    std::vector<std::string> arguments = {"--", QUILLET_FAKE_NOTIFICATIONS, (dir_.path() / "records").string(),
                                          ready.string()};
    if (!markup) {
        arguments.push_back("--no-markup");
    }
    session_ = std::make_unique<ChildProcess>(*runner, arguments);
    if (!eventually([&] { return std::filesystem::exists(ready); }, 10)) {
        why_ = "the fake notification service did not come up";
        return;
    }
    std::istringstream lines(readFile(ready));
    lines >> servicePid_;
    lines >> std::ws;
    std::getline(lines, address_);
    if (address_.empty()) {
        why_ = "dbus-run-session gave no bus address";
    }
#endif
}

FakeNotificationBus::~FakeNotificationBus()
{
    if (servicePid_ > 0) {
        ::kill(servicePid_, SIGTERM);
    }
    if (session_) {
        auto result = session_->wait(10);
        (void)result;
    }
}

std::vector<FakeNotificationBus::Record> FakeNotificationBus::records() const
{
    std::vector<Record> found;
    std::error_code error;
    if (!std::filesystem::exists(dir_.path() / "records", error)) {
        return found;
    }
    for (const auto& line : readLines(dir_.path() / "records")) {
        if (line.empty()) {
            continue;
        }
        auto record = nlohmann::json::parse(line, nullptr, false);
        if (record.is_object()) {
            found.push_back({record.value("app", ""), record.value("summary", ""), record.value("body", "")});
        }
    }
    return found;
}

std::vector<FakeNotificationBus::Record> FakeNotificationBus::waitFor(std::size_t count, double seconds) const
{
    eventually([&] { return records().size() >= count; }, seconds);
    return records();
}

} // namespace quillet::test
