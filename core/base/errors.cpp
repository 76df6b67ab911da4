#include "core/base/errors.hpp"

namespace virela {

VirelaError::VirelaError(int status, std::string code, std::string message)
    : status_(status),
      code_(std::move(code)),
      message_(std::move(message)),
      what_(std::to_string(status_) + " " + code_ + ": " + message_) {}

NetworkError::NetworkError(Kind kind, const std::string& detail)
    : std::runtime_error(detail), kind_(kind) {}

const char* toString(NetworkError::Kind kind) noexcept {
    switch (kind) {
        case NetworkError::Kind::refused:
            return "refused";
        case NetworkError::Kind::timedOut:
            return "timed out";
        case NetworkError::Kind::cancelled:
            return "cancelled";
        case NetworkError::Kind::cannotResolve:
            return "cannot resolve host";
        case NetworkError::Kind::secureConnection:
            return "secure connection failed";
        case NetworkError::Kind::other:
            return "network error";
    }
    return "network error";
}

std::string describe(const std::exception_ptr& error) {
    if (!error) return "no error";
    try {
        std::rethrow_exception(error);
    } catch (const VirelaError& e) {
        return "status " + std::to_string(e.status()) + ", code " + e.code() + ", message " +
               e.message();
    } catch (const NetworkError& e) {
        return std::string("network failure (") + toString(e.kind()) + "): " + e.what();
    } catch (const DecodingError& e) {
        return std::string("undecodable reply: ") + e.what();
    } catch (const SerializationError& e) {
        return std::string("unserialisable request: ") + e.what();
    } catch (const std::exception& e) {
        return e.what();
    } catch (...) {
        return "unknown failure";
    }
}

}  // namespace virela
