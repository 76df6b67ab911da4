#include "core/ports/socket.hpp"

namespace virela {

int closeCodeToSend(int code) noexcept {
    const bool sendable = (code >= 1000 && code <= 1003) || (code >= 1007 && code <= 1013) ||
                          (code >= 3000 && code <= 4999);
    return sendable ? code : 1000;
}

std::string closeReasonToSend(std::string reason) {
    constexpr std::size_t kMaxBytes = 123;
    if (reason.size() <= kMaxBytes) return reason;
    std::size_t end = kMaxBytes;
    // Back off to the start of the sequence the limit falls in (continuation bytes are 10xxxxxx).
    while (end > 0 && (static_cast<unsigned char>(reason[end]) & 0xC0) == 0x80) --end;
    reason.resize(end);
    return reason;
}

}  // namespace virela
