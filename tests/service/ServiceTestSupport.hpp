#pragma once

#include "quillet_capture/config/Keychain.hpp"
#include "quillet_capture/runtime/Tasks.hpp"
#include "quillet_capture/service/VeldaneClient.hpp"

#include "tests/support/FakeClock.hpp"
#include "tests/support/FakeVeldane.hpp"
#include "tests/support/Scratch.hpp"

#include <asio/co_spawn.hpp>
#include <asio/use_future.hpp>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <future>

namespace quillet::test {

/// Runs `task` on the utility executor and waits for its result (or rethrows its error).
/// A task that does not finish within a minute is a hang: the test binary stops loudly.
template <typename T>
T await(asio::awaitable<T> task)
{
    auto future = asio::co_spawn(runtime::utilityExecutor(), std::move(task), asio::use_future);
    if (future.wait_for(std::chrono::seconds(60)) != std::future_status::ready) {
        std::fprintf(stderr, "an awaited task did not finish within 60 s\n");
        std::abort();
    }
    return future.get();
}

/// The error that `task` throws, as its exact type; fails the test when it throws nothing or
/// something else.
template <typename Error, typename T>
std::optional<Error> awaitError(asio::awaitable<T> task)
{
    try {
        await(std::move(task));
        ADD_FAILURE() << "expected an error, got a result";
    } catch (const Error& error) {
        return error;
    } catch (const std::exception& other) {
        ADD_FAILURE() << "unexpected error: " << other.what();
    }
    return std::nullopt;
}

/// A scratch home whose token store is the credentials file, a fake service, a clock in
/// virtual time, and a client with short time-outs that talks to the fake.
struct ServiceFixture : ::testing::Test {
    ScratchHome home;
    FakeVeldane fake;
    FakeClock clock;
    VeldaneClient client;

    static constexpr const char* kToken = "tok_0123456789abcdef";

    static VeldaneTimeouts quickTimeouts()
    {
        VeldaneTimeouts timeouts;
        timeouts.request = 2;
        timeouts.upload = 5;
        return timeouts;
    }

    ServiceFixture() : client(fake.baseURL(), clock, quickTimeouts())
    {
        setenv("QUILLET_TOKEN_STORE", "file", 1);
        EXPECT_TRUE(Keychain::setDeviceToken(std::string(kToken)));
    }

    using ClientError = VeldaneClient::ClientError;
    using Answer = FakeVeldane::Answer;
};

} // namespace quillet::test
