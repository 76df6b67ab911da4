// virela-devserver: the local backend as a program, for the demo and for poking at by hand.
#include <poll.h>
#include <pthread.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tools/devserver/console_auth.hpp"
#include "tools/devserver/server.hpp"

namespace {

using virela::devserver::SocketEvent;

void usage(std::ostream& out) {
    out << "usage: virela-devserver [--port N] [--listen ADDRESS] [--key KEY]... [--no-console]\n"
           "                       [--console-dir DIR] [--traffic FILE]\n"
           "  --port N    listen on 127.0.0.1:N (default 0: any free port)\n"
           "  --listen ADDRESS     listen on ADDRESS instead of 127.0.0.1, e.g. 0.0.0.0 for every\n"
           "                       interface: other machines can then reach the backend, and\n"
           "                       only the console's token keeps them out of the console\n"
           "  --key KEY   accept this API key for registration (repeatable;\n"
           "              default vk_demo_local)\n"
           "  --no-console         do not serve the agent's console at /console\n"
           "  --console-dir DIR    serve the console's files from DIR (for working on them)\n"
           "  --traffic FILE       append the devices' traffic to FILE as JSON lines, for\n"
           "                       tests/protocol/validate-traffic.mjs\n"
           "The console's address, with its token, is printed at start.\n"
           "commands on stdin, one a line (DEVICE: id, token or support code):\n"
           "  push DEVICE TEXT     send TEXT as a text frame to the device's socket\n"
           "  close DEVICE [CODE]  close the socket with CODE (default 1000)\n"
           "  drop DEVICE          cut the connection without a close frame\n"
           "  ask DEVICE [MODE]    ask for a screenshot (MODE: AskEveryTime, PerSession,\n"
           "                       LiveView; default AskEveryTime)\n"
           "  capture DEVICE REQ   tell the device to capture for request REQ\n"
           "  expire DEVICE        tell the device its prompt expired\n"
           "  deny DEVICE          tell the device the request was withdrawn\n"
           "  endcall DEVICE       end the call, and with it every screenshot allowance\n"
           "  captures             list the screenshot requests and their state\n"
           "  live DEVICE [SESSION] ask to watch the device live\n"
           "  activate DEVICE SESSION [GEN]\n"
           "                       start the live session (with generation GEN)\n"
           "  end DEVICE SESSION   end the live session; its frames then get 410\n"
           "  note DEVICE SESSION KIND [ARG]\n"
           "                       a live note: frameSaved [guides], recordingStarted [GEN]\n"
           "                       or recordingStopped\n"
           "  guide DEVICE SESSION KIND [K=V]...\n"
           "                       a guide (KIND: laser, laser-off, arrow, box, fill, label;\n"
           "                       K: x, y, x2, y2, w, h, color, and text, which takes the\n"
           "                       rest of the line)\n"
           "  refuse KIND [off]    answer indicator confirmations of KIND (sharing,\n"
           "                       recording, control) with 409 lease_mismatch, or stop\n"
           "  frames               list the live sessions: answers, frames, rate, indicators\n"
           "  views DEVICE         list the view changes the device reported\n"
           "remote control within a live session; DEVICE SESSION may be left out to mean the\n"
           "last ones a command named:\n"
           "  control [DEVICE SESSION]    ask the customer to let support control the screen\n"
           "  grant [DEVICE SESSION] [GEN] start control (with lease generation GEN)\n"
           "  release [DEVICE SESSION]    end control; the live session goes on\n"
           "  end                         end the last live session, and control with it\n"
           "  tap [DEVICE SESSION] X Y    tap at X, Y (fractions of the window, 0 to 1)\n"
           "  scroll [DEVICE SESSION] X Y DX DY\n"
           "                              scroll at X, Y by DX, DY (fractions of the window)\n"
           "  type [DEVICE SESSION] TEXT  type TEXT (the rest of the line)\n"
           "  key [DEVICE SESSION] NAME   press a key: backspace or enter\n"
           "  controls                    list control per session: answers, feedback, inputs\n";
}

// The device and session the last command named, for the short forms of the control commands.
struct Console {
    std::string device;
    std::string session;
};

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

std::string describe(const virela::devserver::LiveRecord& record) {
    char rate[32];
    std::snprintf(rate, sizeof rate, "%.1f", record.frameRate);
    std::string line = record.sessionId + ' ' + record.deviceId + ' ' + record.state;
    if (record.generation) line += " gen " + *record.generation;
    if (!record.promptsShown.empty()) {
        line += " shown " + std::to_string(record.promptsShown.size());
    }
    for (bool allow : record.answers) line += allow ? " allowed" : " denied";
    line += ' ' + std::to_string(record.frames) + " frames " + rate + "/s";
    if (record.frameUrl) line += ' ' + *record.frameUrl;
    for (const auto& indicator : record.indicators) {
        line += ' ' + indicator.kind + '@' + indicator.generation +
                (indicator.accepted ? "" : "(refused)");
    }
    return line;
}

std::string describe(const virela::devserver::ControlRecord& control) {
    std::string line = "control " + (control.state.empty() ? "-" : control.state);
    if (!control.requestId.empty()) line += " request " + control.requestId;
    if (control.generation) line += " gen " + *control.generation;
    for (const auto& answer : control.answers) {
        line += answer.allow ? " allowed" : " denied";
        if (answer.requestId) line += '(' + *answer.requestId + ')';
    }
    line += ' ' + std::to_string(control.inputs) + " inputs";
    for (const std::string& kind : control.feedback) line += ' ' + kind;
    return line;
}

// "guide" arguments: KEY=VALUE words, where "text=" takes the rest of the line. False for a
// word that is not one of them.
bool readGuide(std::string_view rest, virela::devserver::Guide& guide) {
    for (std::string_view word = nextWord(rest); !word.empty(); word = nextWord(rest)) {
        const std::size_t equals = word.find('=');
        if (equals == std::string_view::npos) return false;
        const std::string_view key = word.substr(0, equals);
        const std::string value(word.substr(equals + 1));
        if (key == "text") {
            guide.text = rest.empty() ? value : value + ' ' + std::string(rest);
            return true;
        }
        if (key == "color") {
            guide.color = value;
            continue;
        }
        std::optional<double>* number = key == "x"    ? &guide.x
                                        : key == "y"  ? &guide.y
                                        : key == "x2" ? &guide.x2
                                        : key == "y2" ? &guide.y2
                                        : key == "w"  ? &guide.w
                                        : key == "h"  ? &guide.h
                                                      : nullptr;
        if (number == nullptr) return false;
        try {
            std::size_t used = 0;
            *number = std::stod(value, &used);
            if (used != value.size()) return false;
        } catch (const std::exception&) {
            return false;
        }
    }
    return true;
}

// The live commands that name a device and a session; false when `command` is none of them.
bool runLiveCommand(virela::devserver::Server& server, Console& console, std::string_view command,
                    const std::string& device, std::string_view rest) {
    const std::string noSocket = "no socket for " + device;
    const std::string session(nextWord(rest));
    if (command == "live") {
        virela::devserver::LiveRequest request;
        if (!session.empty()) request.sessionId = session;
        request.logoUrl = server.logoUrl();
        const auto asked = server.requestLive(device, std::move(request));
        if (asked) console = {device, asked->sessionId};
        say(asked ? "asked " + device + " live: session " + asked->sessionId + ", prompt " +
                        asked->promptId
                  : noSocket);
        return true;
    }
    const bool known =
        command == "activate" || command == "end" || command == "note" || command == "guide";
    if (!known) return false;
    if (session.empty()) {
        say("usage: " + std::string(command) + " DEVICE SESSION ...");
        return true;
    }
    console = {device, session};
    if (command == "activate") {
        const std::string_view generation = nextWord(rest);
        const bool sent = server.activateLive(
            device, session,
            generation.empty() ? std::nullopt : std::optional<std::string>(generation));
        say(sent ? "activated " + session + " on " + device : noSocket);
    } else if (command == "end") {
        say(server.endLive(device, session) ? "ended " + session
                                            : "ended " + session + "; " + noSocket);
    } else if (command == "note") {
        virela::devserver::LiveNote note;
        note.kind = nextWord(rest);
        const std::string_view argument = nextWord(rest);
        if (note.kind == "frameSaved") {
            note.guides = argument == "guides";
        } else if (note.kind == "recordingStarted" && !argument.empty()) {
            note.generation = std::string(argument);
        } else if (note.kind != "recordingStarted" && note.kind != "recordingStopped") {
            say("note kinds: frameSaved [guides] | recordingStarted [GEN] | recordingStopped");
            return true;
        }
        const auto sent = server.sendLiveNote(device, session, std::move(note));
        say(sent ? "note sent for " + session + ", prompt " + sent->promptId : noSocket);
    } else {
        virela::devserver::Guide guide;
        guide.kind = nextWord(rest);
        if (guide.kind.empty() || !readGuide(rest, guide)) {
            say("usage: guide DEVICE SESSION KIND [x=.. y=.. x2=.. y2=.. w=.. h=.. color=#rrggbb "
                "text=...]");
            return true;
        }
        say(server.sendGuide(device, session, guide) ? "guide sent for " + session : noSocket);
    }
    return true;
}

std::vector<std::string_view> words(std::string_view rest) {
    std::vector<std::string_view> found;
    for (std::string_view word = nextWord(rest); !word.empty(); word = nextWord(rest)) {
        found.push_back(word);
    }
    return found;
}

std::optional<double> number(std::string_view text) {
    try {
        std::size_t used = 0;
        const double value = std::stod(std::string(text), &used);
        if (used == text.size()) return value;
    } catch (const std::exception&) {
    }
    return std::nullopt;
}

// The control commands; false when `command` is none of them. Each takes DEVICE SESSION first,
// or nothing there to mean the console's current pair, told apart by how many words follow.
bool runControlCommand(virela::devserver::Server& server, Console& console,
                       std::string_view command, std::string_view rest) {
    using virela::devserver::ControlInput;
    const std::vector<std::string_view> given = words(rest);
    // How many words the short form takes; with two more, the first two are DEVICE SESSION.
    // "end" with words is the live command's.
    const int arguments = command == "control" || command == "release" || command == "end" ? 0
                          : command == "key"                                               ? 1
                          : command == "tap"                                               ? 2
                          : command == "scroll"                                            ? 4
                          : command == "grant" || command == "type"                        ? 1
                                                                                           : -1;
    if (arguments < 0 || (command == "end" && !given.empty())) return false;
    // A text names a device only when its first word is one, as a text rarely is; a grant's
    // generation is optional.
    const bool named = command == "type" ? given.size() >= 3 && server.device(given[0])
                       : command == "grant"
                           ? given.size() >= 2
                           : given.size() == static_cast<std::size_t>(arguments) + 2;
    if (named) {
        console = {std::string(given[0]), std::string(given[1])};
        nextWord(rest);
        nextWord(rest);
    } else if (console.device.empty()) {
        say("no device and session yet: name them, as in " + std::string(command) +
            " DEVICE SESSION ...");
        return true;
    }
    const std::string& device = console.device;
    const std::string& session = console.session;
    const std::string noSocket = "no socket for " + device;
    const std::vector<std::string_view> args = words(rest);

    if (command == "end") {
        say(server.endLive(device, session) ? "ended " + session
                                            : "ended " + session + "; " + noSocket);
        return true;
    }
    if (command == "control" && args.empty()) {
        virela::devserver::ControlRequest request;
        request.logoUrl = server.logoUrl();
        const auto asked = server.requestControl(device, session, std::move(request));
        say(asked
                ? "asked " + device + " for control of " + session + ": request " + asked->requestId
                : noSocket);
        return true;
    }
    if (command == "grant" && args.size() <= 1) {
        const bool sent = server.grantControl(
            device, session,
            args.empty() ? std::nullopt : std::optional<std::string>(args.front()));
        say(sent ? "granted control of " + session + " on " + device
                 : "not granted: no socket for " + device +
                       ", or the customer has not allowed a pending request");
        return true;
    }
    if (command == "release" && args.empty()) {
        say(server.endControl(device, session)
                ? "released control of " + session
                : "released control of " + session + "; " + noSocket);
        return true;
    }
    std::optional<ControlInput> input;
    if (command == "type" && !rest.empty()) {
        input = ControlInput::typeText(std::string(rest));
    } else if (command == "key" && args.size() == 1) {
        input = ControlInput::pressKey(std::string(args.front()));
    } else if (command == "tap" && args.size() == 2) {
        const auto x = number(args[0]), y = number(args[1]);
        if (x && y) input = ControlInput::tapAt(*x, *y);
    } else if (command == "scroll" && args.size() == 4) {
        const auto x = number(args[0]), y = number(args[1]);
        const auto dx = number(args[2]), dy = number(args[3]);
        if (x && y && dx && dy) input = ControlInput::scrollAt(*x, *y, *dx, *dy);
    }
    if (!input) {
        constexpr std::pair<std::string_view, std::string_view> kUsage[] = {
            {"control", "control [DEVICE SESSION]"},
            {"grant", "grant [DEVICE SESSION] [GEN]"},
            {"release", "release [DEVICE SESSION]"},
            {"tap", "tap [DEVICE SESSION] X Y"},
            {"scroll", "scroll [DEVICE SESSION] X Y DX DY"},
            {"type", "type [DEVICE SESSION] TEXT"},
            {"key", "key [DEVICE SESSION] backspace|enter"}};
        for (const auto& [name, usage] : kUsage) {
            if (name == command) say("usage: " + std::string(usage));
        }
        return true;
    }
    say(server.sendInput(device, session, *input)
            ? "sent " + input->action + " to " + session + " on " + device
            : "not sent: no socket for " + device +
                  ", or no control lease the device has confirmed");
    return true;
}

void runCommand(virela::devserver::Server& server, Console& console, std::string_view line) {
    constexpr const char* kCommands =
        "commands: push DEVICE TEXT | close DEVICE [CODE] | drop DEVICE | ask DEVICE [MODE] | "
        "capture DEVICE REQ | expire DEVICE | deny DEVICE | endcall DEVICE | captures | "
        "live DEVICE [SESSION] | "
        "activate DEVICE SESSION [GEN] | end DEVICE SESSION | note DEVICE SESSION KIND [ARG] | "
        "guide DEVICE SESSION KIND [K=V]... | refuse KIND [off] | frames | views DEVICE | "
        "control [DEVICE SESSION] | grant [DEVICE SESSION] [GEN] | release [DEVICE SESSION] | "
        "end | tap [DEVICE SESSION] X Y | scroll [DEVICE SESSION] X Y DX DY | "
        "type [DEVICE SESSION] TEXT | key [DEVICE SESSION] NAME | controls";
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
    if (command == "frames") {
        const auto sessions = server.liveSessions();
        if (sessions.empty()) say("no live sessions yet");
        for (const auto& record : sessions) say(describe(record));
        return;
    }
    if (command == "controls") {
        bool any = false;
        for (const auto& record : server.liveSessions()) {
            const auto& control = record.control;
            if (control.state.empty() && control.answers.empty() && control.feedback.empty()) {
                continue;
            }
            any = true;
            say(record.sessionId + ' ' + describe(control));
        }
        if (!any) say("no control yet");
        return;
    }
    if (runControlCommand(server, console, command, rest)) return;
    if (command == "refuse") {
        const std::string kind(nextWord(rest));
        if (kind.empty()) return say(kCommands);
        const bool refuse = nextWord(rest) != "off";
        server.refuseIndicator(kind, refuse);
        say(refuse ? "refusing " + kind + " confirmations with 409 lease_mismatch"
                   : "accepting " + kind + " confirmations");
        return;
    }
    const std::string device(nextWord(rest));
    if (!device.empty() && runLiveCommand(server, console, command, device, rest)) return;
    if (command == "views" && !device.empty()) {
        const auto views = server.viewChanges(device);
        if (views.empty()) say("no view changes from " + device);
        for (const auto& view : views) say(view.sessionId + ' ' + view.kind);
        return;
    }
    const bool known = command == "push" || command == "close" || command == "drop" ||
                       command == "ask" || command == "capture" || command == "expire" ||
                       command == "deny" || command == "endcall";
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
        say(server.sendCapture(device, requestId)
                ? "capture sent for " + requestId
                : "not sent: no socket for " + device + ", or no allowed call for " + requestId);
    } else if (command == "expire") {
        say(server.sendExpired(device) ? "expired sent to " + device : noSocket);
    } else if (command == "deny") {
        say(server.sendDenied(device) ? "denied sent to " + device : noSocket);
    } else if (command == "endcall") {
        say(server.endCall(device) ? "call ended on " + device
                                   : "call ended for the backend; " + noSocket);
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
    options.consoleToken = virela::devserver::freshConsoleToken();
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
        } else if (arg == "--listen" && hasValue) {
            options.host = argv[++i];
            options.beyondLoopback = true;
        } else if (arg == "--no-console") {
            options.consoleToken.reset();
        } else if (arg == "--console-dir" && hasValue) {
            options.consoleDirectory = argv[++i];
        } else if (arg == "--traffic" && hasValue && argv[i + 1][0] != '\0') {
            options.trafficLog = argv[++i];
        } else {
            std::cerr << "virela-devserver: bad argument \"" << arg << "\"\n";
            usage(std::cerr);
            return 2;
        }
    }

    options.onRequest = [](const virela::devserver::RecordedRequest& request, int status) {
        // The console polls several times a second and its links carry the token: its reads
        // would drown the log, and its actions are shown by path alone.
        const bool console = virela::devserver::consoleGuards(request.path);
        if (console && request.method == "GET" && status < 400) return;
        std::string line = request.method + ' ' + (console ? request.path : request.target) + ' ' +
                           (status == 0 ? std::string("closed") : std::to_string(status)) + " (" +
                           std::to_string(request.body.size()) + " bytes)";
        // What the device says about control is short and worth reading as it comes.
        if (request.path.find("/control/") != std::string::npos) {
            line += ' ' + printable(request.body);
        }
        say(line);
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
    if (options.consoleToken) say("console: " + server.consoleUrl());
    say("protocol reference: " + server.url() + "/docs");

    // Commands from stdin until a signal; a closed stdin just leaves the signal to wait for.
    Console console;
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
            runCommand(server, console, std::string_view(pending).substr(0, end));
            pending.erase(0, end + 1);
        }
    }
    server.stop();
    ::close(signalFd);
    return 0;
}
