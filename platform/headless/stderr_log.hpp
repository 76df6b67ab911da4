#pragma once

#include <optional>
#include <string_view>

#include "core/ports/platform.hpp"

namespace virela::headless {

// "debug", "info" or "error" (case-insensitive); nullopt for anything else.
std::optional<LogLevel> parseLogLevel(std::string_view text);

// The level named by VIRELA_LOG, info when unset or unrecognised.
LogLevel logLevelFromEnvironment();

// Writes "virela [level] <line>" to stderr as one write, so lines from different threads do not
// interleave. Used directly by the parts of the platform that exist before any Log.
void writeStderrLine(LogLevel level, std::string_view line);

// The Log port: lines below the minimum level are dropped.
class StderrLog final : public Log {
  public:
    explicit StderrLog(LogLevel minimum = logLevelFromEnvironment()) : minimum_(minimum) {}
    void write(LogLevel level, std::string_view line) override;
    LogLevel minimum() const noexcept { return minimum_; }

  private:
    LogLevel minimum_;
};

}  // namespace virela::headless
