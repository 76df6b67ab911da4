#pragma once

#include <cstdint>

namespace virela {

// Identifies a scene, window, view, accessibility element, view controller or menu action for
// as long as the object lives; a handle of a freed object resolves to nothing. 0 is no object.
using HostHandle = std::uint64_t;
inline constexpr HostHandle noHandle = 0;

}  // namespace virela
