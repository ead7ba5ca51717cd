#pragma once

#include "tests/support/Scratch.hpp"

#include <memory>
#include <string>
#include <vector>

namespace quillet::test {

/// A private D-Bus session bus (`dbus-run-session`) with a fake desktop notification service
/// on it (tests/support/FakeNotificationService.cpp), for as long as the value lives. Linux
/// only: elsewhere, or without `dbus-run-session`, it is not available and says why.
class FakeNotificationBus {
public:
    /// One Notify call the service received.
    struct Record {
        std::string app;
        std::string summary;
        std::string body;
        bool operator==(const Record&) const = default;
    };

    /// Starts the bus and the service and waits (at most 10 s) until the service owns its
    /// name. `markup`: whether the service says that it reads the body as markup.
    explicit FakeNotificationBus(bool markup = true);
    /// Stops the service, which ends the bus.
    ~FakeNotificationBus();
    FakeNotificationBus(const FakeNotificationBus&) = delete;
    FakeNotificationBus& operator=(const FakeNotificationBus&) = delete;

    bool available() const { return why_.empty(); }
    /// Why it is not available.
    const std::string& why() const { return why_; }
    /// The bus's address, for DBUS_SESSION_BUS_ADDRESS.
    const std::string& address() const { return address_; }

    /// The Notify calls so far, in order.
    std::vector<Record> records() const;
    /// Waits until at least `count` calls came, at most `seconds`; then returns them all.
    std::vector<Record> waitFor(std::size_t count, double seconds = 10) const;

private:
    ScratchDir dir_;
    std::unique_ptr<ChildProcess> session_;
    int servicePid_ = -1;
    std::string address_;
    std::string why_;
};

} // namespace quillet::test
