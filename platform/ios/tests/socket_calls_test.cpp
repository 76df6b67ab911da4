// The socket adapter's once-only completion of sends and receives, run on Linux.

#include "platform/ios/objc/src/socket_calls.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <optional>
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

using Kind = SocketCalls::Kind;

TEST(IosSocketCalls, ACallSettledByItsOwnCompletionIsNotFailedByTheEnd) {
    SocketCalls calls;
    int failed = 0;
    const auto send = idOf(calls.add(Kind::send, [&](std::exception_ptr) { ++failed; }));
    const auto receive = idOf(calls.add(Kind::receive, [&](std::exception_ptr) { ++failed; }));
    EXPECT_TRUE(calls.settle(send));
    EXPECT_FALSE(calls.settle(send));
    EXPECT_TRUE(calls.settle(receive));
    EXPECT_TRUE(calls.end(failure("gone")).empty());
    EXPECT_EQ(failed, 0);
}

TEST(IosSocketCalls, TheEndFailsSendsAtOnceAndLeavesReceivesToTheTaskForTheGrace) {
    SocketCalls calls;
    std::vector<std::string> seen;
    auto record = [&](const char* what) {
        return [&seen, what](std::exception_ptr e) { seen.push_back(what + messageOf(e)); };
    };
    const auto first = idOf(calls.add(Kind::send, record("first send: ")));
    const auto answered = idOf(calls.add(Kind::receive, record("answered: ")));
    const auto second = idOf(calls.add(Kind::send, record("second send: ")));
    const auto silent = idOf(calls.add(Kind::receive, record("silent: ")));

    EXPECT_EQ(calls.end(failure("connection lost")),
              (std::vector<std::uint64_t>{answered, silent}));
    EXPECT_EQ(seen, (std::vector<std::string>{"first send: connection lost",
                                              "second send: connection lost"}));
    EXPECT_FALSE(calls.settle(first));
    EXPECT_FALSE(calls.settle(second));

    // Foundation hands over a message it still held; the grace then finds nothing to expire.
    EXPECT_TRUE(calls.settle(answered));
    calls.expire(answered);
    // The other receive is never answered: the end's error stands in, once.
    calls.expire(silent);
    calls.expire(silent);
    EXPECT_FALSE(calls.settle(silent));
    EXPECT_EQ(seen.back(), "silent: connection lost");
    EXPECT_EQ(seen.size(), 3u);
}

TEST(IosSocketCalls, AfterTheEndASendGetsTheFirstEndsErrorAndAReceiveStillGoesToTheTask) {
    SocketCalls calls;
    calls.expire(idOf(calls.add(
        Kind::receive, [](std::exception_ptr) { ADD_FAILURE() << "expired before the end"; })));
    calls.end(failure("closed"));
    calls.end(failure("second end"));
    int failed = 0;
    auto send = calls.add(Kind::send, [&](std::exception_ptr) { ++failed; });
    ASSERT_TRUE(std::holds_alternative<std::exception_ptr>(send));
    EXPECT_EQ(messageOf(std::get<std::exception_ptr>(send)), "closed");

    std::string received;
    const auto receive = idOf(calls.add(Kind::receive, [&](auto e) { received = messageOf(e); }));
    EXPECT_TRUE(calls.end(failure("third end")).empty());
    calls.expire(receive);
    EXPECT_EQ(received, "closed");
    EXPECT_EQ(failed, 0);  // the caller completes the send; the registry never saw it
}

TEST(IosSocketCalls, AnExpiredReceiveMayCallStraightBackIn) {
    // The core re-arms its receive from inside the completion; that must not deadlock, and the
    // new receive is registered for the task to answer.
    SocketCalls calls;
    std::optional<std::uint64_t> rearmed;
    const auto receive = idOf(calls.add(Kind::receive, [&](std::exception_ptr) {
        rearmed = idOf(calls.add(Kind::receive, [](std::exception_ptr) {}));
    }));
    calls.end(failure("reset by peer"));
    calls.expire(receive);
    ASSERT_TRUE(rearmed);
    EXPECT_TRUE(calls.settle(*rearmed));
}

TEST(IosSocketCalls, ACompletionRacingTheEndOrTheGraceCompletesEachCallExactlyOnce) {
    for (int round = 0; round < 200; ++round) {
        SocketCalls calls;
        constexpr int kCalls = 8;
        std::atomic<int> completions[kCalls] = {};
        std::uint64_t ids[kCalls];
        for (int i = 0; i < kCalls; ++i) {
            const Kind kind = i % 2 == 0 ? Kind::send : Kind::receive;
            ids[i] =
                idOf(calls.add(kind, [&completions, i](std::exception_ptr) { ++completions[i]; }));
        }
        std::thread foundation([&] {
            for (int i = 0; i < kCalls; ++i) {
                if (calls.settle(ids[i])) ++completions[i];
            }
        });
        for (const std::uint64_t receive : calls.end(failure("gone"))) calls.expire(receive);
        foundation.join();
        for (int i = 0; i < kCalls; ++i) ASSERT_EQ(completions[i].load(), 1) << "call " << i;
    }
}

}  // namespace
}  // namespace virela::ios
