// Arbitrary bytes as what a client sends to the local backend: parsed as a connection parses
// them, with its limits, pipelined requests in turn, and answered by the running server with
// every route on (device, screenshot, live, console with its token). A device is registered and
// holds its socket, with a screenshot call allowed and a live session under control, so that
// requests naming them reach past the checks.
//
// The device's token and id are drawn afresh by each server, so an input names them with
// stand-ins of the same length (see backend.dict), swapped in before the bytes are sent: a
// Content-Length stays right. So does the console cookie's port. Whatever comes in, the
// backend must never fail (a 500) and what it writes must be whole responses, one after another.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>
#include <thread>

#include <nlohmann/json.hpp>

#include "tools/devserver/server.hpp"

namespace {

using namespace virela::devserver;
using namespace std::chrono_literals;

constexpr std::string_view kConsoleToken = "fuzzconsoletoken0123456789abcdef";
constexpr std::string_view kTokenStandIn = "FUZZTOKENFUZZTOKENFUZZTOKENFUZZTOKENFUZZ";  // 40
constexpr std::string_view kDeviceStandIn = "dev_FUZZFUZZFUZZFUZZ";                     // 20
constexpr std::string_view kPortStandIn = "@PORT";                                      // 5
// Inputs answered by one server before a fresh one takes over, so that what they registered,
// uploaded and journalled does not pile up and slow every later input.
constexpr int kInputsPerServer = 2000;

[[noreturn]] void fail(const char* what) {
    std::fprintf(stderr, "backend fuzz: %s\n", what);
    std::abort();
}

void replaceAll(std::string& text, std::string_view from, std::string_view to) {
    if (from.size() != to.size()) return;
    for (std::size_t at = text.find(from); at != std::string::npos; at = text.find(from, at)) {
        text.replace(at, from.size(), to);
        at += to.size();
    }
}

// The body of the last response in `written`.
std::string lastBody(const std::string& written) {
    const std::size_t head = written.rfind("\r\n\r\n");
    return head == std::string::npos ? std::string() : written.substr(head + 4);
}

// The device's end of its socket: it connects, then reads and drops whatever is pushed, so that
// pushes never back up on the server.
class DeviceSocket {
  public:
    DeviceSocket(std::uint16_t port, const std::string& token) {
        fd_ = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (fd_ < 0 || ::connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
            fail("cannot connect the device's socket");
        }
        const std::string upgrade =
            "GET /sdk/socket HTTP/1.1\r\nHost: 127.0.0.1\r\nUpgrade: websocket\r\n"
            "Connection: Upgrade\r\nSec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n"
            "Sec-WebSocket-Version: 13\r\nSec-WebSocket-Protocol: virela.device." +
            token + "\r\n\r\n";
        if (::send(fd_, upgrade.data(), upgrade.size(), MSG_NOSIGNAL) !=
            static_cast<ssize_t>(upgrade.size())) {
            fail("cannot send the upgrade");
        }
        drain_ = std::thread([fd = fd_] {
            char scratch[65536];
            while (::recv(fd, scratch, sizeof scratch, 0) > 0) {
            }
        });
    }
    ~DeviceSocket() {
        ::shutdown(fd_, SHUT_RDWR);
        drain_.join();
        ::close(fd_);
    }
    DeviceSocket(const DeviceSocket&) = delete;
    DeviceSocket& operator=(const DeviceSocket&) = delete;

  private:
    int fd_ = -1;
    std::thread drain_;
};

struct Backend {
    Server server;
    std::string token;
    std::string deviceId;
    std::string port;
    std::unique_ptr<DeviceSocket> socket;

    Backend() {
        Options options;
        options.consoleToken = std::string(kConsoleToken);
        options.keepRequests = false;
        server.start(options);
        port = std::to_string(server.port());

        const std::string body = R"({"installId":"fuzz-install"})";
        const nlohmann::json registered = nlohmann::json::parse(
            lastBody(server.answerBytes("POST /v1/sdk/devices HTTP/1.1\r\nHost: 127.0.0.1\r\n"
                                        "X-Virela-Key: vk_demo_local\r\nContent-Length: " +
                                        std::to_string(body.size()) + "\r\n\r\n" + body)),
            nullptr, false);
        if (!registered.is_object() || !registered.contains("deviceToken")) fail("no device");
        token = registered["deviceToken"];
        deviceId = registered["deviceId"];
        if (token.size() != kTokenStandIn.size() || deviceId.size() != kDeviceStandIn.size()) {
            fail("the stand-ins no longer match the length of a token or a device id");
        }

        socket = std::make_unique<DeviceSocket>(server.port(), token);
        if (!server.waitForConnection(deviceId, 5s)) fail("the device's socket was refused");
        ScreenshotRequest shot;
        shot.mode = "PerSession";
        shot.requestId = "req_fuzz";
        shot.promptId = "prm_fuzz_shot";
        LiveRequest live;
        live.sessionId = "live_fuzz";
        live.promptId = "prm_fuzz_live";
        ControlRequest control;
        control.requestId = "ctl_fuzz";
        // The customer allows each in turn, as the backend's rules need before it grants
        // control or takes images, and the device confirms its leases.
        if (!server.askScreenshot(deviceId, shot) ||
            !answer("/v1/sdk/captures/req_fuzz/respond", R"({"allow":true})") ||
            !server.requestLive(deviceId, live) ||
            !answer("/v1/sdk/live/live_fuzz/respond", R"({"allow":true})") ||
            !server.activateLive(deviceId, "live_fuzz", "share-1") ||
            !answer("/v1/sdk/live/live_fuzz/indicator",
                    R"({"kind":"sharing","generation":"share-1"})") ||
            !server.requestControl(deviceId, "live_fuzz", control) ||
            !answer("/v1/sdk/live/live_fuzz/control/respond",
                    R"({"allow":true,"requestId":"ctl_fuzz"})") ||
            !server.grantControl(deviceId, "live_fuzz", "ctl-1") ||
            !answer("/v1/sdk/live/live_fuzz/indicator",
                    R"({"kind":"control","generation":"ctl-1"})")) {
            fail("the device's session could not be set up");
        }
    }

    // The device's POST of `body` to `path`; true on a 200.
    bool answer(const std::string& path, const std::string& body) {
        const std::string written = server.answerBytes(
            "POST " + path + " HTTP/1.1\r\nHost: 127.0.0.1\r\nX-Virela-Device: " + token +
            "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body);
        return written.starts_with("HTTP/1.1 200");
    }
    ~Backend() {
        // The server first: its sockets close, and the device's reader ends.
        server.stop();
        socket.reset();
    }
};

// Walks the responses written one after another; aborts on one that is not whole or that says
// the backend failed.
void checkResponses(std::string_view written) {
    while (!written.empty()) {
        const std::size_t headEnd = written.find("\r\n\r\n");
        if (!written.starts_with("HTTP/") || written.size() < 12 ||
            headEnd == std::string_view::npos) {
            fail("a response is not whole");
        }
        const std::string_view head = written.substr(0, headEnd);
        if (head.substr(9, 3) == "500") fail("the backend failed on a request");
        std::size_t length = 0;
        constexpr std::string_view kLength = "\r\nContent-Length: ";
        if (const std::size_t at = head.find(kLength); at != std::string_view::npos) {
            length = std::strtoull(std::string(head.substr(at + kLength.size(), 20)).c_str(),
                                   nullptr, 10);
        }
        if (written.size() - headEnd - 4 < length) fail("a response is shorter than it says");
        written.remove_prefix(headEnd + 4 + length);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static std::unique_ptr<Backend> backend;
    static int answered = 0;
    if (!backend || ++answered % kInputsPerServer == 0) {
        backend.reset();
        backend = std::make_unique<Backend>();
    }
    std::string bytes(reinterpret_cast<const char*>(data), size);
    replaceAll(bytes, kTokenStandIn, backend->token);
    replaceAll(bytes, kDeviceStandIn, backend->deviceId);
    replaceAll(bytes, kPortStandIn, backend->port);
    const std::string written = backend->server.answerBytes(bytes);
    // To see what an input got: run it alone with VIRELA_FUZZ_ECHO=1.
    static const bool echo = std::getenv("VIRELA_FUZZ_ECHO") != nullptr;
    if (echo) std::fwrite(written.data(), 1, written.size(), stderr);
    checkResponses(written);
    return 0;
}
