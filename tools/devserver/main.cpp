// virela-devserver: the local backend as a program, for the demo and for poking at by hand.
#include <poll.h>
#include <pthread.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <mutex>
#include <stdexcept>
#include <string>
#include <string_view>

#include "tools/devserver/server.hpp"

namespace {

using virela::devserver::SocketEvent;

void usage(std::ostream& out) {
    out << "usage: virela-devserver [--port N] [--key KEY]...\n"
           "  --port N    listen on 127.0.0.1:N (default 0: any free port)\n"
           "  --key KEY   accept this API key for registration (repeatable;\n"
           "              default vk_demo_local)\n"
           "commands on stdin, one a line (DEVICE: id, token or support code):\n"
           "  push DEVICE TEXT     send TEXT as a text frame to the device's socket\n"
           "  close DEVICE [CODE]  close the socket with CODE (default 1000)\n"
           "  drop DEVICE          cut the connection without a close frame\n"
           "  ask DEVICE [MODE]    ask for a screenshot (MODE: AskEveryTime, PerSession,\n"
           "                       LiveView; default AskEveryTime)\n"
           "  capture DEVICE REQ   tell the device to capture for request REQ\n"
           "  expire DEVICE        tell the device its prompt expired\n"
           "  deny DEVICE          tell the device the request was withdrawn\n"
           "  captures             list the screenshot requests and their state\n";
}

// The server thread and the command loop both print; whole lines only.
std::mutex outputMutex;

void say(const std::string& line) {
    std::lock_guard lock(outputMutex);
    std::cout << line << std::endl;
}

// A frame as one line of bounded length.
std::string printable(std::string_view text) {
    constexpr std::size_t kShown = 300;
    std::string line;
    for (char c : text.substr(0, kShown)) {
        if (c == '\n') {
            line += "\\n";
        } else if (c == '\r') {
            line += "\\r";
        } else {
            line += c;
        }
    }
    if (text.size() > kShown) line += "... (" + std::to_string(text.size()) + " bytes)";
    return line;
}

std::string describe(const SocketEvent& event) {
    std::string line = "socket " + event.deviceId + ' ';
    switch (event.kind) {
        case SocketEvent::Kind::connected:
            return line + "connected";
        case SocketEvent::Kind::text:
            return line + "text: " + printable(event.data);
        case SocketEvent::Kind::binary:
            return line + "binary: " + std::to_string(event.data.size()) + " bytes";
        case SocketEvent::Kind::closed:
            return line + "closed (" + std::to_string(event.closeCode) + ")";
    }
    return line;
}

// The first space-separated word of `rest`, which keeps what follows it.
std::string_view nextWord(std::string_view& rest) {
    const std::size_t start = rest.find_first_not_of(' ');
    if (start == std::string_view::npos) {
        rest = {};
        return {};
    }
    rest.remove_prefix(start);
    const std::size_t end = std::min(rest.find(' '), rest.size());
    const std::string_view word = rest.substr(0, end);
    rest.remove_prefix(end);
    if (!rest.empty()) rest.remove_prefix(1);
    return word;
}

std::string describe(const virela::devserver::CaptureRecord& record) {
    std::string line = record.requestId + ' ' + (record.mode.empty() ? "-" : record.mode);
    line += record.promptShown ? " shown" : "";
    if (record.answer) line += *record.answer ? " allowed" : " denied";
    if (record.sessionExpiresAt) line += " until " + *record.sessionExpiresAt;
    if (record.imageUrl) line += ' ' + *record.imageUrl;
    return line;
}

void runCommand(virela::devserver::Server& server, std::string_view line) {
    constexpr const char* kCommands =
        "commands: push DEVICE TEXT | close DEVICE [CODE] | drop DEVICE | ask DEVICE [MODE] | "
        "capture DEVICE REQ | expire DEVICE | deny DEVICE | captures";
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    std::string_view rest = line;
    const std::string_view command = nextWord(rest);
    if (command.empty()) return;
    if (command == "captures") {
        const auto records = server.captureRequests();
        if (records.empty()) say("no screenshot requests yet");
        for (const auto& record : records) say(describe(record));
        return;
    }
    const std::string device(nextWord(rest));
    const bool known = command == "push" || command == "close" || command == "drop" ||
                       command == "ask" || command == "capture" || command == "expire" ||
                       command == "deny";
    if (device.empty() || !known) {
        say(kCommands);
        return;
    }
    const std::string noSocket = "no socket for " + device;
    if (command == "push") {
        say(server.pushText(device, std::string(rest)) ? "pushed to " + device : noSocket);
    } else if (command == "drop") {
        server.dropConnection(device);
    } else if (command == "ask") {
        virela::devserver::ScreenshotRequest request;
        if (const std::string_view mode = nextWord(rest); !mode.empty()) request.mode = mode;
        request.logoUrl = server.logoUrl();
        const auto asked = server.askScreenshot(device, std::move(request));
        say(asked ? "asked " + device + ": request " + asked->requestId + ", prompt " +
                        asked->promptId
                  : noSocket);
    } else if (command == "capture") {
        const std::string requestId(nextWord(rest));
        if (requestId.empty()) return say(kCommands);
        say(server.sendCapture(device, requestId) ? "capture sent for " + requestId : noSocket);
    } else if (command == "expire") {
        say(server.sendExpired(device) ? "expired sent to " + device : noSocket);
    } else if (command == "deny") {
        say(server.sendDenied(device) ? "denied sent to " + device : noSocket);
    } else {
        const std::string code(nextWord(rest));
        try {
            server.closeConnection(device, code.empty() ? 1000 : std::stoi(code));
        } catch (const std::exception&) {
            say("not a close code: " + code);
        }
    }
}

bool parsePort(std::string_view text, std::uint16_t& port) {
    if (text.empty() || text.size() > 5) return false;
    unsigned value = 0;
    for (char c : text) {
        if (c < '0' || c > '9') return false;
        value = value * 10 + static_cast<unsigned>(c - '0');
    }
    if (value > 65535) return false;
    port = static_cast<std::uint16_t>(value);
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    virela::devserver::Options options;
    bool keysGiven = false;
    for (int i = 1; i < argc; ++i) {
        const std::string_view arg = argv[i];
        const bool hasValue = i + 1 < argc;
        if (arg == "--help" || arg == "-h") {
            usage(std::cout);
            return 0;
        } else if (arg == "--port" && hasValue && parsePort(argv[i + 1], options.port)) {
            ++i;
        } else if (arg == "--key" && hasValue && argv[i + 1][0] != '\0') {
            if (!keysGiven) options.apiKeys.clear();
            keysGiven = true;
            options.apiKeys.emplace_back(argv[++i]);
        } else {
            std::cerr << "virela-devserver: bad argument \"" << arg << "\"\n";
            usage(std::cerr);
            return 2;
        }
    }

    options.onRequest = [](const virela::devserver::RecordedRequest& request, int status) {
        say(request.method + ' ' + request.target + ' ' +
            (status == 0 ? std::string("closed") : std::to_string(status)) + " (" +
            std::to_string(request.body.size()) + " bytes)");
    };
    options.onSocketEvent = [](const SocketEvent& event) { say(describe(event)); };

    // Block the signals before the server thread exists so that it inherits the mask and
    // only the signalfd below sees them.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    const int signalFd = signalfd(-1, &signals, SFD_CLOEXEC);
    if (signalFd < 0) {
        std::cerr << "virela-devserver: signalfd failed\n";
        return 1;
    }

    virela::devserver::Server server;
    try {
        server.start(options);
    } catch (const std::exception& e) {
        std::cerr << "virela-devserver: " << e.what() << '\n';
        return 1;
    }
    say("virela-devserver listening on " + server.url());

    // Commands from stdin until a signal; a closed stdin just leaves the signal to wait for.
    bool stdinOpen = true;
    std::string pending;
    for (;;) {
        pollfd fds[2] = {{signalFd, POLLIN, 0}, {stdinOpen ? STDIN_FILENO : -1, POLLIN, 0}};
        if (::poll(fds, 2, -1) < 0) {
            if (errno == EINTR) continue;
            break;
        }
        if (fds[0].revents != 0) break;
        if (fds[1].revents == 0) continue;
        char chunk[4096];
        const ssize_t n = ::read(STDIN_FILENO, chunk, sizeof chunk);
        if (n <= 0) {
            stdinOpen = false;
            continue;
        }
        pending.append(chunk, static_cast<std::size_t>(n));
        for (std::size_t end; (end = pending.find('\n')) != std::string::npos;) {
            runCommand(server, std::string_view(pending).substr(0, end));
            pending.erase(0, end + 1);
        }
    }
    server.stop();
    ::close(signalFd);
    return 0;
}
