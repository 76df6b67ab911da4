// The local backend over real loopback sockets, spoken to byte by byte so that what the server
// records and answers is checked without any HTTP client in between.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <latch>
#include <memory>
#include <mutex>
#include <optional>
#include <regex>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "tools/devserver/server.hpp"

namespace {

using nlohmann::json;
using virela::devserver::Header;
using virela::devserver::Options;
using virela::devserver::QueuedReply;
using virela::devserver::Server;
using virela::devserver::SocketEvent;
using namespace std::chrono_literals;

struct RawReply {
    int status = 0;
    std::string head;  // status line and headers
    std::string body;
};

struct Frame {
    int opcode = 0;  // 1 text, 2 binary, 8 close, 9 ping, 10 pong
    std::string payload;

    int closeCode() const {
        return payload.size() < 2 ? 0
                                  : (static_cast<unsigned char>(payload[0]) << 8) |
                                        static_cast<unsigned char>(payload[1]);
    }
};

// One TCP connection to the server; reads replies framed by Content-Length.
class Connection {
  public:
    explicit Connection(std::uint16_t port) : fd_(::socket(AF_INET, SOCK_STREAM, 0)) {
        timeval timeout{5, 0};
        ::setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (::connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
            throw std::runtime_error("connect failed");
        }
    }
    ~Connection() { ::close(fd_); }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    void send(const std::string& bytes) {
        ASSERT_EQ(::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(bytes.size()));
    }

    // nullopt when the server closed the connection before a whole reply arrived.
    std::optional<RawReply> read() {
        std::size_t headEnd;
        while ((headEnd = buffer_.find("\r\n\r\n")) == std::string::npos) {
            if (!fill()) return std::nullopt;
        }
        RawReply reply;
        reply.head = buffer_.substr(0, headEnd);
        reply.status = std::stoi(reply.head.substr(9, 3));
        std::smatch length;
        const std::regex lengthHeader("\r\nContent-Length: (\\d+)", std::regex::icase);
        const std::size_t size =
            std::regex_search(reply.head, length, lengthHeader) ? std::stoul(length[1]) : 0;
        while (buffer_.size() < headEnd + 4 + size) {
            if (!fill()) return std::nullopt;
        }
        reply.body = buffer_.substr(headEnd + 4, size);
        buffer_.erase(0, headEnd + 4 + size);
        return reply;
    }

    // Everything the server writes until it closes the connection.
    std::string readUntilClosed() {
        while (fill()) {
        }
        return std::exchange(buffer_, {});
    }

    // True only for an end of stream, not for a read that timed out.
    bool closedByPeer() { return buffer_.empty() && !fill() && closed_; }

    // One masked WebSocket frame, as a client must send it.
    void sendFrame(int opcode, const std::string& payload, bool fin = true) {
        std::string frame(1, static_cast<char>((fin ? 0x80 : 0) | opcode));
        const std::size_t size = payload.size();
        if (size < 126) {
            frame += static_cast<char>(0x80 | size);
        } else if (size < 65536) {
            frame += static_cast<char>(0x80 | 126);
            frame += static_cast<char>(size >> 8);
            frame += static_cast<char>(size);
        } else {
            frame += static_cast<char>(0x80 | 127);
            for (int shift = 56; shift >= 0; shift -= 8) frame += static_cast<char>(size >> shift);
        }
        const std::string mask = "\x12\x34\x56\x78";
        frame += mask;
        for (std::size_t i = 0; i < size; ++i) frame += static_cast<char>(payload[i] ^ mask[i % 4]);
        send(frame);
    }

    // The next whole message, fragments joined, or a control frame; nullopt once the server
    // has closed the connection or nothing came within the timeout.
    std::optional<Frame> readMessage() {
        Frame message;
        for (;;) {
            std::optional<Frame> frame;
            bool fin = false;
            while (!(frame = takeFrame(fin))) {
                if (!fill()) return std::nullopt;
            }
            if (frame->opcode >= 8) return frame;
            if (frame->opcode != 0) message.opcode = frame->opcode;
            message.payload += frame->payload;
            if (fin) return message;
        }
    }

  private:
    bool fill() {
        char chunk[65536];
        const ssize_t n = ::recv(fd_, chunk, sizeof chunk, 0);
        if (n == 0 || (n < 0 && errno == ECONNRESET)) closed_ = true;
        if (n <= 0) return false;
        buffer_.append(chunk, static_cast<std::size_t>(n));
        return true;
    }

    // A server frame (never masked) from the front of the buffer, once it is all there.
    std::optional<Frame> takeFrame(bool& fin) {
        if (buffer_.size() < 2) return std::nullopt;
        auto byte = [&](std::size_t i) { return static_cast<unsigned char>(buffer_[i]); };
        std::size_t size = byte(1) & 0x7f;
        std::size_t header = 2;
        if (size >= 126) {
            header = size == 126 ? 4 : 10;
            if (buffer_.size() < header) return std::nullopt;
            size = 0;
            for (std::size_t i = 2; i < header; ++i) size = (size << 8) | byte(i);
        }
        if (buffer_.size() < header + size) return std::nullopt;
        fin = (byte(0) & 0x80) != 0;
        Frame frame{byte(0) & 0x0f, buffer_.substr(header, size)};
        buffer_.erase(0, header + size);
        return frame;
    }

    int fd_;
    std::string buffer_;
    bool closed_ = false;
};

std::string post(const std::string& path, const std::string& body,
                 const std::string& headers = "") {
    return "POST " + path + " HTTP/1.1\r\nHost: 127.0.0.1\r\n" + headers +
           "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

std::optional<RawReply> roundTrip(std::uint16_t port, const std::string& request) {
    Connection connection(port);
    connection.send(request);
    return connection.read();
}

json errorOf(const std::optional<RawReply>& reply) {
    return reply ? json::parse(reply->body, nullptr, false) : json();
}

std::optional<std::string> headerOf(const RawReply& reply, const std::string& name) {
    std::smatch value;
    if (!std::regex_search(reply.head, value, std::regex("\r\n" + name + ": ([^\r]*)"))) {
        return std::nullopt;
    }
    return value[1];
}

// The key of the handshake example in RFC 6455, whose accept value is known.
const std::string kSocketKey = "dGhlIHNhbXBsZSBub25jZQ==";
const std::string kSocketAccept = "s3pPLMBiTxaQ9kYGzzhZRbK+xOo=";

std::string upgrade(const std::string& extraHeaders) {
    return "GET /sdk/socket HTTP/1.1\r\nHost: 127.0.0.1\r\nUpgrade: websocket\r\n"
           "Connection: Upgrade\r\nSec-WebSocket-Key: " +
           kSocketKey + "\r\nSec-WebSocket-Version: 13\r\n" + extraHeaders + "\r\n";
}

std::string offering(const std::string& token) {
    return "Sec-WebSocket-Protocol: virela.device." + token + "\r\n";
}

class DevServerTest : public ::testing::Test {
  protected:
    void SetUp() override { server.start(); }

    // Registers and returns the reply body.
    json registerDevice(const std::string& installId) {
        auto reply =
            roundTrip(server.port(), post("/v1/sdk/devices", json{{"installId", installId}}.dump(),
                                          "X-Virela-Key: vk_demo_local\r\n"));
        EXPECT_TRUE(reply && reply->status == 200);
        return reply ? json::parse(reply->body) : json();
    }

    Server server;
};

TEST_F(DevServerTest, RegistrationChecksTheKeyAndRecordsTheRequestAsSent) {
    const std::string body = R"({"installId":"inst-1","userId":null,"screenSize":"1170 × 2532"})";
    auto refused =
        roundTrip(server.port(), post("/v1/sdk/devices", body, "X-Virela-Key: wrong\r\n"));
    ASSERT_TRUE(refused);
    EXPECT_EQ(refused->status, 401);
    EXPECT_EQ(errorOf(refused)["error"], "invalid_key");

    server.clearRequests();
    const std::string request = post("/v1/sdk/devices", body,
                                     "x-virela-KEY: vk_demo_local\r\nX-Trace: a\r\n"
                                     "Content-Type: application/json\r\nX-Trace: b\r\n");
    auto accepted = roundTrip(server.port(), request);
    ASSERT_TRUE(accepted);
    ASSERT_EQ(accepted->status, 200);
    const json reply = json::parse(accepted->body);
    EXPECT_EQ(reply["deviceId"].get<std::string>().rfind("dev_", 0), 0u);
    EXPECT_FALSE(reply["deviceToken"].get<std::string>().empty());
    EXPECT_TRUE(
        std::regex_match(reply["supportCode"].get<std::string>(), std::regex("[0-9]{3}-[0-9]{3}")));
    EXPECT_EQ(reply["captureMode"], "AskEveryTime");
    EXPECT_EQ(reply["isTest"], true);
    EXPECT_TRUE(reply["consentCopy"].is_string());

    auto recorded = server.requests("/v1/sdk/devices");
    ASSERT_EQ(recorded.size(), 1u);
    EXPECT_EQ(recorded[0].method, "POST");
    EXPECT_EQ(recorded[0].body, body);
    const std::vector<Header> expected{
        {"Host", "127.0.0.1"}, {"x-virela-KEY", "vk_demo_local"},
        {"X-Trace", "a"},      {"Content-Type", "application/json"},
        {"X-Trace", "b"},      {"Content-Length", std::to_string(body.size())}};
    EXPECT_EQ(recorded[0].headers, expected);

    // The same install registering again is the same device with one more valid token.
    const json again = registerDevice("inst-1");
    EXPECT_EQ(again["deviceId"], reply["deviceId"]);
    EXPECT_NE(again["deviceToken"], reply["deviceToken"]);
    EXPECT_NE(registerDevice("inst-2")["supportCode"], reply["supportCode"]);
    auto device = server.device(reply["deviceToken"].get<std::string>());
    ASSERT_TRUE(device);
    EXPECT_EQ(device->token, again["deviceToken"]);
    EXPECT_EQ(device->installId, "inst-1");
    EXPECT_EQ(server.devices().size(), 2u);
}

TEST_F(DevServerTest, DeviceEndpointsAreAuthorisedByTheTokenAlone) {
    const json registration = registerDevice("inst-1");
    const std::string token = registration["deviceToken"];
    const std::string auth = "X-Virela-Device: " + token + "\r\n";
    const std::string identify = R"({"id":"u-7","name":"Ana","phone":null})";

    auto noToken = roundTrip(server.port(), post("/v1/sdk/devices/identify", identify,
                                                 "X-Virela-Key: vk_demo_local\r\n"));
    ASSERT_TRUE(noToken);
    EXPECT_EQ(noToken->status, 401);
    EXPECT_EQ(errorOf(noToken)["error"], "unauthorized");
    auto tokenNoKey = roundTrip(server.port(), post("/v1/sdk/devices", "{}", auth));
    ASSERT_TRUE(tokenNoKey);
    EXPECT_EQ(tokenNoKey->status, 401);

    auto identified = roundTrip(server.port(), post("/v1/sdk/devices/identify", identify,
                                                    auth + "X-Virela-Key: vk_demo_local\r\n"));
    ASSERT_TRUE(identified);
    EXPECT_EQ(identified->status, 200);
    auto reset = roundTrip(server.port(), post("/v1/sdk/devices/reset", "{}", auth));
    ASSERT_TRUE(reset);
    ASSERT_EQ(reset->status, 200);
    const std::string code = json::parse(reset->body)["supportCode"];
    EXPECT_NE(code, registration["supportCode"]);
    const std::string health = R"({"battery":"85%","network":null})";
    auto reported = roundTrip(server.port(), post("/v1/sdk/devices/health", health, auth));
    ASSERT_TRUE(reported);
    EXPECT_EQ(reported->status, 200);

    auto device = server.device(code);
    ASSERT_TRUE(device);
    EXPECT_EQ(device->deviceId, registration["deviceId"]);
    ASSERT_TRUE(device->user);
    EXPECT_EQ(device->user->id, "u-7");
    EXPECT_EQ(device->user->name, "Ana");
    EXPECT_EQ(device->user->phone, std::nullopt);
    EXPECT_EQ(device->lastHealth, health);

    auto notObject = roundTrip(server.port(), post("/v1/sdk/devices/health", "[1]", auth));
    auto wrongMethod = roundTrip(server.port(), "GET /v1/sdk/devices/reset HTTP/1.1\r\n\r\n");
    auto unknown = roundTrip(server.port(), post("/v1/sdk/nothing", "{}", auth));
    ASSERT_TRUE(notObject && wrongMethod && unknown);
    EXPECT_EQ(notObject->status, 400);
    EXPECT_EQ(errorOf(notObject)["error"], "bad_request");
    EXPECT_EQ(wrongMethod->status, 405);
    EXPECT_EQ(unknown->status, 404);
    EXPECT_EQ(errorOf(unknown)["error"], "not_found");

    // A report nested 30,000 deep (60 KB, within the size a report may have) is refused
    // unparsed; the backend carries on.
    const std::string deep = "{\"a\":" + std::string(30'000, '[') + std::string(30'000, ']') + "}";
    auto tooDeep = roundTrip(server.port(), post("/v1/sdk/devices/health", deep, auth));
    ASSERT_TRUE(tooDeep);
    EXPECT_EQ(tooDeep->status, 400);
    EXPECT_EQ(errorOf(tooDeep)["error"], "bad_request");
    const std::string limit = "{\"a\":" + std::string(63, '[') + std::string(63, ']') + "}";
    EXPECT_EQ(roundTrip(server.port(), post("/v1/sdk/devices/health", limit, auth))->status, 200);
    EXPECT_EQ(server.device(code)->lastHealth, limit);
}

TEST_F(DevServerTest, QueuedRepliesAndClosesReplaceTheNextRequestsInOrder) {
    const std::string path = "/v1/sdk/devices/reset";
    server.queueReply(path, {502, "<html><body>Bad gateway</body></html>", "text/html"});
    server.queueReply(path, {204, "", ""});
    server.queueClose(path);

    Connection connection(server.port());
    connection.send(post(path, "{}"));
    auto html = connection.read();
    ASSERT_TRUE(html);
    EXPECT_EQ(html->status, 502);
    EXPECT_EQ(html->body, "<html><body>Bad gateway</body></html>");
    EXPECT_NE(html->head.find("Content-Type: text/html"), std::string::npos);

    // Same connection: keep-alive survives a canned reply, and a 204 carries nothing at all.
    connection.send(post(path, "{}"));
    auto empty = connection.read();
    ASSERT_TRUE(empty);
    EXPECT_EQ(empty->status, 204);
    EXPECT_EQ(empty->head.find("Content-Type"), std::string::npos);
    EXPECT_EQ(empty->head.find("Content-Length"), std::string::npos);

    connection.send(post(path, "{}"));
    EXPECT_FALSE(connection.read());

    auto normal = roundTrip(server.port(), post(path, "{}"));
    ASSERT_TRUE(normal);
    EXPECT_EQ(normal->status, 401);
    EXPECT_EQ(server.requests(path).size(), 4u);
}

// What the fuzzer drives: the same bytes without a socket get the very bytes a connection
// writes, request after pipelined request, up to the one that ends the connection.
TEST_F(DevServerTest, BytesAnsweredWithoutASocketGetWhatAConnectionWrites) {
    const std::string token = registerDevice("inst-1")["deviceToken"];
    const std::string bytes =
        post("/v1/sdk/devices/health", R"({"battery":1})", "X-Virela-Device: " + token + "\r\n") +
        post("/v1/sdk/devices/health", "{}") + "PUT /v1/sdk/devices HTTP/1.1\r\n\r\n" +
        "GET /nowhere HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\n" + "BROKEN\r\n\r\n" +
        "GET /assets/logo.png HTTP/1.1\r\n\r\n";
    Connection connection(server.port());
    connection.send(bytes);
    const std::string written = connection.readUntilClosed();
    EXPECT_EQ(server.answerBytes(bytes), written);
    std::vector<int> statuses;
    for (std::size_t at = 0; (at = written.find("HTTP/1.1 ", at)) != std::string::npos; at += 9) {
        statuses.push_back(std::stoi(written.substr(at + 9, 3)));
    }
    EXPECT_EQ(statuses, (std::vector<int>{200, 401, 405, 404, 400}));
    server.stop();
    EXPECT_EQ(server.answerBytes(bytes), "");
}

TEST_F(DevServerTest, SurvivesBrokenClientsAndRestartsOnTheSamePort) {
    auto garbage = roundTrip(server.port(), std::string("\x16\x03\x01\x00garbage\0\r\n\r\n", 16));
    ASSERT_TRUE(garbage);
    EXPECT_EQ(garbage->status, 400);
    auto huge = roundTrip(server.port(), post("/v1/sdk/devices", "{}",
                                              "X-Huge: " + std::string(200'000, 'h') + "\r\n"));
    ASSERT_TRUE(huge);
    EXPECT_EQ(huge->status, 431);
    {
        Connection halfway(server.port());
        halfway.send("POST /v1/sdk/devices HTTP/1.1\r\nContent-Length: 100\r\n\r\n{\"inst");
    }
    const std::string token = registerDevice("inst-1")["deviceToken"];

    const std::uint16_t port = server.port();
    Connection idle(port);
    server.stop();
    server.stop();
    EXPECT_TRUE(idle.closedByPeer());
    EXPECT_EQ(server.port(), 0);
    Options again;
    again.port = port;
    server.start(again);
    EXPECT_EQ(server.url(), "http://127.0.0.1:" + std::to_string(port));
    auto afterRestart =
        roundTrip(port, post("/v1/sdk/devices/reset", "{}", "X-Virela-Device: " + token + "\r\n"));
    ASSERT_TRUE(afterRestart);
    EXPECT_EQ(afterRestart->status, 200);

    Server other;
    Options outside;
    outside.host = "0.0.0.0";
    EXPECT_THROW(other.start(outside), std::invalid_argument);
}

// The same backend with the devices' sockets, watching the events it reports.
class SocketTest : public DevServerTest {
  protected:
    void SetUp() override { server.start(recording()); }
    // The server's callback reaches into this fixture, so it must stop before the fixture goes.
    void TearDown() override { server.stop(); }

    Options recording(std::uint16_t port = 0) {
        Options options;
        options.port = port;
        options.consoleToken = consoleToken;
        options.trafficLog = trafficLog;
        options.leaseGraceSeconds = leaseSeconds.first;
        options.leaseSeconds = leaseSeconds.second;
        options.onSocketEvent = [this](const SocketEvent& event) {
            std::lock_guard lock(mutex_);
            events_.push_back(event);
            changed_.notify_all();
        };
        return options;
    }

    bool sawEvent(SocketEvent::Kind kind, const std::string& deviceId, int closeCode = 0) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, 5s, [&] {
            return std::any_of(events_.begin(), events_.end(), [&](const SocketEvent& event) {
                return event.kind == kind && event.deviceId == deviceId &&
                       event.closeCode == closeCode;
            });
        });
    }

    std::unique_ptr<Connection> openSocket(const std::string& token) {
        auto socket = std::make_unique<Connection>(server.port());
        socket->send(upgrade(offering(token)));
        auto reply = socket->read();
        EXPECT_TRUE(reply && reply->status == 101) << (reply ? reply->head : "no reply");
        return socket;
    }

    std::optional<std::string> consoleToken;
    std::string trafficLog;
    // The grace for a lease's first confirmation and the time each confirmation holds.
    std::pair<double, double> leaseSeconds{5, 15};

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<SocketEvent> events_;
};

TEST_F(SocketTest, UpgradeIsRefusedBeforeTheHandshakeUnlessAnIssuedTokenIsOffered) {
    const json registration = registerDevice("inst-1");
    const std::string token = registration["deviceToken"];
    const std::string deviceId = registration["deviceId"];

    for (const std::string& headers :
         {std::string(), offering("0123456789"), offering(deviceId),
          "X-Virela-Device: " + token + "\r\n", "Sec-WebSocket-Protocol: " + token + "\r\n"}) {
        auto refused = roundTrip(server.port(), upgrade(headers));
        ASSERT_TRUE(refused) << headers;
        EXPECT_EQ(refused->status, 401) << headers;
        EXPECT_EQ(errorOf(refused)["error"], "unauthorized");
        EXPECT_FALSE(headerOf(*refused, "Sec-WebSocket-Accept"));
    }
    // With the credential right, a broken handshake is still answered in JSON.
    std::string noKey = upgrade(offering(token));
    noKey.erase(noKey.find("Sec-WebSocket-Key"),
                noKey.find("Sec-WebSocket-Version") - noKey.find("Sec-WebSocket-Key"));
    auto broken = roundTrip(server.port(), noKey);
    ASSERT_TRUE(broken);
    EXPECT_EQ(broken->status, 400);
    EXPECT_EQ(errorOf(broken)["error"], "bad_request");
    EXPECT_EQ(server.connectionsAccepted(token), 0u);
    EXPECT_FALSE(server.connected(deviceId));

    Connection socket(server.port());
    socket.send(upgrade("Sec-WebSocket-Protocol: chat, virela.device.nope\r\n" + offering(token)));
    auto accepted = socket.read();
    ASSERT_TRUE(accepted);
    EXPECT_EQ(accepted->status, 101);
    EXPECT_EQ(headerOf(*accepted, "Sec-WebSocket-Protocol"), "virela.device." + token);
    EXPECT_EQ(headerOf(*accepted, "Sec-WebSocket-Accept"), kSocketAccept);
    EXPECT_TRUE(server.waitForConnection(token, 5s));
    EXPECT_TRUE(sawEvent(SocketEvent::Kind::connected, deviceId));
    EXPECT_EQ(server.connectionsAccepted(deviceId), 1u);

    auto recorded = server.requests("/sdk/socket");
    ASSERT_EQ(recorded.size(), 7u);
    EXPECT_EQ(recorded.back().method, "GET");
    EXPECT_EQ(recorded.back().header("sec-websocket-protocol"), "chat, virela.device.nope");
}

TEST_F(SocketTest, PushesReachTheDeviceAndItsTextFramesAreKeptInOrder) {
    const json registration = registerDevice("inst-1");
    const std::string token = registration["deviceToken"];
    const std::string deviceId = registration["deviceId"];
    const std::string idle = registerDevice("inst-2")["deviceToken"];
    EXPECT_FALSE(server.pushText(idle, "{}"));
    EXPECT_FALSE(server.pushText("dev_unknown", "{}"));

    auto socket = openSocket(token);
    ASSERT_TRUE(server.waitForConnection(deviceId, 5s));
    const std::string consent = R"({"type":"consent","payload":{"requestId":"r-1"}})";
    const std::string large(200'000, 'x');
    EXPECT_TRUE(server.pushText(token, consent));
    EXPECT_TRUE(server.pushBinary(deviceId, std::string("\0\x01\xff", 3)));
    EXPECT_TRUE(server.pushText(deviceId, large));
    auto first = socket->readMessage();
    auto second = socket->readMessage();
    auto third = socket->readMessage();
    ASSERT_TRUE(first && second && third);
    EXPECT_EQ(first->opcode, 1);
    EXPECT_EQ(first->payload, consent);
    EXPECT_EQ(second->opcode, 2);
    EXPECT_EQ(second->payload, std::string("\0\x01\xff", 3));
    EXPECT_EQ(third->payload, large);

    socket->sendFrame(1, "ping");
    socket->sendFrame(9, "beat");
    auto pong = socket->readMessage();
    ASSERT_TRUE(pong);
    EXPECT_EQ(pong->opcode, 10);
    EXPECT_EQ(pong->payload, "beat");
    socket->sendFrame(2, "binary is not kept");
    socket->sendFrame(1, R"({"type":"state",)", false);
    socket->sendFrame(0, R"("state":"background"})");
    socket->sendFrame(1, "ping");
    ASSERT_TRUE(server.waitForFrames(deviceId, 3, 5s));
    const std::vector<std::string> expected{"ping", R"({"type":"state","state":"background"})",
                                            "ping"};
    EXPECT_EQ(server.framesFrom(token), expected);
    EXPECT_TRUE(sawEvent(SocketEvent::Kind::binary, deviceId));
    EXPECT_TRUE(server.framesFrom(idle).empty());
}

TEST_F(SocketTest, ANewerSocketReplacesTheOlderOneOfTheSameDevice) {
    const json registration = registerDevice("inst-1");
    const std::string deviceId = registration["deviceId"];
    const std::string laterToken = registerDevice("inst-1")["deviceToken"];

    auto older = openSocket(registration["deviceToken"]);
    ASSERT_TRUE(server.waitForConnection(deviceId, 5s));
    auto newer = openSocket(laterToken);
    ASSERT_TRUE(server.waitForConnection(deviceId, 5s, 2));

    auto close = older->readMessage();
    ASSERT_TRUE(close);
    EXPECT_EQ(close->opcode, 8);
    EXPECT_EQ(close->closeCode(), virela::devserver::kReplacedCloseCode);
    // The server closes the TCP connection first and waits for ours before it is done.
    older->sendFrame(8, close->payload.substr(0, 2));
    EXPECT_TRUE(older->closedByPeer());
    older.reset();
    EXPECT_TRUE(sawEvent(SocketEvent::Kind::closed, deviceId, 4000));

    EXPECT_TRUE(server.connected(deviceId));
    EXPECT_EQ(server.connectionsAccepted(deviceId), 2u);
    EXPECT_TRUE(server.pushText(deviceId, "to the newer"));
    auto pushed = newer->readMessage();
    ASSERT_TRUE(pushed);
    EXPECT_EQ(pushed->payload, "to the newer");
}

TEST_F(SocketTest, DropCloseAndRefusalEndOrKeepOutSockets) {
    const json registration = registerDevice("inst-1");
    const std::string token = registration["deviceToken"];
    const std::string deviceId = registration["deviceId"];

    auto dropped = openSocket(token);
    ASSERT_TRUE(server.waitForConnection(deviceId, 5s));
    server.dropConnection(token);
    EXPECT_FALSE(server.connected(deviceId));
    EXPECT_FALSE(server.pushText(deviceId, "too late"));
    EXPECT_FALSE(dropped->readMessage());  // no close frame, just the end of the stream
    EXPECT_TRUE(dropped->closedByPeer());
    EXPECT_TRUE(sawEvent(SocketEvent::Kind::closed, deviceId, 1006));

    server.refuseConnections(1h);
    auto refused = roundTrip(server.port(), upgrade(offering(token)));
    ASSERT_TRUE(refused);
    EXPECT_EQ(refused->status, 503);
    EXPECT_EQ(errorOf(refused)["error"], "unavailable");
    EXPECT_EQ(server.connectionsAccepted(deviceId), 1u);
    server.refuseConnections(0ms);

    auto closed = openSocket(token);
    ASSERT_TRUE(server.waitForConnection(deviceId, 5s, 2));
    EXPECT_THROW(server.closeConnection(deviceId, 1006), std::invalid_argument);
    EXPECT_TRUE(server.pushText(deviceId, "last words"));
    server.closeConnection(deviceId, 4010);
    EXPECT_FALSE(server.connected(deviceId));
    auto last = closed->readMessage();
    auto close = closed->readMessage();
    ASSERT_TRUE(last && close);
    EXPECT_EQ(last->payload, "last words");
    EXPECT_EQ(close->opcode, 8);
    EXPECT_EQ(close->closeCode(), 4010);
    closed->sendFrame(8, close->payload.substr(0, 2));
    EXPECT_TRUE(closed->closedByPeer());
    closed.reset();
    EXPECT_TRUE(sawEvent(SocketEvent::Kind::closed, deviceId, 4010));
}

TEST_F(SocketTest, StopClosesSocketsAndTheOldTokenConnectsAfterARestart) {
    const json registration = registerDevice("inst-1");
    const std::string token = registration["deviceToken"];
    const std::string deviceId = registration["deviceId"];
    auto before = openSocket(token);
    before->sendFrame(1, "ping");
    ASSERT_TRUE(server.waitForFrames(deviceId, 1, 5s));

    const std::uint16_t port = server.port();
    server.stop();
    EXPECT_TRUE(before->closedByPeer());
    EXPECT_FALSE(server.connected(deviceId));
    EXPECT_FALSE(server.pushText(deviceId, "nobody"));
    EXPECT_TRUE(sawEvent(SocketEvent::Kind::closed, deviceId, 1006));

    server.start(recording(port));
    auto after = openSocket(token);
    ASSERT_TRUE(server.waitForConnection(deviceId, 5s, 2));
    after->sendFrame(1, R"({"type":"state","state":"foreground"})");
    ASSERT_TRUE(server.waitForFrames(deviceId, 2, 5s));
    EXPECT_EQ(server.framesFrom(deviceId).front(), "ping");
    EXPECT_TRUE(server.pushText(token, "again"));
    auto pushed = after->readMessage();
    ASSERT_TRUE(pushed);
    EXPECT_EQ(pushed->payload, "again");
}

TEST_F(SocketTest, BrokenAndSlowSocketClientsDoNotDisturbOthers) {
    std::vector<std::string> tokens;
    for (const char* install : {"unmasked", "oversized", "cut", "slow", "healthy"}) {
        tokens.push_back(registerDevice(install)["deviceToken"]);
    }

    auto unmasked = openSocket(tokens[0]);
    unmasked->send(std::string("\x81\x04ping", 6));
    auto protocolError = unmasked->readMessage();
    ASSERT_TRUE(protocolError);
    EXPECT_EQ(protocolError->closeCode(), 1002);

    auto oversized = openSocket(tokens[1]);
    // A text frame announcing 2 MiB, past the server's limit for a message.
    oversized->send(std::string("\x81\xff\x00\x00\x00\x00\x00\x20\x00\x00", 10) + "abcd");
    auto tooBig = oversized->readMessage();
    ASSERT_TRUE(tooBig);
    EXPECT_EQ(tooBig->closeCode(), 1009);

    {
        auto cut = openSocket(tokens[2]);
        // 100 bytes announced, a few sent, then the connection goes.
        cut->send(std::string("\x81\xe4") + "abcd" + "only part");
        Connection halfHandshake(server.port());
        halfHandshake.send("GET /sdk/socket HTTP/1.1\r\nHost: 127.0.0.1\r\nUpgrade: web");
    }

    // Nobody reads this socket; what is pushed to it piles up without holding anyone else.
    auto slow = openSocket(tokens[3]);
    ASSERT_TRUE(server.waitForConnection(tokens[3], 5s));
    for (int i = 0; i < 16; ++i) EXPECT_TRUE(server.pushText(tokens[3], std::string(1 << 20, 's')));

    auto healthy = openSocket(tokens[4]);
    ASSERT_TRUE(server.waitForConnection(tokens[4], 5s));
    EXPECT_TRUE(server.pushText(tokens[4], "still here"));
    auto pushed = healthy->readMessage();
    ASSERT_TRUE(pushed);
    EXPECT_EQ(pushed->payload, "still here");
    healthy->sendFrame(1, "ping");
    EXPECT_TRUE(server.waitForFrames(tokens[4], 1, 5s));
    EXPECT_TRUE(server.framesFrom(tokens[0]).empty());
    EXPECT_TRUE(server.framesFrom(tokens[2]).empty());
}

// Seconds from now until an ISO 8601 UTC time with milliseconds; nullopt for another shape.
std::optional<double> secondsUntil(const std::string& text) {
    static const std::regex shape(R"(\d{4}-\d{2}-\d{2}T\d{2}:\d{2}:\d{2}\.\d{3}Z)");
    if (!std::regex_match(text, shape)) return std::nullopt;
    std::tm utc{};
    int millis = 0;
    std::sscanf(text.c_str(), "%d-%d-%dT%d:%d:%d.%dZ", &utc.tm_year, &utc.tm_mon, &utc.tm_mday,
                &utc.tm_hour, &utc.tm_min, &utc.tm_sec, &millis);
    utc.tm_year -= 1900;
    utc.tm_mon -= 1;
    const auto at =
        std::chrono::system_clock::from_time_t(timegm(&utc)) + std::chrono::milliseconds(millis);
    return std::chrono::duration<double>(at - std::chrono::system_clock::now()).count();
}

const std::string kPng = std::string("\x89PNG\r\n\x1a\n", 8) + std::string("\0\r\n--\xff IEND", 11);

std::string filePart(const std::string& boundary, const std::string& name, const std::string& data,
                     const std::string& type = "image/png") {
    return "--" + boundary + "\r\nContent-Disposition: form-data; name=\"" + name +
           "\"; filename=\"capture.png\"\r\nContent-Type: " + type + "\r\n\r\n" + data + "\r\n";
}

// A device with its socket open, ready to be asked for screenshots.
class ScreenshotTest : public SocketTest {
  protected:
    void SetUp() override {
        SocketTest::SetUp();
        const json registration = registerDevice("inst-1");
        token = registration["deviceToken"];
        deviceId = registration["deviceId"];
        auth = "X-Virela-Device: " + token + "\r\n";
        socket = openSocket(token);
        ASSERT_TRUE(server.waitForConnection(deviceId, 5s));
    }

    json nextPush() {
        auto message = socket->readMessage();
        return message ? json::parse(message->payload, nullptr, false) : json();
    }

    std::optional<RawReply> upload(const std::string& requestId, const std::string& contentType,
                                   const std::string& body) {
        return roundTrip(server.port(), post("/v1/sdk/captures/" + requestId + "/upload", body,
                                             auth + "Content-Type: " + contentType + "\r\n"));
    }

    std::string token, deviceId, auth;
    std::unique_ptr<Connection> socket;
};

TEST_F(ScreenshotTest, PushesCarryDefaultsOrTheGivenFieldsAndTheRequestsAreRemembered) {
    const std::string idle = registerDevice("inst-2")["deviceToken"];
    EXPECT_FALSE(server.askScreenshot(idle));
    EXPECT_FALSE(server.sendCapture(idle, "r-1"));
    EXPECT_TRUE(server.captureRequests().empty());

    auto asked = server.askScreenshot(token);
    ASSERT_TRUE(asked);
    auto sent = socket->readMessage();
    ASSERT_TRUE(sent);
    EXPECT_EQ(sent->payload, asked->push);
    const json payload = json::parse(asked->push)["payload"];
    EXPECT_EQ(json::parse(asked->push)["type"], "consent");
    EXPECT_EQ(payload["requestId"], asked->requestId);
    EXPECT_EQ(payload["promptId"], asked->promptId);
    EXPECT_EQ(asked->requestId.rfind("req_", 0), 0u);
    EXPECT_EQ(asked->promptId.rfind("prm_", 0), 0u);
    EXPECT_EQ(payload["mode"], "AskEveryTime");
    EXPECT_EQ(payload["consentCopy"], Options().consentCopy);
    EXPECT_FALSE(payload.contains("agentName") || payload.contains("workspaceName") ||
                 payload.contains("logoUrl"));
    auto expiresIn = secondsUntil(payload["expiresAt"]);
    ASSERT_TRUE(expiresIn) << payload["expiresAt"];
    EXPECT_NEAR(*expiresIn, 60, 5);

    virela::devserver::ScreenshotRequest given;
    given.mode = "Sometimes";
    given.consentCopy = "May we look?";
    given.agentName = "Sam";
    given.workspaceName = "Acme";
    given.logoUrl = server.logoUrl();
    given.expiresAt = "2030-01-01T00:00:00.000Z";
    given.promptId = "";
    given.requestId = "r-7";
    // One question at a time: the next waits for the customer's answer to the first.
    EXPECT_FALSE(server.askScreenshot(deviceId, given));
    EXPECT_EQ(roundTrip(server.port(), post("/v1/sdk/captures/" + asked->requestId + "/respond",
                                            R"({"allow":false})", auth))
                  ->status,
              200);
    auto custom = server.askScreenshot(deviceId, given);
    ASSERT_TRUE(custom);
    EXPECT_EQ(nextPush(), json::parse(R"({"type":"consent","payload":{"requestId":"r-7",
        "promptId":"","mode":"Sometimes","consentCopy":"May we look?","agentName":"Sam",
        "workspaceName":"Acme","logoUrl":")" +
                                      server.url() + R"(/assets/logo.png",
        "expiresAt":"2030-01-01T00:00:00.000Z"}})"));
    EXPECT_NE(server.askScreenshot(token)->requestId, asked->requestId);
    nextPush();

    // Another image needs a call the customer allowed.
    EXPECT_FALSE(server.sendCapture(token, "r-7"));
    EXPECT_FALSE(server.sendCapture(token, "invented"));
    EXPECT_TRUE(server.sendExpired(token));
    EXPECT_TRUE(server.sendDenied(token));
    EXPECT_EQ(nextPush(), json::parse(R"({"type":"expired","payload":{}})"));
    EXPECT_EQ(nextPush(), json::parse(R"({"type":"denied","payload":{}})"));

    auto records = server.captureRequests();
    ASSERT_EQ(records.size(), 3u);
    EXPECT_EQ(records[0].requestId, asked->requestId);
    EXPECT_EQ(records[1].requestId, "r-7");
    EXPECT_EQ(records[1].mode, "Sometimes");
    EXPECT_EQ(records[1].promptId, "");
}

TEST_F(ScreenshotTest, RespondRecordsTheAnswerAndAnAllowedPerSessionRequestGetsASession) {
    virela::devserver::ScreenshotRequest perSession;
    perSession.mode = "PerSession";
    // With expiries of the test's own making, which the backend does not track, so that the
    // two questions may wait side by side.
    perSession.expiresAt = "2030-01-01T00:00:00.000Z";
    const auto session = server.askScreenshot(token, perSession);
    const auto once = server.askScreenshot(token, {.expiresAt = perSession.expiresAt});
    ASSERT_TRUE(session && once);
    auto respond = [&](const std::string& requestId, const std::string& body,
                       const std::string& headers) {
        auto reply = roundTrip(server.port(),
                               post("/v1/sdk/captures/" + requestId + "/respond", body, headers));
        EXPECT_TRUE(reply);
        return reply ? std::make_pair(reply->status, json::parse(reply->body, nullptr, false))
                     : std::make_pair(0, json());
    };

    auto shown = roundTrip(server.port(),
                           post("/v1/sdk/prompts/" + session->promptId + "/shown", "{}", auth));
    ASSERT_TRUE(shown);
    EXPECT_EQ(json::parse(shown->body), json::parse(R"({"ok":true})"));
    EXPECT_TRUE(server.captureRequest(session->requestId)->promptShown);
    EXPECT_FALSE(server.captureRequest(once->requestId)->promptShown);

    auto [status, allowed] = respond(session->requestId, R"({"allow":true})", auth);
    EXPECT_EQ(status, 200);
    EXPECT_EQ(allowed["status"], "Allowed");
    auto sessionLeft = secondsUntil(allowed.value("sessionExpiresAt", ""));
    ASSERT_TRUE(sessionLeft) << allowed;
    EXPECT_NEAR(*sessionLeft, 45 * 60, 5);
    ASSERT_TRUE(server.waitForAnswer(session->requestId, 5s));
    EXPECT_EQ(server.captureRequest(session->requestId)->answer, true);
    EXPECT_EQ(server.captureRequest(session->requestId)->sessionExpiresAt,
              allowed["sessionExpiresAt"]);

    // Inside the allowed call the agent may take another image without asking.
    EXPECT_FALSE(server.sendCapture(token, once->requestId));
    nextPush();
    nextPush();
    EXPECT_TRUE(server.sendCapture(token, session->requestId));
    EXPECT_EQ(nextPush(), json::parse(R"({"type":"capture","payload":{"requestId":")" +
                                      session->requestId + R"("}})"));

    server.setRespondStatus("AllowedOnce");
    EXPECT_EQ(respond(once->requestId, R"({"allow":true})", auth).second,
              json::parse(R"({"status":"AllowedOnce"})"));
    EXPECT_FALSE(server.sendCapture(token, once->requestId));
    EXPECT_EQ(respond(session->requestId, R"({"allow":false})", auth).second,
              json::parse(R"({"status":"Denied"})"));
    EXPECT_FALSE(server.sendCapture(token, session->requestId));
    EXPECT_EQ(server.captureRequest(session->requestId)->answer, false);
    EXPECT_FALSE(server.captureRequest(session->requestId)->sessionExpiresAt);
    EXPECT_EQ(respond("never-asked", R"({"allow":true})", auth).first, 200);
    EXPECT_EQ(server.captureRequest("never-asked")->mode, "");
    EXPECT_FALSE(server.waitForAnswer("nobody", 20ms));

    for (const char* body : {"", "[true]", "{}", R"({"allow":"yes"})", R"({"allow":1})"}) {
        auto [code, error] = respond(once->requestId, body, auth);
        EXPECT_EQ(code, 400) << body;
        EXPECT_EQ(error["error"], "bad_request") << body;
    }
    for (const std::string path :
         {"/v1/sdk/prompts/p/shown", "/v1/sdk/captures/r/respond", "/v1/sdk/captures/r/upload"}) {
        auto refused = roundTrip(
            server.port(), post(path, R"({"allow":true})", "X-Virela-Device: not-a-token\r\n"));
        ASSERT_TRUE(refused);
        EXPECT_EQ(refused->status, 401) << path;
        EXPECT_EQ(errorOf(refused)["error"], "unauthorized");
    }
    EXPECT_FALSE(server.captureRequest("r"));

    // A queued reply still stands in for the endpoint, which then records nothing.
    const std::string path = "/v1/sdk/captures/" + once->requestId + "/respond";
    server.queueReply(path, {503, R"({"error":"unavailable"})"});
    EXPECT_EQ(respond(once->requestId, R"({"allow":false})", auth).first, 503);
    EXPECT_EQ(server.captureRequest(once->requestId)->answer, true);
    EXPECT_EQ(server.requests(path).size(), 7u);
}

TEST_F(ScreenshotTest, AnUploadIsStoredAndServedAtItsLink) {
    const auto asked = server.askScreenshot(token);
    ASSERT_TRUE(asked);
    const std::string boundary = "virela-1234";
    const std::string body = "preamble to skip\r\n--" + boundary +
                             "\r\nContent-Disposition: form-data; name=\"note\"\r\n\r\nhi\r\n" +
                             filePart(boundary, "file", kPng) + "--" + boundary + "--\r\n";
    const std::string type = "Multipart/Form-Data; charset=utf-8; boundary=\"" + boundary + "\"";
    // An image the customer has not allowed is refused and not kept.
    auto early = upload(asked->requestId, type, body);
    ASSERT_TRUE(early);
    EXPECT_EQ(early->status, 409);
    EXPECT_EQ(errorOf(early)["error"], "not_allowed");
    EXPECT_FALSE(server.captureRequest(asked->requestId)->captureId);
    ASSERT_EQ(roundTrip(server.port(), post("/v1/sdk/captures/" + asked->requestId + "/respond",
                                            R"({"allow":true})", auth))
                  ->status,
              200);
    auto stored = upload(asked->requestId, type, body);
    ASSERT_TRUE(stored);
    ASSERT_EQ(stored->status, 200) << stored->body;
    // Allowed once is one image.
    EXPECT_EQ(upload(asked->requestId, type, body)->status, 409);
    const json reply = json::parse(stored->body);
    const std::string captureId = reply["captureId"];
    EXPECT_TRUE(std::regex_match(captureId, std::regex("cap_[0-9a-f]{16}")));
    EXPECT_EQ(reply["imageUrl"], server.url() + "/captures/" + captureId + ".png");

    ASSERT_TRUE(server.waitForUpload(asked->requestId, 5s));
    auto record = server.captureRequest(asked->requestId);
    EXPECT_EQ(record->captureId, captureId);
    EXPECT_EQ(record->imageUrl, reply["imageUrl"]);
    EXPECT_EQ(record->png, kPng);
    EXPECT_EQ(record->uploadContentType, "image/png");
    EXPECT_EQ(record->uploadFileName, "capture.png");

    auto get = [&](const std::string& path) {
        return roundTrip(server.port(), "GET " + path + " HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n");
    };
    auto image = get("/captures/" + captureId + ".png");
    ASSERT_TRUE(image);
    EXPECT_EQ(image->status, 200);
    EXPECT_EQ(image->body, kPng);
    EXPECT_EQ(headerOf(*image, "Content-Type"), "image/png");
    EXPECT_EQ(get("/captures/" + captureId)->status, 404);
    EXPECT_EQ(get("/captures/cap_999.png")->status, 404);

    EXPECT_EQ(server.logoUrl(), server.url() + "/assets/logo.png");
    auto logo = get("/assets/logo.png");
    ASSERT_TRUE(logo);
    EXPECT_EQ(logo->status, 200);
    EXPECT_EQ(headerOf(*logo, "Content-Type"), "image/png");
    EXPECT_EQ(logo->body.substr(0, 16), std::string("\x89PNG\r\n\x1a\n\0\0\0\x0dIHDR", 16));
}

TEST_F(ScreenshotTest, UploadsWithoutAWholeFormAndAPngFilePartAreRefused) {
    const std::string type = "multipart/form-data; boundary=b0";
    const std::string whole = filePart("b0", "file", kPng) + "--b0--\r\n";
    const std::vector<std::pair<std::string, std::string>> refused{
        {"multipart/form-data", whole},
        {"multipart/form-data; boundary=", whole},
        {"image/png", kPng},
        {type, filePart("b0", "other", kPng) + "--b0--"},
        {type, filePart("b0", "file", "GIF89a" + kPng) + "--b0--"},
        {type, "--b0\r\nContent-Type: image/png\r\n\r\n" + kPng + "\r\n--b0--"},
        {type, std::string(kPng)},
    };
    for (const auto& [contentType, body] : refused) {
        auto reply = upload("r-1", contentType, body);
        ASSERT_TRUE(reply);
        EXPECT_EQ(reply->status, 400) << contentType << '\n' << body;
        EXPECT_EQ(errorOf(reply)["error"], "bad_request");
    }

    // Every cut short of the closing delimiter is a truncated body; the final CRLF is optional.
    // The call is allowed, so that whole bodies are kept, as many as come.
    virela::devserver::ScreenshotRequest call;
    call.mode = "PerSession";
    call.requestId = "r-1";
    ASSERT_TRUE(server.askScreenshot(token, call));
    ASSERT_EQ(
        roundTrip(server.port(), post("/v1/sdk/captures/r-1/respond", R"({"allow":true})", auth))
            ->status,
        200);
    Connection connection(server.port());
    for (std::size_t size = 0; size <= whole.size(); ++size) {
        connection.send(post("/v1/sdk/captures/r-1/upload", whole.substr(0, size),
                             auth + "Content-Type: " + type + "\r\n"));
        auto reply = connection.read();
        ASSERT_TRUE(reply);
        EXPECT_EQ(reply->status, size >= whole.size() - 2 ? 200 : 400) << size;
    }
    EXPECT_EQ(server.captureRequests().size(), 1u);
}

// A device with its socket open, watched live.
// The traffic log, as the check of docs/protocol reads it: device routes and the socket as they
// went, a multipart body as its framing whatever its shape, everything else named skipped.
class TrafficTest : public ScreenshotTest {
  protected:
    TrafficTest() {
        consoleToken = kConsole;
        trafficLog = (std::filesystem::temp_directory_path() /
                      ("virela-traffic-" + std::to_string(::getpid()) + ".jsonl"))
                         .string();
        std::filesystem::remove(trafficLog);
    }
    ~TrafficTest() override { std::filesystem::remove(trafficLog); }

    std::vector<json> lines() const {
        std::ifstream in(trafficLog);
        std::vector<json> parsed;
        for (std::string line; std::getline(in, line);) parsed.push_back(json::parse(line));
        return parsed;
    }
    static json find(const std::vector<json>& lines, const json& like) {
        for (const json& line : lines) {
            if (std::all_of(like.items().begin(), like.items().end(), [&](const auto& item) {
                    return line.value(item.key(), json()) == item.value();
                })) {
                return line;
            }
        }
        return json();
    }

    static constexpr const char* kConsole = "0123456789abcdef0123456789abcdef";
};

TEST_F(TrafficTest, DeviceRoutesAndTheSocketAreRecordedAsTheyWentAndTheRestIsSkipped) {
    // Bytes before the first part, two parts, no final delimiter.
    ASSERT_TRUE(upload("r1", "multipart/form-data; boundary=b1",
                       "junk\r\n" + filePart("b1", "file", kPng) + filePart("b1", "more", "x")));
    ASSERT_TRUE(roundTrip(server.port(), "GET /console/api/state?token=" + std::string(kConsole) +
                                             " HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n"));
    ASSERT_TRUE(roundTrip(server.port(), "GET /assets/logo.png HTTP/1.1\r\nHost: x\r\n\r\n"));
    ASSERT_TRUE(server.pushText(deviceId, "{not json"));
    ASSERT_TRUE(server.askScreenshot(deviceId));
    socket->sendFrame(1, "ping");
    ASSERT_TRUE(server.waitForFrames(deviceId, 1, 5s));
    server.stop();

    const auto all = lines();
    const json registration = find(all, {{"t", "http"}, {"path", "/v1/sdk/devices"}});
    EXPECT_EQ(registration["headers"], (json{{"x-virela-key", {"vk_demo_local"}}}));
    EXPECT_EQ(json::parse(registration["reply"]["body"].get<std::string>())["deviceToken"], token);

    const json form = find(all, {{"t", "http"}, {"path", "/v1/sdk/captures/r1/upload"}});
    EXPECT_EQ(form["status"], 400);
    EXPECT_EQ(form["headers"]["x-virela-device"], json{token});
    const json& framing = form["multipart"];
    EXPECT_EQ(framing["preamble"], "junk\r\n");
    EXPECT_EQ(framing["closed"], false);
    ASSERT_EQ(framing["parts"].size(), 2u);
    EXPECT_EQ(framing["parts"][0]["head"],
              "Content-Disposition: form-data; name=\"file\"; filename=\"capture.png\"\r\n"
              "Content-Type: image/png");
    EXPECT_EQ(framing["parts"][0]["size"], kPng.size());
    EXPECT_EQ(framing["parts"][0]["magic"], "89504e470d0a1a0a");
    EXPECT_FALSE(form.contains("body"));

    // The console's token stays out of the log: skipped requests are named by path alone.
    EXPECT_EQ(find(all, {{"t", "skipped"}, {"scope", "console"}})["path"], "/console/api/state");
    EXPECT_EQ(find(all, {{"t", "skipped"}, {"scope", "other"}})["path"], "/assets/logo.png");

    const json opened = find(all, {{"t", "upgrade"}});
    EXPECT_EQ(opened["protocols"], json{"virela.device." + token});
    EXPECT_EQ(opened["status"], 101);
    EXPECT_EQ(opened["chosen"], "virela.device." + token);
    EXPECT_EQ(find(all, {{"t", "ws"}, {"dir", "out"}, {"data", "{not json"}})["crafted"], true);
    EXPECT_FALSE(find(all, {{"t", "ws"}, {"dir", "out"}, {"crafted", json()}}).is_null());
    EXPECT_FALSE(find(all, {{"t", "ws"}, {"dir", "in"}, {"data", "ping"}}).is_null());
    EXPECT_EQ(find(all, {{"t", "ws"}, {"event", "closed"}})["code"], 1006);
}

class LiveTest : public ScreenshotTest {
  protected:
    std::optional<RawReply> postLive(const std::string& sessionId, const std::string& what,
                                     const std::string& body, const std::string& headers) {
        return roundTrip(server.port(),
                         post("/v1/sdk/live/" + sessionId + "/" + what, body, auth + headers));
    }

    std::optional<RawReply> sendFrame(const std::string& sessionId, const std::string& jpeg) {
        return postLive(sessionId, "frame", filePart("b1", "file", jpeg) + "--b1--\r\n",
                        "Content-Type: multipart/form-data; boundary=b1\r\n");
    }

    std::optional<RawReply> confirm(const std::string& sessionId, const std::string& kind,
                                    const std::string& generation) {
        return postLive(sessionId, "indicator",
                        json{{"kind", kind}, {"generation", generation}}.dump(), "");
    }

    std::optional<RawReply> get(const std::string& path) {
        return roundTrip(server.port(), "GET " + path + " HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n");
    }

    // A session the customer allowed, so that its frames are taken.
    std::string allowedSession() {
        auto requested = server.requestLive(token);
        EXPECT_TRUE(requested);
        if (!requested) return {};
        auto allowed = postLive(requested->sessionId, "respond", R"({"allow":true})", "");
        EXPECT_TRUE(allowed && allowed->status == 200);
        return requested->sessionId;
    }
};

std::string repeated(const std::string& text, int times) {
    std::string out;
    for (int i = 0; i < times; ++i) out += text;
    return out;
}

std::string jpeg(char tag) {
    return std::string("\xff\xd8\xff\xe0\0\x10JFIF", 10) + tag + "\xff\xd9";
}

TEST_F(LiveTest, PushesCarryTheSessionAndWhatTheDeviceReportsIsRecorded) {
    auto requested = server.requestLive(token);
    ASSERT_TRUE(requested);
    const json push = nextPush();
    EXPECT_EQ(push, json::parse(requested->push));
    EXPECT_EQ(push["type"], "live");
    EXPECT_EQ(push["payload"]["sessionId"], requested->sessionId);
    EXPECT_EQ(push["payload"]["state"], "requested");
    EXPECT_EQ(push["payload"]["promptId"], requested->promptId);
    // Without a copy of its own the device shows its default one.
    EXPECT_FALSE(push["payload"].contains("consentCopy"));
    EXPECT_TRUE(secondsUntil(push["payload"].value("expiresAt", "")));
    // Prompt ids are shared with the screenshot flow, so a report never lands on both.
    EXPECT_NE(server.askScreenshot(token)->promptId, requested->promptId);
    nextPush();

    const std::string session = requested->sessionId;
    EXPECT_TRUE(server.activateLive(token, session, "g-1"));
    EXPECT_EQ(nextPush(), json::parse(R"({"type":"live","payload":{"sessionId":")" + session +
                                      R"(","state":"active","generation":"g-1"}})"));
    virela::devserver::LiveNote note;
    note.kind = "recordingStarted";
    note.generation = "r-1";
    auto noted = server.sendLiveNote(deviceId, session, note);
    ASSERT_TRUE(noted);
    EXPECT_EQ(nextPush(), json::parse(R"({"type":"live-note","payload":{"sessionId":")" + session +
                                      R"(","kind":"recordingStarted","promptId":")" +
                                      noted->promptId + R"(","generation":"r-1"}})"));
    virela::devserver::Guide guide;
    guide.kind = "arrow";
    guide.x = 0.25;
    guide.y2 = 1;
    guide.text = "here";
    EXPECT_TRUE(server.sendGuide(token, session, guide));
    EXPECT_EQ(nextPush(), json::parse(R"({"type":"guide","payload":{"sessionId":")" + session +
                                      R"(","kind":"arrow","x":0.25,"y2":1.0,"text":"here"}})"));

    for (const std::string& prompt : {requested->promptId, noted->promptId}) {
        auto shown =
            roundTrip(server.port(), post("/v1/sdk/prompts/" + prompt + "/shown", "{}", auth));
        ASSERT_TRUE(shown);
        EXPECT_EQ(shown->status, 200);
        EXPECT_TRUE(server.waitForLivePromptShown(session, prompt, 5s));
    }
    auto allowed = postLive(session, "respond", R"({"allow":true})", "");
    ASSERT_TRUE(allowed);
    EXPECT_EQ(json::parse(allowed->body), json::parse(R"({"status":"Allowed"})"));
    EXPECT_EQ(postLive(session, "respond", R"({"allow":"yes"})", "")->status, 400);
    ASSERT_TRUE(server.waitForLiveAnswer(session, 5s));
    auto record = server.liveSession(session);
    ASSERT_TRUE(record);
    EXPECT_EQ(record->deviceId, deviceId);
    EXPECT_EQ(record->state, "active");
    EXPECT_EQ(record->generation, "g-1");
    EXPECT_EQ(record->answers, std::vector<bool>{true});
    EXPECT_EQ(record->promptsShown.size(), 2u);

    // Only "view" messages count, the device's unescaped quote included.
    socket->sendFrame(1, "ping");
    socket->sendFrame(1, R"({"type":"view","kind":"scroll","sessionId":"s"1"})");
    socket->sendFrame(1, R"({"type":"state","state":"background"})");
    socket->sendFrame(1, R"({"sessionId":"s-2","kind":"nav","type":"view"})");
    ASSERT_TRUE(server.waitForViewChanges(deviceId, 2, 5s));
    const auto views = server.viewChanges(token);
    ASSERT_EQ(views.size(), 2u);
    EXPECT_EQ(views[0].kind, "scroll");
    EXPECT_EQ(views[0].sessionId, "s\"1");
    EXPECT_EQ(views[1].kind, "nav");
    EXPECT_EQ(views[1].sessionId, "s-2");
}

TEST_F(LiveTest, FramesAreKeptServedAndCountedUntilTheSessionEnds) {
    const std::string session = allowedSession();
    auto unknown = sendFrame("live_999", jpeg('a'));
    ASSERT_TRUE(unknown);
    EXPECT_EQ(unknown->status, 404);
    // Another device's session is not this device's to stream to.
    const std::string other = registerDevice("inst-2")["deviceToken"];
    auto foreign = roundTrip(
        server.port(),
        post("/v1/sdk/live/" + session + "/frame", filePart("b1", "file", jpeg('a')) + "--b1--\r\n",
             "X-Virela-Device: " + other +
                 "\r\nContent-Type: multipart/form-data; boundary=b1\r\n"));
    ASSERT_TRUE(foreign);
    EXPECT_EQ(foreign->status, 404);
    EXPECT_EQ(get(server.liveFrameUrl(session).substr(server.url().size()))->status, 404);

    for (char tag : {'a', 'b', 'c'}) {
        auto stored = sendFrame(session, jpeg(tag));
        ASSERT_TRUE(stored);
        EXPECT_EQ(stored->status, 200) << stored->body;
        EXPECT_EQ(stored->body, "{}");
        std::this_thread::sleep_for(100ms);
    }
    ASSERT_TRUE(server.waitForLiveFrames(session, 3, 5s));
    auto record = server.liveSession(session);
    EXPECT_EQ(record->frames, 3u);
    EXPECT_EQ(record->latestFrame, jpeg('c'));
    EXPECT_EQ(record->frameUrl, server.url() + "/live/" + session + "/latest.jpg");
    // At least 100 ms lie between the frames, so the rate cannot pass 10 a second.
    EXPECT_GT(record->frameRate, 2);
    EXPECT_LE(record->frameRate, 10.01);

    auto latest = get("/live/" + session + "/latest.jpg");
    ASSERT_TRUE(latest);
    EXPECT_EQ(latest->status, 200);
    EXPECT_EQ(latest->body, jpeg('c'));
    EXPECT_EQ(headerOf(*latest, "Content-Type"), "image/jpeg");

    server.endLive(token, session);
    auto gone = sendFrame(session, jpeg('d'));
    ASSERT_TRUE(gone);
    EXPECT_EQ(gone->status, 410);
    EXPECT_EQ(errorOf(gone)["error"], "session_ended");
    EXPECT_EQ(server.liveSession(session)->frames, 3u);
    EXPECT_EQ(get("/live/" + session + "/latest.jpg")->body, jpeg('c'));

    // The customer's stop ends a session just as the backend's end does.
    const std::string stopped = allowedSession();
    EXPECT_EQ(sendFrame(stopped, jpeg('e'))->status, 200);
    EXPECT_EQ(postLive(stopped, "respond", R"({"allow":false})", "")->status, 200);
    EXPECT_EQ(sendFrame(stopped, jpeg('f'))->status, 410);
    EXPECT_EQ(server.liveSession(stopped)->answers, (std::vector<bool>{true, false}));
}

TEST_F(LiveTest, AStalledBackendHoldsFramesUntilItRecoversAndKeepsNoneOfThem) {
    const std::string session = allowedSession();
    server.stallFrames(400ms);
    const auto start = std::chrono::steady_clock::now();
    auto held = sendFrame(session, jpeg('a'));
    ASSERT_TRUE(held);
    EXPECT_GE(std::chrono::steady_clock::now() - start, 350ms);
    EXPECT_EQ(held->status, 503);
    EXPECT_EQ(server.liveSession(session)->frames, 0u);

    auto recovered = sendFrame(session, jpeg('b'));
    ASSERT_TRUE(recovered);
    EXPECT_EQ(recovered->status, 200);
    EXPECT_EQ(server.liveSession(session)->latestFrame, jpeg('b'));
}

TEST_F(LiveTest, FramesWithoutAWholeFormAndAJpegFilePartAreRefused) {
    const std::string session = allowedSession();
    const std::string type = "multipart/form-data; boundary=b0";
    const std::vector<std::pair<std::string, std::string>> refused{
        {"image/jpeg", jpeg('a')},
        {type, filePart("b0", "other", jpeg('a')) + "--b0--"},
        {type, filePart("b0", "file", kPng) + "--b0--"},
        {type, filePart("b0", "file", "\xff\xd8") + "--b0--"},
        {type, filePart("b0", "file", jpeg('a'))},
    };
    for (const auto& [contentType, body] : refused) {
        auto reply = postLive(session, "frame", body, "Content-Type: " + contentType + "\r\n");
        ASSERT_TRUE(reply);
        EXPECT_EQ(reply->status, 400) << contentType << '\n' << body;
        EXPECT_EQ(errorOf(reply)["error"], "bad_request");
    }
    EXPECT_EQ(server.liveSession(session)->frames, 0u);
}

TEST_F(LiveTest, ARefusedIndicatorKindGetsALeaseMismatchAndEveryConfirmationIsRecorded) {
    auto requested = server.requestLive(token);
    ASSERT_TRUE(requested);
    const std::string session = requested->sessionId;
    ASSERT_TRUE(server.activateLive(token, session, "g-1"));
    virela::devserver::LiveNote note;
    note.kind = "recordingStarted";
    note.generation = "r-1";
    ASSERT_TRUE(server.sendLiveNote(token, session, note));
    server.refuseIndicator("recording");

    auto sharing = confirm(session, "sharing", "g-1");
    auto recording = confirm(session, "recording", "r-1");
    ASSERT_TRUE(sharing && recording);
    EXPECT_EQ(sharing->status, 200);
    EXPECT_EQ(recording->status, 409);
    // The device's error model reads "error" as the code and "message" as the text.
    EXPECT_EQ(errorOf(recording)["error"], "lease_mismatch");
    EXPECT_TRUE(errorOf(recording)["message"].is_string());

    server.refuseIndicator("recording", false);
    note.generation = "r-2";
    ASSERT_TRUE(server.sendLiveNote(token, session, note));
    EXPECT_EQ(confirm(session, "recording", "r-2")->status, 200);
    EXPECT_EQ(postLive(session, "indicator", R"({"kind":"sharing","generation":3})", "")->status,
              400);
    EXPECT_EQ(confirm("live_999", "sharing", "g-1")->status, 404);
    ASSERT_TRUE(server.waitForIndicator(session, 3, 5s));
    const auto indicators = server.liveSession(session)->indicators;
    ASSERT_EQ(indicators.size(), 3u);
    EXPECT_EQ(indicators[0].kind, "sharing");
    EXPECT_TRUE(indicators[0].accepted);
    EXPECT_EQ(indicators[1].generation, "r-1");
    EXPECT_FALSE(indicators[1].accepted);
    EXPECT_TRUE(indicators[2].accepted);

    server.endLive(deviceId, session);
    EXPECT_EQ(confirm(session, "sharing", "g-1")->status, 410);
}

// A live session the backend started with the sharing lease "g-1", on a device with its socket
// open, ready for remote control.
class ControlTest : public LiveTest {
  protected:
    void SetUp() override {
        LiveTest::SetUp();
        auto requested = server.requestLive(token);
        ASSERT_TRUE(requested);
        session = requested->sessionId;
        nextPush();
        ASSERT_TRUE(server.activateLive(token, session, "g-1"));
        nextPush();
    }

    std::optional<RawReply> feedback(const std::string& body) {
        return postLive(session, "control/feedback", body, "");
    }
    int answerControl(const std::string& body) {
        auto reply = postLive(session, "control/respond", body, "");
        return reply ? reply->status : 0;
    }
    int confirmStatus(const std::string& kind, const std::string& generation) {
        auto reply = confirm(session, kind, generation);
        return reply ? reply->status : 0;
    }

    std::string session;
};

TEST_F(ControlTest, ControlAndInputPushesCarryWhatWasGivenAndNothingElse) {
    const std::string idle = registerDevice("inst-2")["deviceToken"];
    EXPECT_FALSE(server.requestControl(idle, session));
    EXPECT_FALSE(server.sendInput(idle, session, virela::devserver::ControlInput::tapAt(0, 0)));

    auto plain = server.requestControl(token, session);
    ASSERT_TRUE(plain);
    EXPECT_EQ(nextPush(), json::parse(plain->push));
    EXPECT_EQ(json::parse(plain->push),
              json::parse(R"({"type":"control","payload":{"sessionId":")" + session +
                          R"(","state":"requested",)" + R"("requestId":")" + plain->requestId +
                          R"("}})"));
    virela::devserver::ControlRequest request;
    request.requestId = "";
    request.consentCopy = "Let {agent_name} in?";
    request.agentName = "Dana";
    request.workspaceName = "Shop";
    request.logoUrl = server.logoUrl();
    auto full = server.requestControl(deviceId, session, request);
    ASSERT_TRUE(full);
    EXPECT_EQ(full->requestId, "");
    EXPECT_EQ(nextPush(), json::parse(R"({"type":"control","payload":{"sessionId":")" + session +
                                      R"(","state":"requested","consentCopy":"Let {agent_name} )"
                                      R"(in?","agentName":"Dana","workspaceName":"Shop",)"
                                      R"("logoUrl":")" +
                                      server.logoUrl() + R"("}})"));

    const std::string head = R"({"type":"control","payload":{"sessionId":")" + session + "\"";
    EXPECT_EQ(answerControl(R"({"allow":true})"), 200);
    EXPECT_TRUE(server.grantControl(token, session));
    EXPECT_EQ(nextPush(), json::parse(head + R"(,"state":"active"}})"));
    EXPECT_EQ(server.controlSession(session)->state, "active");
    auto again = server.requestControl(token, session);
    ASSERT_TRUE(again);
    nextPush();
    EXPECT_EQ(answerControl(json{{"allow", true}, {"requestId", again->requestId}}.dump()), 200);
    EXPECT_TRUE(server.grantControl(token, session, "c-2"));
    EXPECT_EQ(nextPush(), json::parse(head + R"(,"state":"active","generation":"c-2"}})"));
    EXPECT_EQ(server.controlSession(session)->generation, "c-2");
    EXPECT_EQ(confirmStatus("control", "c-2"), 200);

    using virela::devserver::ControlInput;
    ControlInput unknown;
    unknown.action = "Tap";
    unknown.x = 0.5;
    const std::vector<std::pair<ControlInput, std::string>> inputs{
        {ControlInput::tapAt(0.25, 1), R"("action":"tap","x":0.25,"y":1.0)"},
        {ControlInput::scrollAt(0.5, 0.5, 0, -0.3),
         R"("action":"scroll","x":0.5,"y":0.5,"dx":0.0,"dy":-0.3)"},
        {ControlInput::typeText("a \"b\" ü"), R"("action":"type","text":"a \"b\" ü")"},
        {ControlInput::pressKey("backspace"), R"("action":"key","key":"backspace")"},
        {unknown, R"("action":"Tap","x":0.5)"},
    };
    for (const auto& [input, fields] : inputs) {
        EXPECT_TRUE(server.sendInput(token, session, input));
        EXPECT_EQ(nextPush(), json::parse(R"({"type":"control-input","payload":{"sessionId":")" +
                                          session + "\"," + fields + "}}"))
            << fields;
    }

    // The backend's end stands even for a device that is not there to hear it.
    EXPECT_FALSE(server.endControl(idle, "live_other"));
    EXPECT_EQ(server.controlSession("live_other")->state, "ended");
    EXPECT_TRUE(server.endControl(token, session));
    EXPECT_EQ(nextPush(), json::parse(head + R"(,"state":"ended"}})"));
    const auto control = server.controlSession(session);
    EXPECT_EQ(control->state, "ended");
    EXPECT_EQ(control->requestId, again->requestId);
    EXPECT_EQ(control->inputs, inputs.size());
}

TEST_F(ControlTest, AnswersFeedbackAndControlConfirmationsAreRecordedPerSession) {
    auto asked = server.requestControl(token, session);
    ASSERT_TRUE(asked);
    auto allowed = postLive(session, "control/respond",
                            json{{"allow", true}, {"requestId", asked->requestId}}.dump(), "");
    ASSERT_TRUE(allowed);
    EXPECT_EQ(allowed->status, 200);
    EXPECT_EQ(json::parse(allowed->body), json::parse(R"({"status":"Allowed"})"));
    for (const char* bad :
         {R"({"requestId":"x"})", R"({"allow":1})", R"({"allow":true,"requestId":7})", "[true]"}) {
        EXPECT_EQ(postLive(session, "control/respond", bad, "")->status, 400) << bad;
    }
    EXPECT_EQ(postLive("live_999", "control/respond", R"({"allow":true})", "")->status, 404);
    EXPECT_EQ(server.controlSession(session)->state, "requested");

    server.grantControl(token, session, "c-1");
    server.refuseIndicator("control");
    EXPECT_EQ(confirm(session, "control", "c-1")->status, 409);
    server.refuseIndicator("control", false);
    EXPECT_EQ(confirm(session, "control", "c-1")->status, 200);
    for (const char* kind : {"menuOpened", "menuItemInert", "menuOpened"}) {
        auto reply = feedback(json{{"kind", kind}}.dump());
        ASSERT_TRUE(reply);
        EXPECT_EQ(reply->status, 200);
    }
    ASSERT_TRUE(server.waitForFeedback(session, 3, 5s));

    // The take-back carries no request id, and ends control but not the session.
    EXPECT_EQ(postLive(session, "control/respond", R"({"allow":false})", "")->status, 200);
    ASSERT_TRUE(server.waitForControlAnswer(session, 5s, 2));
    const auto record = server.liveSession(session);
    ASSERT_TRUE(record);
    EXPECT_EQ(record->state, "active");
    EXPECT_EQ(record->control.state, "ended");
    EXPECT_EQ(record->control.answers, (std::vector<virela::devserver::ControlAnswer>{
                                           {true, asked->requestId}, {false, std::nullopt}}));
    EXPECT_EQ(record->control.feedback,
              (std::vector<std::string>{"menuOpened", "menuItemInert", "menuOpened"}));
    ASSERT_EQ(record->indicators.size(), 2u);
    EXPECT_EQ(record->indicators[0].kind, "control");
    EXPECT_FALSE(record->indicators[0].accepted);
    EXPECT_TRUE(record->indicators[1].accepted);
}

TEST_F(ControlTest, FeedbackNeedsAStringKindAndAnOpenSessionOfThisDevice) {
    for (const char* bad : {"{}", R"({"kind":3})", R"({"kind":null})", R"("menuOpened")"}) {
        auto reply = feedback(bad);
        ASSERT_TRUE(reply);
        EXPECT_EQ(reply->status, 400) << bad;
        EXPECT_EQ(errorOf(reply)["error"], "bad_request");
    }
    // Control pushes alone do not make a session live.
    server.requestControl(token, "live_999");
    EXPECT_EQ(postLive("live_999", "control/feedback", R"({"kind":"menuOpened"})", "")->status,
              404);
    server.requestControl(token, session);
    server.grantControl(token, session, "c-1");
    server.endLive(token, session);
    auto gone = feedback(R"({"kind":"menuOpened"})");
    ASSERT_TRUE(gone);
    EXPECT_EQ(gone->status, 410);
    EXPECT_EQ(errorOf(gone)["error"], "session_ended");
    const auto control = server.controlSession(session);
    EXPECT_TRUE(control->feedback.empty());
    // The lease ends with its live session.
    EXPECT_EQ(control->state, "ended");
}

// The backend as a referee: what a device sends outside the leases it was given is refused and
// not kept, and the agent cannot push what the customer did not allow. Leases here lapse after
// a second, so that a test can watch one lapse.
class RefereeTest : public ControlTest {
  protected:
    RefereeTest() { leaseSeconds = {1, 1}; }

    int frameStatus(const std::string& id, char tag) {
        auto reply = sendFrame(id, jpeg(tag));
        return reply ? reply->status : 0;
    }
};

TEST_F(RefereeTest, FramesNeedAnAllowedOrStartedSessionAndASharingLeaseThatHolds) {
    auto requested = server.requestLive(token);
    ASSERT_TRUE(requested);
    const std::string asked = requested->sessionId;
    auto refused = sendFrame(asked, jpeg('a'));
    ASSERT_TRUE(refused);
    EXPECT_EQ(refused->status, 409);
    EXPECT_EQ(errorOf(refused)["error"], "not_allowed");
    EXPECT_EQ(postLive(asked, "respond", R"({"allow":true})", "")->status, 200);
    EXPECT_EQ(frameStatus(asked, 'b'), 200);  // allowed, and no lease issued yet to lapse
    EXPECT_EQ(server.liveSession(asked)->frames, 1u);

    EXPECT_EQ(frameStatus(session, 'a'), 200);  // inside the grace for the first confirmation
    // A frame is a JPEG in the part "file", declared as an image.
    auto mislabelled =
        postLive(session, "frame", filePart("b1", "file", jpeg('x'), "text/plain") + "--b1--\r\n",
                 "Content-Type: multipart/form-data; boundary=b1\r\n");
    ASSERT_TRUE(mislabelled);
    EXPECT_EQ(mislabelled->status, 400);
    EXPECT_EQ(
        postLive(session, "frame", filePart("b1", "file", jpeg('y'), "image/jpeg") + "--b1--\r\n",
                 "Content-Type: multipart/form-data; boundary=b1\r\n")
            ->status,
        200);

    // Never confirmed: the lease lapses once the grace is over, and frames are dropped.
    std::this_thread::sleep_for(1300ms);
    auto lapsed = sendFrame(session, jpeg('c'));
    ASSERT_TRUE(lapsed);
    EXPECT_EQ(lapsed->status, 409);
    EXPECT_EQ(errorOf(lapsed)["error"], "lease_mismatch");
    EXPECT_EQ(server.liveSession(session)->lapsed, std::vector<std::string>{"sharing"});
    EXPECT_EQ(confirmStatus("sharing", "g-1"), 200);
    EXPECT_EQ(frameStatus(session, 'd'), 200);
    // A stale generation is refused without costing the lease in force its standing.
    EXPECT_EQ(confirmStatus("sharing", "g-0"), 409);
    EXPECT_EQ(frameStatus(session, 'e'), 200);
    // A confirmation holds for its time only.
    std::this_thread::sleep_for(1300ms);
    EXPECT_EQ(frameStatus(session, 'f'), 409);
    EXPECT_EQ(confirmStatus("sharing", "g-1"), 200);
    // A confirmation the backend refuses lapses the lease at once.
    server.refuseIndicator("sharing");
    EXPECT_EQ(confirmStatus("sharing", "g-1"), 409);
    EXPECT_EQ(frameStatus(session, 'g'), 409);
    const auto record = server.liveSession(session);
    EXPECT_EQ(record->frames, 4u);
    EXPECT_EQ(record->latestFrame, jpeg('e'));
}

TEST_F(RefereeTest, ConfirmationsMustNameALeaseInForceWithItsGeneration) {
    auto requested = server.requestLive(token);
    ASSERT_TRUE(requested);
    EXPECT_EQ(confirm(requested->sessionId, "sharing", "g-1")->status, 409);  // not started
    EXPECT_EQ(confirmStatus("sharing", "g-2"), 409);
    EXPECT_EQ(confirmStatus("control", "g-1"), 409);  // control never granted
    EXPECT_EQ(confirmStatus("recording", "r-1"), 409);
    EXPECT_EQ(confirmStatus("Sharing", "g-1"), 409);

    virela::devserver::LiveNote note;
    note.kind = "recordingStarted";
    note.generation = "r-1";
    ASSERT_TRUE(server.sendLiveNote(token, session, note));
    EXPECT_EQ(confirmStatus("recording", "r-1"), 200);
    note = {};
    note.kind = "recordingStopped";
    ASSERT_TRUE(server.sendLiveNote(token, session, note));
    auto late = confirm(session, "recording", "r-1");
    ASSERT_TRUE(late);
    EXPECT_EQ(late->status, 409);
    EXPECT_EQ(errorOf(late)["error"], "lease_mismatch");

    const auto indicators = server.liveSession(session)->indicators;
    ASSERT_EQ(indicators.size(), 6u);
    for (const auto& one : indicators) {
        EXPECT_EQ(one.accepted, one.reason.empty()) << one.kind << ' ' << one.generation;
    }
    EXPECT_TRUE(indicators[4].accepted);
    EXPECT_FALSE(indicators[5].accepted);
}

TEST_F(RefereeTest, ControlIsGrantedOnlyInAnswerToTheCustomerAndInputOnlyUnderAConfirmedLease) {
    using virela::devserver::ControlInput;
    EXPECT_EQ(confirmStatus("sharing", "g-1"), 200);
    EXPECT_FALSE(server.grantControl(token, session, "c-1"));  // nobody asked

    auto asked = server.requestControl(token, session);
    ASSERT_TRUE(asked);
    EXPECT_FALSE(server.grantControl(token, session, "c-1"));  // the customer has not answered
    EXPECT_EQ(answerControl(R"({"allow":true,"requestId":"ctl_other"})"), 200);
    EXPECT_FALSE(server.grantControl(token, session, "c-1"));  // an answer to another request
    EXPECT_EQ(answerControl(json{{"allow", true}, {"requestId", asked->requestId}}.dump()), 200);
    EXPECT_TRUE(server.grantControl(token, session, "c-1"));
    EXPECT_FALSE(server.grantControl(token, session, "c-2"));  // once
    EXPECT_EQ(server.controlSession(session)->generation, "c-1");

    // Granted but never confirmed: nothing goes through.
    EXPECT_FALSE(server.sendInput(token, session, ControlInput::tapAt(0.5, 0.5)));
    EXPECT_EQ(confirmStatus("control", "c-1"), 200);
    EXPECT_TRUE(server.sendInput(token, session, ControlInput::tapAt(0.5, 0.5)));
    std::this_thread::sleep_for(1300ms);
    EXPECT_FALSE(server.sendInput(token, session, ControlInput::tapAt(0.5, 0.5)));
    EXPECT_EQ(confirmStatus("control", "c-1"), 200);
    EXPECT_TRUE(server.sendInput(token, session, ControlInput::typeText("a")));

    // The customer takes control back: no input, and no grant without asking again.
    EXPECT_EQ(answerControl(R"({"allow":false})"), 200);
    EXPECT_FALSE(server.sendInput(token, session, ControlInput::typeText("b")));
    EXPECT_FALSE(server.grantControl(token, session, "c-3"));
    EXPECT_EQ(confirmStatus("control", "c-1"), 409);
    EXPECT_EQ(server.controlSession(session)->inputs, 2u);
}

}  // namespace

class ConsoleTest : public LiveTest {
  protected:
    ConsoleTest() { consoleToken = kToken; }

    static constexpr const char* kToken = "0123456789abcdef0123456789abcdef";

    std::optional<RawReply> getWith(const std::string& target, const std::string& headers) {
        return roundTrip(server.port(),
                         "GET " + target + " HTTP/1.1\r\nHost: 127.0.0.1\r\n" + headers + "\r\n");
    }
    std::optional<RawReply> act(const std::string& path, const std::string& body) {
        return roundTrip(server.port(),
                         post("/console/api/" + path, body,
                              "Authorization: Bearer " + std::string(kToken) + "\r\n"));
    }
    json state() {
        auto reply = getWith("/console/api/state?token=" + std::string(kToken), "");
        EXPECT_TRUE(reply && reply->status == 200);
        return reply ? json::parse(reply->body, nullptr, false) : json();
    }
    // The journal's texts of one kind, waiting for at least one; socket messages land there
    // from the server thread.
    std::vector<std::string> events(const std::string& kind) {
        std::vector<std::string> texts;
        const auto deadline = std::chrono::steady_clock::now() + 5s;
        while (texts.empty() && std::chrono::steady_clock::now() < deadline) {
            const json now = state();
            for (const json& event : now["events"]) {
                if (event["kind"] == kind) texts.push_back(event["text"]);
            }
            if (texts.empty()) std::this_thread::sleep_for(20ms);
        }
        return texts;
    }
};

TEST_F(ConsoleTest, TheTokenGuardsThePageItsApiAndWhatDevicesSentAndNothingElse) {
    const std::string wrong = "0123456789abcdef0123456789abcdeX";
    const std::string otherPort = "Cookie: virela_console_1=" + std::string(kToken) + "\r\n";
    for (const std::string path :
         {"/console", "/console/app.js", "/console/API.md", "/console/api/state",
          "/console/nowhere", "/captures/cap_1.png", "/live/live_1/latest.jpg"}) {
        for (const auto& [target, headers] :
             std::vector<std::pair<std::string, std::string>>{{path, ""},
                                                              {path + "?token=" + wrong, ""},
                                                              {path, "Authorization: Bearer \r\n"},
                                                              {path, otherPort}}) {
            auto reply = getWith(target, headers);
            ASSERT_TRUE(reply) << target;
            EXPECT_EQ(reply->status, 401) << target << ' ' << headers;
            EXPECT_EQ(reply->body.find("dev_"), std::string::npos);
        }
    }
    auto asked = act("devices/" + deviceId + "/live", "{}");
    ASSERT_TRUE(asked);
    EXPECT_EQ(asked->status, 200);
    EXPECT_EQ(
        roundTrip(server.port(), post("/console/api/devices/" + deviceId + "/live", "{}"))->status,
        401);

    // The page sets the cookie that its images and files then ride on.
    auto page = getWith("/console?token=" + std::string(kToken), "");
    ASSERT_TRUE(page);
    EXPECT_EQ(page->status, 200);
    EXPECT_EQ(headerOf(*page, "Content-Type"), "text/html; charset=utf-8");
    const std::string cookie = "virela_console_" + std::to_string(server.port()) + "=" + kToken;
    EXPECT_EQ(headerOf(*page, "Set-Cookie").value_or("").rfind(cookie + ";", 0), 0u);
    EXPECT_EQ(getWith("/console/api/state", "Cookie: a=b; " + cookie + "\r\n")->status, 200);
    EXPECT_EQ(getWith("/console/API.md", "Cookie: " + cookie + "\r\n")->status, 404);
    // A device's own endpoints stay on the device token.
    EXPECT_EQ(roundTrip(server.port(), post("/v1/sdk/devices/health", "{}", auth))->status, 200);
}

// Public documentation: it needs no token even while the console guards its own pages, and it
// serves nothing but itself.
TEST_F(ConsoleTest, TheProtocolReferenceIsPublicWholeAndLoadsNothingFromElsewhere) {
    auto page = getWith("/docs", "");
    ASSERT_TRUE(page);
    ASSERT_EQ(page->status, 200);
    EXPECT_EQ(headerOf(*page, "Content-Type"), "text/html; charset=utf-8");
    EXPECT_FALSE(headerOf(*page, "Set-Cookie"));
    const std::string policy = headerOf(*page, "Content-Security-Policy").value_or("");
    EXPECT_NE(policy.find("default-src 'none'"), std::string::npos) << policy;
    EXPECT_EQ(policy.find("script-src"), std::string::npos) << policy;
    EXPECT_EQ(policy.find("unsafe"), std::string::npos) << policy;
    for (const std::string other :
         {"/docs/index.html", "/docs/app.js", "/docs/API.md", "/docs/..%2Fconsole", "/docs/x/y"}) {
        auto reply = getWith(other, "");
        ASSERT_TRUE(reply) << other;
        EXPECT_EQ(reply->status, 404) << other;
    }
    if (page->body.find("was not built") != std::string::npos) {
        GTEST_SKIP() << "built without the reference's tools; /docs says how to get them";
    }

    // Every operation of both documents, with what a client needs to connect.
    for (const std::string name :
         {"registerDevice", "identifyUser",     "resetSupportCode", "reportHealth",
          "promptShown",    "answerCapture",    "uploadCapture",    "answerLive",
          "uploadFrame",    "confirmIndicator", "answerControl",    "controlFeedback",
          ">consent<",      ">capture<",        ">expired<",        ">denied<",
          ">session<",      ">live<",           ">live-note<",      ">guide<",
          ">control<",      ">control-input<",  ">ping<",           ">state<",
          ">view<",         "/sdk/socket",      "virela.device.",   "X-Virela-Device"}) {
        EXPECT_NE(page->body.find(name), std::string::npos) << name;
    }
    auto sheet = getWith("/docs/reference.css", "");
    ASSERT_TRUE(sheet);
    EXPECT_EQ(sheet->status, 200);
    EXPECT_EQ(headerOf(*sheet, "Content-Type"), "text/css; charset=utf-8");
    // Example values may mention addresses; what the page loads may not.
    const std::regex loads(R"((src|href|action)\s*=\s*["']?\s*(https?:)?//|url\(|@import|<script)",
                           std::regex::icase);
    EXPECT_FALSE(std::regex_search(page->body, loads));
    EXPECT_FALSE(std::regex_search(sheet->body, loads));
}
TEST_F(ConsoleTest, TheCookieAloneChangesNothingAndSessionIdsCannotBeGuessed) {
    const std::string cookie =
        "Cookie: virela_console_" + std::to_string(server.port()) + "=" + kToken + "\r\n";
    const std::string host = "127.0.0.1";  // what post() sends as Host
    const std::string path = "/console/api/devices/" + deviceId + "/live";
    auto live = [&](const std::string& headers) {
        return roundTrip(server.port(), post(path, "{}", headers))->status;
    };
    // Another page (another port of this host, or a site) makes the browser send the cookie.
    EXPECT_EQ(live(cookie), 401);
    EXPECT_EQ(live(cookie + "Sec-Fetch-Site: same-site\r\nOrigin: http://127.0.0.1:1\r\n"), 401);
    EXPECT_EQ(live(cookie + "Sec-Fetch-Site: same-origin\r\nOrigin: http://127.0.0.1:1\r\n"), 401);
    EXPECT_EQ(live(cookie + "Sec-Fetch-Site: cross-site\r\nOrigin: http://" + host + "\r\n"), 401);
    // The console's own page: its token as a Bearer, or the browser's word that it sent it.
    EXPECT_EQ(live(cookie + "Sec-Fetch-Site: same-origin\r\nOrigin: http://" + host + "\r\n"), 200);
    auto asked = act("devices/" + deviceId + "/live", "{}");
    ASSERT_TRUE(asked && asked->status == 200);
    const std::string first = json::parse(asked->body)["sessionId"];
    const std::string second =
        json::parse(act("devices/" + deviceId + "/live", "{}")->body)["sessionId"];
    EXPECT_TRUE(first.starts_with("live_") && first.size() == 21) << first;
    EXPECT_NE(first, second);
    EXPECT_NE(first, "live_1");

    // A body nested past the limit is refused with the reason, before it is parsed.
    auto deep = act("devices/" + deviceId + "/live",
                    "{\"a\":" + std::string(100'000, '[') + std::string(100'000, ']') + "}");
    ASSERT_TRUE(deep);
    EXPECT_EQ(deep->status, 400);
    EXPECT_NE(errorOf(deep)["message"].get<std::string>().find("64"), std::string::npos);
}

TEST_F(ConsoleTest, MalformedActionsGetA400WithTheReasonAndTheBackendCarriesOn) {
    const std::string live =
        json::parse(act("devices/" + deviceId + "/live", "{}")->body)["sessionId"];
    const std::string session = "sessions/" + live;
    const std::vector<std::tuple<std::string, std::string, int>> cases{
        {session + "/guide", "{", 400},
        {session + "/guide", "[1,2]", 400},
        {session + "/guide", R"({"kind":"circle"})", 400},
        {session + "/guide", R"({"kind":"box","x":1.5})", 400},
        {session + "/guide", R"({"kind":"box","x":"0.5"})", 400},
        {session + "/guide", R"({"kind":"box","color":"red"})", 400},
        {session + "/guide", R"({"kind":"label","text":")" + std::string(5000, 'a') + "\"}", 400},
        {session + "/guide", R"({"kind":"laser","y":0.5})", 400},
        {session + "/guide", R"({"kind":"fill","x":0.2,"w":0.1,"h":0.1})", 400},
        {session + "/guide", R"({"kind":"label","x":0.5,"y":0.5,"text":""})", 400},
        {session + "/guide", R"({"kind":"label","x":0.5,"y":0.5,"text":"\u202e\u0007\n"})", 400},
        {session + "/guide", R"({"kind":"label","text":")" + repeated("\u00e9", 201) + "\"}", 400},
        {session + "/input", R"({"action":"tap","x":0.5})", 400},
        {session + "/input", R"({"action":"swipe"})", 400},
        {session + "/input", R"({"action":"type","text":""})", 400},
        {session + "/input", R"({"action":"key","key":"escape"})", 400},
        {session + "/input", R"({"action":"scroll","x":0.5,"y":0.5,"dy":1e300})", 400},
        {session + "/note", R"({"kind":"frameLost"})", 400},
        {"devices/" + deviceId + "/screenshot", R"({"mode":"LiveView"})", 400},
        {"devices/" + deviceId + "/capture", R"({"requestId":"req_404"})", 404},
        {"refuse", R"({"kind":"sharing","refuse":"yes"})", 400},
        {"devices/nobody/live", "{}", 404},
        {"sessions/live_404/end", "{}", 404},
        // Well formed, but the session was never allowed.
        {session + "/input", R"({"action":"tap","x":0.5,"y":0.5})", 409},
        {session + "/control", "{}", 409},
        {session + "/control/end", "{}", 409},
        {session + "/guide", R"({"kind":"laser","x":0.5,"y":0.5})", 409},
        {session + "/guide", R"({"kind":"laser-off"})", 409},
        {session + "/guide", R"({"kind":"label","text":")" + repeated("\u00e9", 200) + "\"}", 409},
        {session + "/end", "{}", 200},
        {session + "/end", "{}", 409},
    };
    for (const auto& [path, body, status] : cases) {
        auto reply = act(path, body);
        ASSERT_TRUE(reply) << path << ' ' << body;
        EXPECT_EQ(reply->status, status) << path << ' ' << body << ' ' << reply->body;
        if (status != 200) {
            EXPECT_FALSE(errorOf(reply).value("message", "").empty()) << path;
        }
    }
    EXPECT_EQ(getWith("/console/api/state?since=x1&token=" + std::string(kToken), "")->status, 400);

    // A device without a socket is a 409, not a silent success.
    const std::string idle = registerDevice("inst-2")["deviceId"];
    auto unheard = act("devices/" + idle + "/screenshot", "{}");
    EXPECT_EQ(unheard->status, 409);
    EXPECT_EQ(errorOf(unheard)["error"], "not_connected");
    EXPECT_EQ(state()["devices"].size(), 2u);
}

TEST_F(ConsoleTest, AnotherScreenshotNeedsTheCallsAllowanceAndOneQuestionWaitsAtATime) {
    auto answer = [&](const std::string& requestId, bool allow) {
        return roundTrip(server.port(),
                         post("/v1/sdk/captures/" + requestId + "/respond",
                              allow ? R"({"allow":true})" : R"({"allow":false})", auth))
            ->status;
    };
    auto another = [&](const std::string& requestId) {
        return act("devices/" + deviceId + "/capture", R"({"requestId":")" + requestId + "\"}");
    };
    auto ask = [&](const std::string& body) {
        auto reply = act("devices/" + deviceId + "/screenshot", body);
        EXPECT_EQ(reply->status, 200) << reply->body;
        EXPECT_EQ(nextPush()["type"], "consent");
        return json::parse(reply->body)["requestId"].get<std::string>();
    };

    const std::string call = ask(R"({"mode":"PerSession"})");
    // Unanswered: no second sheet over the first, and no image without an answer.
    auto stacked = act("devices/" + deviceId + "/screenshot", "{}");
    EXPECT_EQ(stacked->status, 409);
    EXPECT_EQ(errorOf(stacked)["error"], "pending");
    EXPECT_EQ(another(call)->status, 409);
    // Allowed for the call: another image goes out without a sheet.
    ASSERT_EQ(answer(call, true), 200);
    EXPECT_EQ(another(call)->status, 200);
    EXPECT_EQ(nextPush(),
              json::parse(R"({"type":"capture","payload":{"requestId":")" + call + "\"}}"));

    const std::string once = ask("{}");
    ASSERT_EQ(answer(once, true), 200);
    auto used = another(once);
    EXPECT_EQ(used->status, 409);
    EXPECT_EQ(errorOf(used)["error"], "not_allowed");
    const std::string declined = ask("{}");
    ASSERT_EQ(answer(declined, false), 200);
    EXPECT_EQ(another(declined)->status, 409);
    // Once the agent ends the call, its allowance ends with it.
    ASSERT_EQ(act("devices/" + deviceId + "/end-call", "{}")->status, 200);
    EXPECT_EQ(nextPush(), json::parse(R"({"type":"session","payload":{"state":"ended"}})"));
    EXPECT_EQ(errorOf(another(call))["message"],
              "Another screenshot (" + call + ") refused: its call has ended.");
    EXPECT_EQ(events("refused").size(), 5u);
}

TEST_F(ConsoleTest, ItsSessionsStartOnTheCustomersAllowAndTheJournalTellsWhatTheDeviceReported) {
    auto asked = act("devices/" + deviceId + "/live", "{}");
    ASSERT_EQ(asked->status, 200);
    const std::string session = json::parse(asked->body)["sessionId"];
    EXPECT_EQ(nextPush()["payload"]["state"], "requested");
    ASSERT_EQ(postLive(session, "respond", R"({"allow":true})", "")->status, 200);
    EXPECT_EQ(nextPush(), json::parse(R"({"type":"live","payload":{"sessionId":")" + session +
                                      R"(","state":"active","generation":"share-1"}})"));

    ASSERT_EQ(act("refuse", R"({"kind":"sharing","refuse":true})")->status, 200);
    EXPECT_EQ(confirm(session, "sharing", "share-1")->status, 409);
    EXPECT_EQ(events("indicator"),
              std::vector<std::string>{"indicator sharing (generation share-1) refused: "
                                       "lease_mismatch (the backend refuses confirmations of "
                                       "this kind)"});
    EXPECT_TRUE(state()["refusing"]["sharing"]);
    // Until the device confirms again the lease stays lapsed and its frames are dropped.
    EXPECT_EQ(sendFrame(session, jpeg('x'))->status, 409);
    EXPECT_EQ(state()["sessions"][0]["frames"], 0);
    EXPECT_EQ(state()["sessions"][0]["lapsed"], json::array({"sharing"}));
    ASSERT_EQ(act("refuse", R"({"kind":"sharing","refuse":false})")->status, 200);
    EXPECT_EQ(confirm(session, "sharing", "share-1")->status, 200);
    EXPECT_EQ(state()["sessions"][0]["lapsed"], json::array());

    // A label reaches the customer without what could break its line or reorder it.
    ASSERT_EQ(act("sessions/" + session + "/guide",
                  R"({"kind":"label","x":0.5,"y":0.5,"text":"Tap\u202e here\n\u0007no\u2028w"})")
                  ->status,
              200);
    EXPECT_EQ(nextPush()["payload"]["text"], "Tap herenow");

    // A silent stream turns stale; a frame makes it fresh again.
    EXPECT_FALSE(state()["sessions"][0]["stale"]);
    ASSERT_EQ(sendFrame(session, jpeg('a'))->status, 200);
    std::this_thread::sleep_for(2100ms);
    EXPECT_TRUE(state()["sessions"][0]["stale"]);
    ASSERT_EQ(sendFrame(session, jpeg('b'))->status, 200);
    const json fresh = state()["sessions"][0];
    EXPECT_FALSE(fresh["stale"]);
    EXPECT_EQ(fresh["frames"], 2);
    EXPECT_EQ(fresh["frameUrl"], "/live/" + session + "/latest.jpg");

    ASSERT_EQ(act("sessions/" + session + "/control", "{}")->status, 200);
    const json request = nextPush()["payload"];
    EXPECT_EQ(request["state"], "requested");
    EXPECT_EQ(act("sessions/" + session + "/input", R"({"action":"key","key":"enter"})")->status,
              409);
    ASSERT_EQ(postLive(session, "control/respond",
                       json{{"allow", true}, {"requestId", request["requestId"]}}.dump(), "")
                  ->status,
              200);
    const json granted = nextPush();
    EXPECT_EQ(granted["payload"]["state"], "active");
    EXPECT_EQ(granted["payload"]["generation"], "ctl-1");
    // Granted, but input waits for the device to confirm the lease; then it goes out.
    auto early = act("sessions/" + session + "/input", R"({"action":"key","key":"enter"})");
    EXPECT_EQ(early->status, 409);
    EXPECT_EQ(errorOf(early)["error"], "lease_mismatch");
    EXPECT_EQ(events("refused").back(),
              "input refused: the device has not confirmed the control lease, or not in time");
    ASSERT_EQ(confirm(session, "control", "ctl-1")->status, 200);
    EXPECT_EQ(act("sessions/" + session + "/input", R"({"action":"key","key":"enter"})")->status,
              200);
    EXPECT_EQ(nextPush()["type"], "control-input");
    ASSERT_EQ(postLive(session, "control/feedback", R"({"kind":"menuOpened"})", "")->status, 200);
    EXPECT_EQ(events("feedback"), std::vector<std::string>{"control feedback: menuOpened"});

    socket->sendFrame(1, R"({"type":"state","state":"background"})");
    socket->sendFrame(1, R"({"type":"view","kind":"nav","sessionId":")" + session + "\"}");
    EXPECT_EQ(events("view"), std::vector<std::string>{"view changed: nav"});
    EXPECT_EQ(state()["devices"][0]["appState"], "background");

    // A lost device shows as such and comes back with its next socket.
    server.dropConnection(deviceId);
    EXPECT_FALSE(state()["devices"][0]["connected"]);
    socket = openSocket(token);
    ASSERT_TRUE(server.waitForConnection(deviceId, 5s, 2));
    EXPECT_TRUE(state()["devices"][0]["connected"]);

    // Only what came after `since` is sent again.
    const json all = state();
    const std::uint64_t next = all["nextSeq"];
    auto later =
        getWith("/console/api/state?since=" + std::to_string(next) + "&token=" + kToken, "");
    EXPECT_TRUE(json::parse(later->body)["events"].empty());
    EXPECT_GT(all["events"].size(), 8u);
}

// The demo key is public: anyone may register devices as fast as they can. A burst of them, each
// holding its socket, must leave the backend answering devices and the console at once.
TEST_F(ConsoleTest, AFloodOfDevicesLeavesTheBackendAnsweringAndTheConsoleListingThemAll) {
    constexpr int kFlood = 150;
    struct Flooder {
        std::string deviceId, token;
        std::unique_ptr<Connection> socket;
        bool healthy = false;
    };
    std::vector<Flooder> flood(kFlood);
    std::latch go(kFlood);
    std::vector<std::thread> threads;
    for (int i = 0; i < kFlood; ++i) {
        threads.emplace_back([&, i] {
            go.arrive_and_wait();
            try {
                auto reply = roundTrip(
                    server.port(), post("/v1/sdk/devices",
                                        json{{"installId", "flood-" + std::to_string(i)}}.dump(),
                                        "X-Virela-Key: vk_demo_local\r\n"));
                if (!reply || reply->status != 200) return;
                const json body = json::parse(reply->body);
                Flooder& mine = flood[i];
                mine.deviceId = body["deviceId"];
                mine.token = body["deviceToken"];
                mine.socket = std::make_unique<Connection>(server.port());
                mine.socket->send(upgrade(offering(mine.token)));
                auto opened = mine.socket->read();
                if (!opened || opened->status != 101) return;
                auto health =
                    roundTrip(server.port(), post("/v1/sdk/devices/health", R"({"battery":0.5})",
                                                  "X-Virela-Device: " + mine.token + "\r\n"));
                mine.healthy = health && health->status == 200;
            } catch (const std::exception&) {
                // Counted below as a device that did not get through.
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(std::count_if(flood.begin(), flood.end(), [](const Flooder& f) { return f.healthy; }),
              kFlood);

    // A socket counts once its handshake is done on the server's side, just after the 101.
    for (const Flooder& device : flood) {
        EXPECT_TRUE(server.waitForConnection(device.deviceId, 5s)) << device.deviceId;
    }

    // The devices already there, and the console, are answered as before. A report too large
    // to show on every poll is refused.
    EXPECT_EQ(roundTrip(server.port(), post("/v1/sdk/devices/health", "{}", auth))->status, 200);
    const std::string huge = R"({"notes":")" + std::string(65 * 1024, 'x') + "\"}";
    EXPECT_EQ(roundTrip(server.port(), post("/v1/sdk/devices/health", huge, auth))->status, 413);
    const json now = state();
    ASSERT_EQ(now["devices"].size(), std::size_t{kFlood + 1});
    std::set<std::string> listed;
    for (const json& device : now["devices"]) {
        if (device["connected"] == true && device["health"].is_object()) {
            listed.insert(device["deviceId"].get<std::string>());
        }
    }
    for (const Flooder& device : flood) EXPECT_TRUE(listed.contains(device.deviceId));
    // The console still acts on any of them, the last to arrive included.
    const Flooder& last = flood.back();
    ASSERT_EQ(act("devices/" + last.deviceId + "/screenshot", R"({"mode":"AskEveryTime"})")->status,
              200);
    auto push = last.socket->readMessage();
    ASSERT_TRUE(push);
    EXPECT_EQ(json::parse(push->payload)["type"], "consent");
    EXPECT_EQ(act("devices/" + deviceId + "/live", "{}")->status, 200);
}
