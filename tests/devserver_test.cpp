// The local backend over real loopback sockets, spoken to byte by byte so that what the server
// records and answers is checked without any HTTP client in between.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <optional>
#include <regex>
#include <stdexcept>
#include <string>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "tools/devserver/server.hpp"

namespace {

using nlohmann::json;
using virela::devserver::Header;
using virela::devserver::Options;
using virela::devserver::QueuedReply;
using virela::devserver::Server;

struct RawReply {
    int status = 0;
    std::string head;  // status line and headers
    std::string body;
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

    bool closedByPeer() { return buffer_.empty() && !fill(); }

  private:
    bool fill() {
        char chunk[4096];
        const ssize_t n = ::recv(fd_, chunk, sizeof chunk, 0);
        if (n <= 0) return false;
        buffer_.append(chunk, static_cast<std::size_t>(n));
        return true;
    }

    int fd_;
    std::string buffer_;
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

}  // namespace
