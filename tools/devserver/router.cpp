#include "tools/devserver/router.hpp"

#include <algorithm>
#include <optional>

namespace virela::devserver {

namespace {

std::vector<std::string> splitPath(std::string_view path) {
    std::vector<std::string> segments;
    std::size_t start = 0;
    while (start <= path.size()) {
        std::size_t end = path.find('/', start);
        if (end == std::string_view::npos) end = path.size();
        segments.emplace_back(path.substr(start, end - start));
        start = end + 1;
    }
    return segments;
}

bool isParam(std::string_view segment) {
    return segment.size() > 2 && segment.front() == '{' && segment.back() == '}';
}

std::optional<PathParams> match(const std::vector<std::string>& pattern,
                                const std::vector<std::string>& path) {
    if (pattern.size() != path.size()) return std::nullopt;
    PathParams params;
    for (std::size_t i = 0; i < pattern.size(); ++i) {
        if (isParam(pattern[i])) {
            if (path[i].empty()) return std::nullopt;
            params.add(pattern[i].substr(1, pattern[i].size() - 2), path[i]);
        } else if (pattern[i] != path[i]) {
            return std::nullopt;
        }
    }
    return params;
}

}  // namespace

void PathParams::add(std::string name, std::string value) {
    values_.emplace_back(std::move(name), std::move(value));
}

std::string_view PathParams::get(std::string_view name) const {
    for (const auto& [key, value] : values_) {
        if (key == name) return value;
    }
    return {};
}

void Router::add(std::string method, std::string_view pattern, RouteHandler handler) {
    routes_.push_back({std::move(method), splitPath(pattern), std::move(handler)});
}

Reply Router::dispatch(const RecordedRequest& request) const {
    const std::vector<std::string> path = splitPath(request.path);
    std::vector<std::string_view> methods;
    for (const Route& route : routes_) {
        std::optional<PathParams> params = match(route.segments, path);
        if (!params) continue;
        if (route.method == request.method) return route.handler(request, *params);
        if (std::find(methods.begin(), methods.end(), route.method) == methods.end()) {
            methods.push_back(route.method);
        }
    }
    if (methods.empty()) {
        return jsonError(404, "not_found", "No endpoint at " + request.path + ".");
    }
    std::string allowed;
    for (std::string_view method : methods) {
        if (!allowed.empty()) allowed += ", ";
        allowed += method;
    }
    Reply reply =
        jsonError(405, "method_not_allowed",
                  request.method + " is not allowed on " + request.path + "; use " + allowed + ".");
    reply.headers.push_back({"Allow", allowed});
    return reply;
}

}  // namespace virela::devserver
