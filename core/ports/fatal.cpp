#include "core/ports/fatal.hpp"

#include <cstdio>
#include <cstdlib>
#include <string>

#include "core/ports/platform.hpp"

namespace virela {

void fatalPrecondition(std::string_view message) {
    std::string line = "virela: fatal: " + std::string(message);
    if (auto platform = installedPlatform(); platform && platform->log) {
        platform->log->write(LogLevel::error, line);
    }
    std::fprintf(stderr, "%s\n", line.c_str());
    std::fflush(stderr);
    std::abort();
}

}  // namespace virela
