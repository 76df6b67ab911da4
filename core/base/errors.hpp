#pragma once

#include <exception>
#include <stdexcept>
#include <string>

namespace virela {

// The one error type the library itself produces: a failed backend request.
class VirelaError : public std::exception {
  public:
    VirelaError(int status, std::string code, std::string message);

    int status() const noexcept { return status_; }
    const std::string& code() const noexcept { return code_; }
    const std::string& message() const noexcept { return message_; }
    const char* what() const noexcept override { return what_.c_str(); }

    friend bool operator==(const VirelaError& a, const VirelaError& b) {
        return a.status_ == b.status_ && a.code_ == b.code_ && a.message_ == b.message_;
    }

  private:
    int status_;
    std::string code_;
    std::string message_;
    std::string what_;
};

// A transport-level failure reported by the platform's HTTP client (no connection, time-out,
// cancellation). It passes through the library unchanged, never wrapped in VirelaError.
class NetworkError : public std::runtime_error {
  public:
    enum class Kind { refused, timedOut, cancelled, cannotResolve, secureConnection, other };

    NetworkError(Kind kind, const std::string& detail);

    Kind kind() const noexcept { return kind_; }
    // Platform-specific numeric code (errno, NSURLError code, ...); 0 when there is none.
    long platformCode() const noexcept { return platformCode_; }
    NetworkError& withPlatformCode(long code) {
        platformCode_ = code;
        return *this;
    }

  private:
    Kind kind_;
    long platformCode_ = 0;
};

const char* toString(NetworkError::Kind kind) noexcept;

// A reply (or a pushed record) that does not have the shape its record requires.
class DecodingError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// A request body that could not be serialised as JSON; nothing was sent.
class SerializationError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// One line describing any error value the library hands out, for logs and demo output.
std::string describe(const std::exception_ptr& error);

}  // namespace virela
