#pragma once

#include <string_view>

namespace virela {

enum class LogLevel { debug, info, error };

class Log {
  public:
    virtual ~Log() = default;
    virtual void write(LogLevel level, std::string_view line) = 0;
};

}  // namespace virela
