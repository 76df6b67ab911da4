#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tools/devserver/exchange.hpp"

namespace virela::devserver {

// Values of the "{name}" segments of a route pattern, in pattern order.
class PathParams {
  public:
    void add(std::string name, std::string value);
    std::string_view get(std::string_view name) const;  // empty when absent

  private:
    std::vector<std::pair<std::string, std::string>> values_;
};

using RouteHandler = std::function<Reply(const RecordedRequest&, const PathParams&)>;

// Routes by method and path. A pattern is a literal path in which a whole segment written
// "{name}" matches any non-empty segment, e.g. "/v1/sdk/captures/{id}/respond".
class Router {
  public:
    void add(std::string method, std::string_view pattern, RouteHandler handler);

    // The handler's reply, or a JSON 404 (no pattern matches the path) or 405 (patterns match
    // but none for this method).
    Reply dispatch(const RecordedRequest& request) const;

  private:
    struct Route {
        std::string method;
        std::vector<std::string> segments;
        RouteHandler handler;
    };
    std::vector<Route> routes_;
};

}  // namespace virela::devserver
