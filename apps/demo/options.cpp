#include "apps/demo/options.hpp"

#include <charconv>

#include "core/base/url.hpp"

namespace demo {

void printUsage(std::FILE* out) {
    std::fputs(
        "usage: virela-demo [--base-url URL] [--key KEY] [--state-dir DIR] [--stay SECONDS]\n"
        "                   [--out DIR] [--consent allow|deny|ask] [--console [--console-dir "
        "DIR]]\n"
        "                   [--traffic FILE]\n"
        "\n"
        "Without --base-url the demo starts the local backend on 127.0.0.1, plays the agent's\n"
        "side of a short session against it and stops. With --console it starts the local\n"
        "backend with the agent's console instead, prints the console's address and waits: you\n"
        "play the agent in a browser. With --base-url it registers with that backend and stays\n"
        "connected, printing every push it handles, until interrupted.\n"
        "  --base-url URL    the backend to talk to (http or https)\n"
        "  --key KEY         the API key (default vk_demo_local, which the local backend accepts)\n"
        "  --state-dir DIR   where the install identifier is kept (default ~/.local/state/virela)\n"
        "  --stay SECONDS    stay connected this long before stopping (0: until interrupted)\n"
        "  --out DIR         where the screenshots the agent receives are written (default\n"
        "                    ./virela-captures)\n"
        "  --consent ANSWER  how the customer answers consent sheets: allow (default), deny, or\n"
        "                    ask (the sheet is printed and you answer at the terminal)\n"
        "  --console         play the agent yourself, in the browser console of the local backend\n"
        "  --console-dir DIR serve the console's files from DIR instead of the built-in copies\n"
        "  --traffic FILE    append what the device and the local backend say to each other to\n"
        "                    FILE, one JSON object a line, to check it against docs/protocol\n",
        out);
}

namespace {
// Seconds as a plain decimal, read the same under any locale.
std::optional<double> seconds(const std::string& text) {
    double value = 0;
    const char* end = text.data() + text.size();
    auto [ptr, error] = std::from_chars(text.data(), end, value);
    if (error != std::errc() || ptr != end || !(value >= 0)) return std::nullopt;
    return value;
}
}  // namespace

std::optional<Options> parseOptions(int argc, char** argv) {
    Options options;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        auto value = [&]() -> std::optional<std::string> {
            if (i + 1 >= argc) return std::nullopt;
            return std::string(argv[++i]);
        };
        std::optional<std::string> v;
        if (arg == "--help" || arg == "-h") {
            options.help = true;
        } else if (arg == "--base-url" && (v = value())) {
            auto parsed = virela::Url::parse(*v);
            if (!parsed || (parsed->scheme() != "http" && parsed->scheme() != "https") ||
                parsed->host().empty()) {
                std::fprintf(stderr, "virela-demo: --base-url must be an http or https URL\n");
                return std::nullopt;
            }
            options.baseUrl = *v;
        } else if (arg == "--key" && (v = value())) {
            options.key = *v;
        } else if (arg == "--state-dir" && (v = value())) {
            options.stateDir = *v;
        } else if (arg == "--out" && (v = value())) {
            options.outDir = *v;
        } else if (arg == "--consent" && (v = value())) {
            auto policy = consentPolicy(*v);
            if (!policy) return std::nullopt;
            options.consent = *policy;
        } else if (arg == "--console") {
            options.console = true;
        } else if (arg == "--console-dir" && (v = value())) {
            options.consoleDir = *v;
        } else if (arg == "--traffic" && (v = value())) {
            options.traffic = *v;
        } else if (arg == "--stay" && (v = value())) {
            options.staySeconds = seconds(*v);
            if (!options.staySeconds) return std::nullopt;
        } else {
            std::fprintf(stderr, "virela-demo: unexpected argument '%s'\n", arg.c_str());
            return std::nullopt;
        }
    }
    if (options.traffic && options.baseUrl) {
        std::fprintf(stderr,
                     "virela-demo: --traffic records the local backend; leave out --base-url\n");
        return std::nullopt;
    }
    if (options.console && options.baseUrl) {
        std::fprintf(stderr,
                     "virela-demo: --console runs its own local backend; leave out --base-url\n");
        return std::nullopt;
    }
    return options;
}

}  // namespace demo
