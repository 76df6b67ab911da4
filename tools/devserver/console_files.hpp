#pragma once

#include <optional>
#include <string_view>

namespace virela::devserver {

// The console page's files as built into the program, by file name ("index.html", "app.js");
// nullopt for a name that is not one of them.
std::optional<std::string_view> embeddedConsoleFile(std::string_view name);

}  // namespace virela::devserver
