#pragma once

#include <string>

namespace virela {

// A random (version 4) UUID in its upper-case hyphenated text form. Thread-safe.
std::string makeUuid();

}  // namespace virela
