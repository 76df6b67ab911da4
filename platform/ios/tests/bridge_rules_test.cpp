// The small decisions of the iOS adapters that do not need Foundation, run on Linux.

#include "platform/ios/objc/src/bridge_rules.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace virela::ios {
namespace {

TEST(IosDelayNanoseconds, ConvertsSecondsToNanoseconds) {
    EXPECT_EQ(delayNanoseconds(1.5), 1'500'000'000);
    EXPECT_EQ(delayNanoseconds(1.0 / 3.0), 333'333'333);
    EXPECT_EQ(delayNanoseconds(25), 25'000'000'000);
}

TEST(IosDelayNanoseconds, ANegativeZeroOrNaNDelayRunsAtOnce) {
    EXPECT_EQ(delayNanoseconds(0), 0);
    EXPECT_EQ(delayNanoseconds(-3), 0);
    EXPECT_EQ(delayNanoseconds(std::nan("")), 0);
    EXPECT_EQ(delayNanoseconds(-std::numeric_limits<double>::infinity()), 0);
}

TEST(IosDelayNanoseconds, ADelayBeyondTheClocksRangeNeverComesDue) {
    EXPECT_EQ(delayNanoseconds(std::numeric_limits<double>::infinity()), std::nullopt);
    EXPECT_EQ(delayNanoseconds(1e300), std::nullopt);
    // 2^63 ns is the first value that no longer fits; just below it still does.
    EXPECT_EQ(delayNanoseconds(9223372036.854775808), std::nullopt);
    const auto justBelow = delayNanoseconds(9223372036.0);
    ASSERT_TRUE(justBelow.has_value());
    EXPECT_EQ(*justBelow, 9'223'372'036'000'000'000);
}

TEST(IosCustomEnvironment, KeepsAnAbsoluteBaseURLUnchanged) {
    auto environment = customEnvironment("http://127.0.0.1:8080/staging/");
    ASSERT_TRUE(environment.has_value());
    EXPECT_FALSE(environment->isLive());
    EXPECT_EQ(environment->url().str(), "http://127.0.0.1:8080/staging/");
}

TEST(IosCustomEnvironment, RefusesWhatRequestPathsCannotBeResolvedAgainst) {
    EXPECT_FALSE(customEnvironment("staging/api").has_value());  // no scheme
    EXPECT_FALSE(customEnvironment("").has_value());
    EXPECT_FALSE(customEnvironment("http://exa mple.com").has_value());
}

TEST(IosSocketState, FollowsTheTaskStateAndReadsAnUnknownOneAsCompleted) {
    EXPECT_EQ(socketStateOf(task_state::running), SocketState::running);
    EXPECT_EQ(socketStateOf(task_state::suspended), SocketState::suspended);
    EXPECT_EQ(socketStateOf(task_state::canceling), SocketState::canceling);
    EXPECT_EQ(socketStateOf(task_state::completed), SocketState::completed);
    // Never running: the core would keep sending on it instead of opening a new socket.
    EXPECT_EQ(socketStateOf(4), SocketState::completed);
    EXPECT_EQ(socketStateOf(-1), SocketState::completed);
}

}  // namespace
}  // namespace virela::ios
