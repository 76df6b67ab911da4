// The realtime channel with a hand-driven socket and clock.

#include <gtest/gtest.h>

#include "core/base/errors.hpp"
#include "core/client/client.hpp"
#include "core/ports/manual_clock.hpp"
#include "tests/support/fake_platform.hpp"

namespace virela {
namespace {

using testing::FakePlatform;
using testing::FakeSocket;

constexpr const char* kRegistered =
    R"({"deviceId":"d1","deviceToken":"tok-1","supportCode":"111-222","consentCopy":"c",)"
    R"("captureMode":"AskEveryTime","isTest":true})";

// "consent r1", "live s9": the type and id of a push the channel decoded.
std::string describe(const Push& push) {
    const std::string id = std::visit(
        [](const auto& p) -> std::string {
            if constexpr (requires { std::string(p.sessionId); })
                return p.sessionId;
            else if constexpr (requires { std::string(p.requestId); })
                return p.requestId;
            else
                return "";
        },
        push);
    return std::string(pushType(push)) + (id.empty() ? "" : " " + id);
}

class ChannelTest : public ::testing::Test {
  protected:
    void SetUp() override {
        client->channel().setEvents(
            {.onPush = [this](const Push& push) { seen.push_back(describe(push)); }});
        client->setCallbacks(
            {.onDenied = [this] { ++denied; }, .onExpired = [this] { ++expired; }});
        fake.http->reply("/v1/sdk/devices", 200, kRegistered);
        client->configure(*Url::parse("https://backend.test/api/v2/"), "k", std::nullopt, false,
                          [](std::exception_ptr) {});
        drain();
        ASSERT_EQ(fake.sockets.size(), 1u);
    }
    void drain() { fake.executor->drain(); }
    FakeSocket& current() { return *fake.sockets.back(); }
    void push(const std::string& text) {
        current().deliver(SocketMessage::text(text));
        drain();
    }
    void failCurrent() {
        current().fail();
        drain();
    }
    void open() {
        current().delegate.lock()->socketDidOpen(current(), "virela.device.tok-1");
        drain();
    }

    FakePlatform fake;
    std::shared_ptr<ManualClock> clock = std::make_shared<ManualClock>();
    std::shared_ptr<VirelaClient> client = VirelaClient::create(fake.platform, {clock, {}});
    std::vector<std::string> seen;  // every push decoded, in order
    int expired = 0;
    int denied = 0;
};

TEST_F(ChannelTest, ConnectsWithTheCredentialAndBeatsEvery25Seconds) {
    EXPECT_EQ(current().url.str(), "wss://backend.test/sdk/socket");
    EXPECT_EQ(current().protocols, std::vector<std::string>{"virela.device.tok-1"});
    EXPECT_EQ(current().state(), SocketState::running);
    EXPECT_TRUE(current().receiving());

    clock->advance(24.9);
    EXPECT_TRUE(current().sent.empty());
    clock->advance(25.2);
    EXPECT_EQ(current().sent, (std::vector<std::string>{"ping", "ping"}));
}

TEST_F(ChannelTest, BacksOffWithoutLimitAndOpenResetsTheCount) {
    for (int i = 0; i < 7; ++i) {
        failCurrent();
        EXPECT_TRUE(clock->isScheduled(TimerId::reconnect));
        EXPECT_FALSE(clock->isScheduled(TimerId::heartbeat));
        client->channel().scheduleReconnect();  // already pending: nothing new
        clock->advance(30);
        drain();
    }
    EXPECT_EQ(clock->requestedDelays(), (std::vector<double>{1, 2, 4, 8, 16, 30, 30}));
    EXPECT_EQ(fake.sockets.size(), 8u);

    open();
    failCurrent();
    EXPECT_EQ(clock->requestedDelays().back(), 1);
}

TEST_F(ChannelTest, ReplacedSocketDiesQuietly) {
    auto old = fake.sockets.back();
    old->setState(SocketState::completed);
    client->channel().onEnterForeground();  // not running: connect at once
    ASSERT_EQ(fake.sockets.size(), 2u);
    EXPECT_EQ(old->closeCode, 1000);

    old->deliver(SocketMessage::text(R"({"type":"denied","payload":{}})"));
    old->fail();
    drain();
    EXPECT_EQ(denied, 0);
    EXPECT_FALSE(clock->isScheduled(TimerId::reconnect));
    EXPECT_EQ(old->receiveCalls, 1);
}

TEST_F(ChannelTest, StopClosesNormallyAndBlocksEveryReconnect) {
    auto socket = fake.sockets.back();
    client->stop();
    drain();
    EXPECT_EQ(socket->closeCode, 1000);
    EXPECT_FALSE(clock->isScheduled(TimerId::heartbeat));

    client->channel().scheduleReconnect();
    client->channel().onEnterForeground();
    fake.lifecycle->send(AppEvent::willEnterForeground);
    clock->advance(100);
    drain();
    EXPECT_EQ(fake.sockets.size(), 1u);
    EXPECT_FALSE(clock->isScheduled(TimerId::reconnect));

    // A new configure lifts the block.
    fake.http->reply("/v1/sdk/devices", 200, kRegistered);
    client->configure(*Url::parse("http://backend.test"), "k", std::nullopt, false,
                      [](std::exception_ptr) {});
    drain();
    ASSERT_EQ(fake.sockets.size(), 2u);
    EXPECT_EQ(current().url.str(), "ws://backend.test/sdk/socket");
}

TEST_F(ChannelTest, ReconfiguringDropsARetryLeftFromBefore) {
    failCurrent();
    ASSERT_TRUE(clock->isScheduled(TimerId::reconnect));
    fake.http->reply("/v1/sdk/devices", 200, kRegistered);
    client->configure(*Url::parse("https://backend.test"), "k", std::nullopt, false,
                      [](std::exception_ptr) {});
    drain();
    EXPECT_FALSE(clock->isScheduled(TimerId::reconnect));
    clock->advance(60);
    drain();
    EXPECT_EQ(fake.sockets.size(), 2u);
}

TEST_F(ChannelTest, ForegroundSaysSoOnAnOpenSocketAndReconnectsOtherwise) {
    failCurrent();
    clock->advance(1);
    drain();
    failCurrent();  // attempts now 2, a retry pending in 2 s
    ASSERT_TRUE(clock->isScheduled(TimerId::reconnect));

    fake.lifecycle->send(AppEvent::willEnterForeground);
    drain();
    EXPECT_EQ(fake.sockets.size(), 3u);  // connected at once
    EXPECT_FALSE(clock->isScheduled(TimerId::reconnect));

    fake.lifecycle->send(AppEvent::willEnterForeground);
    drain();
    EXPECT_EQ(fake.sockets.size(), 3u);
    EXPECT_EQ(current().sent.back(), R"({"type":"state","state":"foreground"})");
}

TEST_F(ChannelTest, BackgroundTaskEndsOnceTheStateIsSent) {
    current().holdSends = true;
    fake.lifecycle->send(AppEvent::didEnterBackground);
    drain();
    EXPECT_EQ(current().sent.back(), R"({"type":"state","state":"background"})");
    EXPECT_TRUE(fake.lifecycle->ended.empty());
    current().completeSend(std::make_exception_ptr(NetworkError(NetworkError::Kind::other, "x")));
    drain();
    EXPECT_EQ(fake.lifecycle->ended, fake.lifecycle->begun);

    client->stop();
    drain();
    fake.lifecycle->send(AppEvent::didEnterBackground);  // observers are gone after stop
    client->channel().onEnterBackground();               // no socket: left to its expiry
    drain();
    EXPECT_EQ(fake.lifecycle->begun.size(), 2u);
    EXPECT_EQ(fake.lifecycle->ended.size(), 1u);
}

TEST_F(ChannelTest, AHandlerThatThrowsStopsNeitherRoutingNorReconnection) {
    client->setCallbacks({.onDenied = [] { throw std::runtime_error("host bug"); },
                          .onExpired = [this] { ++expired; }});
    push(R"({"type":"denied","payload":{}})");
    push(R"({"type":"expired","payload":{}})");
    EXPECT_EQ(expired, 1);
    EXPECT_TRUE(current().receiving());
    ASSERT_FALSE(fake.log->lines.empty());
    EXPECT_EQ(fake.log->lines.back().second, "push handling failed: denied — host bug");

    failCurrent();  // the server's close is still noticed
    EXPECT_TRUE(clock->isScheduled(TimerId::reconnect));
}

TEST_F(ChannelTest, RoutesInArrivalOrderAndActsOnExpiredDeniedAndSession) {
    push(
        R"({"type":"consent","payload":{"requestId":"r1","mode":"PerSession","consentCopy":"c","expiresAt":"2026-01-01T00:00:00Z"}})");
    push(R"({"type":"expired"})");  // no payload: dropped
    push(R"({"type":"expired","payload":{}})");
    push(R"({"type":"denied","payload":[]})");
    push(R"({"type":"denied","payload":null})");
    push("not json at all");
    push(R"({"type":"live","payload":{"sessionId":"s9","state":"active","generation":"7"}})");
    current().deliver(SocketMessage::binary("\x01\x02"));
    drain();
    push(R"({"type":"session","payload":{"state":"ended"}})");
    clock->advance(120);

    EXPECT_EQ(seen,
              (std::vector<std::string>{"consent r1", "expired", "denied", "live s9", "session"}));
    EXPECT_EQ(expired, 1);
    EXPECT_EQ(denied, 1);
    // Nothing that failed to decode touched the connection.
    EXPECT_FALSE(current().closeCode);
    EXPECT_TRUE(current().receiving());
    EXPECT_EQ(fake.sockets.size(), 1u);

    push(R"({"type":"capture","payload":{"requestId":"r2"}})");
    EXPECT_EQ(seen.back(), "capture r2");
}

}  // namespace
}  // namespace virela
