#pragma once

/// @file
/// The errors the library hands to the host.

#include <exception>
#include <stdexcept>
#include <string>

namespace virela {

/// The one error type the library itself produces: a failed backend request, or a capture that
/// could not be made.
class VirelaError : public std::exception {
  public:
    /// An error with the given status, machine code and message.
    VirelaError(int status, std::string code, std::string message);

    /// The HTTP status of the failed request; 0 when there was no HTTP response.
    int status() const noexcept { return status_; }
    /// A machine code: the backend's, "unknown" when it gave none, "no_response" without a
    /// response; "no_window" or "encode_failed" for a capture that could not be made.
    const std::string& code() const noexcept { return code_; }
    /// A human-readable message: the backend's, or "Request failed." / "No HTTP response.", or
    /// the capture's.
    const std::string& message() const noexcept { return message_; }
    /// "status code: message".
    const char* what() const noexcept override { return what_.c_str(); }

    /// Equal when status, code and message are.
    friend bool operator==(const VirelaError& a, const VirelaError& b) {
        return a.status_ == b.status_ && a.code_ == b.code_ && a.message_ == b.message_;
    }

  private:
    int status_;
    std::string code_;
    std::string message_;
    std::string what_;
};

/// A transport-level failure reported by the platform's HTTP client (no connection, time-out,
/// cancellation). It passes through the library unchanged, never wrapped in VirelaError.
class NetworkError : public std::runtime_error {
  public:
    /// What went wrong, as far as the platform can tell.
    enum class Kind {
        refused,           ///< The connection was refused.
        timedOut,          ///< The request timed out.
        cancelled,         ///< The request was cancelled.
        cannotResolve,     ///< The host name did not resolve.
        secureConnection,  ///< TLS failed, an untrusted certificate included.
        other,             ///< Anything else.
    };

    /// A failure of `kind`, with the platform's description of it.
    NetworkError(Kind kind, const std::string& detail);

    /// What went wrong.
    Kind kind() const noexcept { return kind_; }
    /// Platform-specific numeric code (errno, NSURLError code, ...); 0 when there is none.
    long platformCode() const noexcept { return platformCode_; }
    /// Sets platformCode(); for the platform's HTTP client.
    NetworkError& withPlatformCode(long code) {
        platformCode_ = code;
        return *this;
    }

  private:
    Kind kind_;
    long platformCode_ = 0;
};

/// A few words for `kind`: "refused", "timed out", ...
const char* toString(NetworkError::Kind kind) noexcept;

/// A reply (or a pushed record) that does not have the shape its record requires.
class DecodingError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

/// A request body that could not be serialised as JSON; nothing was sent.
class SerializationError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

/// One line describing any error value the library hands out, for logs and demo output.
std::string describe(const std::exception_ptr& error);

}  // namespace virela
