#include "tools/devserver/reference_pages.hpp"

#include <optional>
#include <string>
#include <string_view>

#include "tools/devserver/exchange.hpp"
#include "tools/devserver/reference_files.hpp"
#include "tools/devserver/router.hpp"

namespace virela::devserver {

namespace {

Reply referenceFile(std::string_view name) {
    const std::optional<std::string_view> file = embeddedReferenceFile(name);
    if (!file) return jsonError(404, "not_found", "No such reference file.");
    Reply reply;
    reply.body = std::string(*file);
    reply.contentType =
        name.ends_with(".css") ? "text/css; charset=utf-8" : "text/html; charset=utf-8";
    reply.headers.push_back({"Cache-Control", "no-cache"});
    reply.headers.push_back({"X-Content-Type-Options", "nosniff"});
    // A static page: its own style sheet and nothing else, no script at all.
    reply.headers.push_back({"Content-Security-Policy",
                             "default-src 'none'; style-src 'self'; frame-ancestors 'none'; "
                             "base-uri 'none'; form-action 'none'"});
    reply.headers.push_back({"Referrer-Policy", "no-referrer"});
    return reply;
}

}  // namespace

void addReferencePages(Router& router) {
    router.add("GET", "/docs", [](const RecordedRequest&, const PathParams&) {
        return referenceFile("index.html");
    });
    router.add("GET", "/docs/{file}", [](const RecordedRequest&, const PathParams& params) {
        const std::string_view name = params.get("file");
        // The page itself only at /docs, so that its absolute links hold.
        if (name == "index.html") return jsonError(404, "not_found", "No such reference file.");
        return referenceFile(name);
    });
}

}  // namespace virela::devserver
