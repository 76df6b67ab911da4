#include "tools/devserver/console_auth.hpp"

#include <algorithm>
#include <fstream>
#include <iterator>
#include <utility>

#include "tools/devserver/console_files.hpp"
#include "tools/devserver/exchange.hpp"
#include "tools/devserver/router.hpp"
#include "tools/devserver/server.hpp"

namespace virela::devserver {

namespace {

constexpr std::string_view kCookie = "virela_console_";

// Compares in time that depends only on the length, so the token cannot be guessed byte by byte.
bool sameSecret(std::string_view given, std::string_view token) {
    if (given.size() != token.size() || token.empty()) return false;
    unsigned char difference = 0;
    for (std::size_t i = 0; i < token.size(); ++i) {
        difference |= static_cast<unsigned char>(given[i] ^ token[i]);
    }
    return difference == 0;
}

std::string cookieName(std::uint16_t port) {
    // Cookies ignore ports; a name per port keeps two local backends from trading tokens.
    return std::string(kCookie) + std::to_string(port);
}

std::optional<std::string_view> cookieValue(std::string_view cookies, std::string_view name) {
    while (!cookies.empty()) {
        const std::size_t end = std::min(cookies.find(';'), cookies.size());
        std::string_view pair = cookies.substr(0, end);
        while (!pair.empty() && pair.front() == ' ') pair.remove_prefix(1);
        const std::size_t equals = pair.find('=');
        if (equals != std::string_view::npos && pair.substr(0, equals) == name) {
            return pair.substr(equals + 1);
        }
        cookies.remove_prefix(std::min(end + 1, cookies.size()));
    }
    return std::nullopt;
}

std::string contentTypeOf(std::string_view name) {
    auto endsWith = [name](std::string_view suffix) { return name.ends_with(suffix); };
    if (endsWith(".html")) return "text/html; charset=utf-8";
    if (endsWith(".js") || endsWith(".mjs")) return "text/javascript; charset=utf-8";
    if (endsWith(".css")) return "text/css; charset=utf-8";
    if (endsWith(".svg")) return "image/svg+xml";
    if (endsWith(".png")) return "image/png";
    return "application/octet-stream";
}

bool plainFileName(std::string_view name) {
    if (name.empty() || name.front() == '.' || name.ends_with(".md")) return false;
    for (const char c : name) {
        const bool allowed = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                             (c >= '0' && c <= '9') || c == '.' || c == '_' || c == '-';
        if (!allowed) return false;
    }
    return true;
}

std::optional<std::string> readConsoleFile(const std::string& directory, std::string_view name) {
    if (!plainFileName(name)) return std::nullopt;
    if (directory.empty()) {
        const std::optional<std::string_view> built = embeddedConsoleFile(name);
        if (!built) return std::nullopt;
        return std::string(*built);
    }
    std::ifstream file(directory + "/" + std::string(name), std::ios::binary);
    if (!file) return std::nullopt;
    return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

}  // namespace

std::optional<std::string_view> queryValue(std::string_view target, std::string_view name) {
    const std::size_t question = target.find('?');
    if (question == std::string_view::npos) return std::nullopt;
    std::string_view query = target.substr(question + 1);
    while (!query.empty()) {
        const std::size_t end = std::min(query.find('&'), query.size());
        const std::string_view pair = query.substr(0, end);
        const std::size_t equals = pair.find('=');
        if (pair.substr(0, equals) == name) {
            return equals == std::string_view::npos ? std::string_view() : pair.substr(equals + 1);
        }
        query.remove_prefix(std::min(end + 1, query.size()));
    }
    return std::nullopt;
}

std::string freshConsoleToken() {
    return randomHex(32);
}

bool consoleGuards(std::string_view path) {
    return path == "/console" || path.starts_with("/console/") || path.starts_with("/captures/") ||
           path.starts_with("/live/");
}

bool carriesConsoleToken(const RecordedRequest& request, std::string_view token,
                         std::uint16_t port) {
    // The token itself, in the query or as a Bearer token: only whoever was given it has it.
    if (auto given = queryValue(request.target, "token"); given && sameSecret(*given, token)) {
        return true;
    }
    if (auto authorization = request.header("Authorization")) {
        constexpr std::string_view kBearer = "Bearer ";
        if (authorization->starts_with(kBearer) &&
            sameSecret(std::string_view(*authorization).substr(kBearer.size()), token)) {
            return true;
        }
    }
    // The cookie goes with every request the browser makes, whichever page asks for it, so on
    // its own it only lets the page and the images be read. A change needs proof that the
    // console's own page asked: the browser's word that the request is same-origin, and an
    // Origin that is this server.
    if (auto cookies = request.header("Cookie")) {
        auto given = cookieValue(*cookies, cookieName(port));
        if (!given || !sameSecret(*given, token)) return false;
        if (request.method == "GET" || request.method == "HEAD") return true;
        const auto site = request.header("Sec-Fetch-Site");
        const auto origin = request.header("Origin");
        const auto host = request.header("Host");
        return site == "same-origin" && origin && host && *origin == "http://" + *host;
    }
    return false;
}

Reply consoleRefusal() {
    Reply reply = jsonError(401, "unauthorized", "The console needs its token.");
    reply.headers.push_back({"Cache-Control", "no-store"});
    return reply;
}

void addConsolePages(Router& router, const std::string& token, const std::string& directory,
                     std::function<std::uint16_t()> port) {
    auto page = [token, directory, port](std::string_view name) {
        std::optional<std::string> file = readConsoleFile(directory, name);
        if (!file) return jsonError(404, "not_found", "No such console file.");
        Reply reply;
        reply.body = std::move(*file);
        reply.contentType = contentTypeOf(name);
        reply.headers.push_back({"Cache-Control", "no-store"});
        reply.headers.push_back({"X-Content-Type-Options", "nosniff"});
        if (name == "index.html") {
            reply.headers.push_back({"Set-Cookie", cookieName(port()) + "=" + token +
                                                       "; Path=/; HttpOnly; SameSite=Strict"});
            // blob: for the snapshots and recordings the page makes of the frames itself.
            reply.headers.push_back(
                {"Content-Security-Policy",
                 "default-src 'self'; img-src 'self' data: blob:; media-src blob:; "
                 "frame-ancestors 'none'; base-uri 'none'; form-action 'none'"});
            reply.headers.push_back({"Referrer-Policy", "no-referrer"});
        }
        return reply;
    };
    router.add("GET", "/console",
               [page](const RecordedRequest&, const PathParams&) { return page("index.html"); });
    router.add("GET", "/console/{file}", [page](const RecordedRequest&, const PathParams& params) {
        return page(params.get("file"));
    });
}

}  // namespace virela::devserver
