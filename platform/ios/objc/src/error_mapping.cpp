#include "platform/ios/objc/src/error_mapping.hpp"

namespace virela::ios {

NetworkError::Kind networkErrorKind(bool urlDomain, long code) noexcept {
    using Kind = NetworkError::Kind;
    if (!urlDomain) return Kind::other;
    switch (code) {
        case url_error::cannotConnectToHost:
            return Kind::refused;
        case url_error::timedOut:
            return Kind::timedOut;
        case url_error::cancelled:
            return Kind::cancelled;
        case url_error::cannotFindHost:
        case url_error::dnsLookupFailed:
            return Kind::cannotResolve;
        default:
            break;
    }
    // Codes grow more negative through the block, so the range reads backwards.
    if (code <= url_error::secureConnectionFailed && code >= url_error::clientCertificateRequired) {
        return Kind::secureConnection;
    }
    return Kind::other;
}

NetworkError networkError(bool urlDomain, long code, const std::string& description) {
    NetworkError error(networkErrorKind(urlDomain, code), description);
    error.withPlatformCode(code);
    return error;
}

long urlErrorCode(const NetworkError& error) noexcept {
    if (error.platformCode() < 0) return error.platformCode();
    switch (error.kind()) {
        case NetworkError::Kind::refused:
            return url_error::cannotConnectToHost;
        case NetworkError::Kind::timedOut:
            return url_error::timedOut;
        case NetworkError::Kind::cancelled:
            return url_error::cancelled;
        case NetworkError::Kind::cannotResolve:
            return url_error::cannotFindHost;
        case NetworkError::Kind::secureConnection:
            return url_error::secureConnectionFailed;
        case NetworkError::Kind::other:
            return url_error::unknown;
    }
    return url_error::unknown;
}

HostError hostError(const std::exception_ptr& error) {
    using Family = HostError::Family;
    if (!error) return {};
    try {
        std::rethrow_exception(error);
    } catch (const VirelaError& e) {
        return {Family::virela, e.status(), e.code(), e.message()};
    } catch (const NetworkError& e) {
        return {Family::network, urlErrorCode(e), {}, e.what()};
    } catch (const DecodingError& e) {
        return {Family::decoding, cocoa_error::coderReadCorrupt, {}, e.what()};
    } catch (const SerializationError& e) {
        return {Family::serialization, cocoa_error::coderInvalidValue, {}, e.what()};
    } catch (const std::exception& e) {
        return {Family::unknown, -1, {}, e.what()};
    } catch (...) {
        return {Family::unknown, -1, {}, "unknown failure"};
    }
}

}  // namespace virela::ios
