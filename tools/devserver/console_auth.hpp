#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "tools/devserver/records.hpp"

namespace virela::devserver {

class Router;
struct Reply;

// Paths the console's token guards while the console is on: the page, its API, and the images
// and frames devices sent, which only the agent may see.
bool consoleGuards(std::string_view path);
// The token given as "token" in the query or as a Bearer token; or in the console's cookie, which
// admits a GET or HEAD, and a change only when the browser says the console's own page sent it.
bool carriesConsoleToken(const RecordedRequest& request, std::string_view token,
                         std::uint16_t port);
// 401, saying nothing about what is behind the path.
Reply consoleRefusal();

// The page at "/console" and its files at "/console/{file}", from `directory`, read on each
// request, or from the copies built into the program when it is empty. The page sets the
// token's cookie, named for the server's current `port`.
void addConsolePages(Router& router, const std::string& token, const std::string& directory,
                     std::function<std::uint16_t()> port);

// The raw value of `name` in the request-target's query; tokens and numbers need no decoding.
std::optional<std::string_view> queryValue(std::string_view target, std::string_view name);

}  // namespace virela::devserver
