// virela-devserver: the local backend as a program, for the demo and for poking at by hand.
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <string>
#include <string_view>

#include <pthread.h>

#include "tools/devserver/server.hpp"

namespace {

void usage(std::ostream& out) {
    out << "usage: virela-devserver [--port N] [--key KEY]...\n"
           "  --port N    listen on 127.0.0.1:N (default 0: any free port)\n"
           "  --key KEY   accept this API key for registration (repeatable;\n"
           "              default vk_demo_local)\n";
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
        std::cout << request.method << ' ' << request.target << ' '
                  << (status == 0 ? std::string("closed") : std::to_string(status)) << " ("
                  << request.body.size() << " bytes)" << std::endl;
    };

    // Block the signals before the server thread exists so that it inherits the mask and
    // only sigwait below sees them.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);

    virela::devserver::Server server;
    try {
        server.start(options);
    } catch (const std::exception& e) {
        std::cerr << "virela-devserver: " << e.what() << '\n';
        return 1;
    }
    std::cout << "virela-devserver listening on " << server.url() << std::endl;

    int received = 0;
    sigwait(&signals, &received);
    server.stop();
    return 0;
}
