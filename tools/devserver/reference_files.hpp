#pragma once

#include <optional>
#include <string_view>

namespace virela::devserver {

// The protocol reference's files as built into the program, by file name ("index.html");
// nullopt for a name that is not one of them.
std::optional<std::string_view> embeddedReferenceFile(std::string_view name);

}  // namespace virela::devserver
