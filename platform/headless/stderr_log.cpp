#include "platform/headless/stderr_log.hpp"

#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <string>

namespace virela::headless {

namespace {

const char* levelName(LogLevel level) {
    switch (level) {
        case LogLevel::debug:
            return "debug";
        case LogLevel::info:
            return "info";
        case LogLevel::error:
            return "error";
    }
    return "info";
}

int rank(LogLevel level) {
    switch (level) {
        case LogLevel::debug:
            return 0;
        case LogLevel::info:
            return 1;
        case LogLevel::error:
            return 2;
    }
    return 1;
}

}  // namespace

std::optional<LogLevel> parseLogLevel(std::string_view text) {
    std::string lower;
    for (char c : text) lower += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    if (lower == "debug") return LogLevel::debug;
    if (lower == "info") return LogLevel::info;
    if (lower == "error") return LogLevel::error;
    return std::nullopt;
}

LogLevel logLevelFromEnvironment() {
    const char* value = std::getenv("VIRELA_LOG");
    if (value == nullptr) return LogLevel::info;
    return parseLogLevel(value).value_or(LogLevel::info);
}

void writeStderrLine(LogLevel level, std::string_view line) {
    std::string text = "virela [";
    text += levelName(level);
    text += "] ";
    text += line;
    text += '\n';
    const char* data = text.data();
    std::size_t left = text.size();
    while (left > 0) {
        ssize_t written = ::write(STDERR_FILENO, data, left);
        if (written < 0 && errno == EINTR) continue;
        if (written <= 0) return;  // nowhere to report a broken stderr
        data += written;
        left -= static_cast<std::size_t>(written);
    }
}

void StderrLog::write(LogLevel level, std::string_view line) {
    if (rank(level) < rank(minimum_)) return;
    writeStderrLine(level, line);
}

}  // namespace virela::headless
