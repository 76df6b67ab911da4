// The log over the unified logging system.

#include <os/log.h>

#include <string>
#include <string_view>

#include "platform/ios/objc/src/ports.hpp"

namespace virela::ios {
namespace {

class UnifiedLog final : public Log {
  public:
    UnifiedLog() : log_(os_log_create("com.virela.agent", "agent")) {}

    void write(LogLevel level, std::string_view line) override {
        const std::string text(line);  // the view need not be NUL-terminated
        os_log_with_type(log_, typeOf(level), "%{public}s", text.c_str());
    }

  private:
    static os_log_type_t typeOf(LogLevel level) {
        switch (level) {
            case LogLevel::debug:
                return OS_LOG_TYPE_DEBUG;
            case LogLevel::info:
                return OS_LOG_TYPE_INFO;
            case LogLevel::error:
                return OS_LOG_TYPE_ERROR;
        }
        return OS_LOG_TYPE_DEFAULT;
    }

    os_log_t log_;
};

}  // namespace

std::shared_ptr<Log> makeLog() { return std::make_shared<UnifiedLog>(); }

}  // namespace virela::ios
