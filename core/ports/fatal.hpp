#pragma once

#include <string_view>

namespace virela {

// Stops the process: reserved for host programming errors the library refuses to paper over
// (identify or reset before configure, a request path that is not a URL).
[[noreturn]] void fatalPrecondition(std::string_view message);

}  // namespace virela
