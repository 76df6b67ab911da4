#pragma once

/// @file
/// The library's version, written once: CMake reads it from here for project(VERSION), and the
/// Swift package, which has no configure step, compiles this file as it stands.

namespace virela {

/// The library's version, "major.minor.patch".
inline constexpr const char* kSdkVersion = "2.36.6";

}  // namespace virela
