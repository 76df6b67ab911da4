#pragma once

// How errors cross the boundary between Foundation and the core, kept free of Objective-C so
// that the Linux test suite runs it. The Objective-C++ side checks every number below against
// Foundation's own constants at compile time (see errors.mm).

#include <exception>
#include <string>

#include "core/base/errors.hpp"

namespace virela::ios {

// The NSURLErrorDomain codes we tell apart.
namespace url_error {
inline constexpr long unknown = -1;
inline constexpr long cancelled = -999;
inline constexpr long badUrl = -1000;
inline constexpr long timedOut = -1001;
inline constexpr long cannotFindHost = -1003;
inline constexpr long cannotConnectToHost = -1004;
inline constexpr long dnsLookupFailed = -1006;
// The TLS block runs from "secure connection failed" to "client certificate required".
inline constexpr long secureConnectionFailed = -1200;
inline constexpr long clientCertificateRequired = -1206;
}  // namespace url_error

// The NSCocoaErrorDomain codes that Swift's own decoding and encoding errors bridge to.
namespace cocoa_error {
inline constexpr long coderReadCorrupt = 4864;
inline constexpr long coderInvalidValue = 4866;
}  // namespace cocoa_error

// The kind of a failed URL-session task; errors outside NSURLErrorDomain are always `other`.
NetworkError::Kind networkErrorKind(bool urlDomain, long code) noexcept;

// The core's value for a failed URL-session task: kind as above, the NSError code kept as the
// platform code, the localized description as the text.
NetworkError networkError(bool urlDomain, long code, const std::string& description);

// The NSURLErrorDomain code to hand the host for a network error that carries no URL error
// code of its own (URL error codes are negative; anything else did not come from Foundation).
long urlErrorCode(const NetworkError& error) noexcept;

// An error value of the core, flattened into what the host's NSError is built from.
struct HostError {
    enum class Family { none, virela, network, decoding, serialization, unknown };
    Family family = Family::none;
    long code = 0;          // the NSError code: HTTP status, URL error code or coder error code
    std::string errorCode;  // the backend's machine code (VirelaError only)
    std::string message;
};

HostError hostError(const std::exception_ptr& error);

}  // namespace virela::ios
