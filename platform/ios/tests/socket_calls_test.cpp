// The socket adapter's once-only completion of sends and receives, run on Linux.

#include "platform/ios/objc/src/socket_calls.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace virela::ios {
namespace {

std::string messageOf(const std::exception_ptr& error) {
    try {
        std::rethrow_exception(error);
    } catch (const std::exception& e) {
        return e.what();
    }
}

std::exception_ptr failure(const char* text) {
    return std::make_exception_ptr(std::runtime_error(text));
}

std::uint64_t idOf(const std::variant<std::uint64_t, std::exception_ptr>& call) {
    EXPECT_TRUE(std::holds_alternative<std::uint64_t>(call));
    return std::get<std::uint64_t>(call);
}

TEST(IosSocketCalls, ACallSettledByItsOwnCompletionIsNotFailedByTheEnd) {
    SocketCalls calls;
    int failed = 0;
    const auto id = idOf(calls.add([&](std::exception_ptr) { ++failed; }));
    EXPECT_TRUE(calls.settle(id));
    EXPECT_FALSE(calls.settle(id));
    calls.end(failure("gone"));
    EXPECT_EQ(failed, 0);
}

TEST(IosSocketCalls, TheEndFailsOutstandingCallsInOrderAndTheirLateCompletionIsDropped) {
    SocketCalls calls;
    std::vector<std::string> seen;
    const auto send = idOf(calls.add([&](auto e) { seen.push_back("send: " + messageOf(e)); }));
    const auto receive =
        idOf(calls.add([&](auto e) { seen.push_back("receive: " + messageOf(e)); }));
    calls.end(failure("connection lost"));
    EXPECT_EQ(seen,
              (std::vector<std::string>{"send: connection lost", "receive: connection lost"}));
    EXPECT_FALSE(calls.settle(send));
    EXPECT_FALSE(calls.settle(receive));
}

TEST(IosSocketCalls, AfterTheEndACallGetsTheFirstEndsErrorAndIsNotKept) {
    SocketCalls calls;
    calls.end(failure("closed"));
    calls.end(failure("second end"));
    int failed = 0;
    auto call = calls.add([&](std::exception_ptr) { ++failed; });
    ASSERT_TRUE(std::holds_alternative<std::exception_ptr>(call));
    EXPECT_EQ(messageOf(std::get<std::exception_ptr>(call)), "closed");
    calls.end(failure("third end"));
    EXPECT_EQ(failed, 0);  // the caller completes it; the registry never saw it
}

TEST(IosSocketCalls, AFailedCallMayCallStraightBackIn) {
    // The core re-arms its receive from inside the completion; that must neither deadlock nor
    // leave the new call waiting forever.
    SocketCalls calls;
    std::exception_ptr rearmed;
    idOf(calls.add([&](std::exception_ptr) {
        auto again = calls.add([](std::exception_ptr) { ADD_FAILURE() << "kept after the end"; });
        if (auto* error = std::get_if<std::exception_ptr>(&again)) rearmed = *error;
    }));
    calls.end(failure("reset by peer"));
    ASSERT_TRUE(rearmed);
    EXPECT_EQ(messageOf(rearmed), "reset by peer");
}

TEST(IosSocketCalls, ACompletionRacingTheEndCompletesEachCallExactlyOnce) {
    for (int round = 0; round < 200; ++round) {
        SocketCalls calls;
        constexpr int kCalls = 8;
        std::atomic<int> completions[kCalls] = {};
        std::uint64_t ids[kCalls];
        for (int i = 0; i < kCalls; ++i) {
            ids[i] = idOf(calls.add([&completions, i](std::exception_ptr) { ++completions[i]; }));
        }
        std::thread foundation([&] {
            for (int i = 0; i < kCalls; ++i) {
                if (calls.settle(ids[i])) ++completions[i];
            }
        });
        calls.end(failure("gone"));
        foundation.join();
        for (int i = 0; i < kCalls; ++i) ASSERT_EQ(completions[i].load(), 1) << "call " << i;
    }
}

}  // namespace
}  // namespace virela::ios
