#pragma once

// nlohmann/json, wherever the build puts it. CMake and the system packages expose the header as
// <nlohmann/json.hpp>; the Swift package of nlohmann/json exposes its folder itself, so there
// the header is <json.hpp>.

#if __has_include(<nlohmann/json.hpp>)
#include <nlohmann/json.hpp>
#else
#include <json.hpp>
#endif
