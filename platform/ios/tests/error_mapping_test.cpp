// The iOS binding's error rules, run on Linux: how a failed URL-session task becomes the core's
// NetworkError, and how the core's error values are flattened for the host's NSError.

#include "platform/ios/objc/src/error_mapping.hpp"

#include <gtest/gtest.h>

#include <stdexcept>

namespace virela::ios {
namespace {

using Kind = NetworkError::Kind;
using Family = HostError::Family;

TEST(IosNetworkErrorKind, NamedURLErrorsMapToTheirKinds) {
    EXPECT_EQ(networkErrorKind(true, url_error::cannotConnectToHost), Kind::refused);
    EXPECT_EQ(networkErrorKind(true, url_error::timedOut), Kind::timedOut);
    EXPECT_EQ(networkErrorKind(true, url_error::cancelled), Kind::cancelled);
    EXPECT_EQ(networkErrorKind(true, url_error::cannotFindHost), Kind::cannotResolve);
    EXPECT_EQ(networkErrorKind(true, url_error::dnsLookupFailed), Kind::cannotResolve);
    EXPECT_EQ(networkErrorKind(true, url_error::badUrl), Kind::other);
    EXPECT_EQ(networkErrorKind(true, url_error::unknown), Kind::other);
}

TEST(IosNetworkErrorKind, TheWholeTlsBlockIsASecureConnectionFailure) {
    for (long code = -1200; code >= -1206; --code) {
        EXPECT_EQ(networkErrorKind(true, code), Kind::secureConnection) << code;
    }
    EXPECT_EQ(networkErrorKind(true, -1199), Kind::other);
    EXPECT_EQ(networkErrorKind(true, -1207), Kind::other);
}

TEST(IosNetworkErrorKind, CodesOfOtherDomainsAreNeverReadAsURLErrors) {
    // The same number in, say, a POSIX or CFNetwork error means something else.
    EXPECT_EQ(networkErrorKind(false, url_error::timedOut), Kind::other);
    EXPECT_EQ(networkErrorKind(false, -1200), Kind::other);
    EXPECT_EQ(networkErrorKind(false, 61), Kind::other);
}

TEST(IosNetworkError, KeepsTheCodeAndTheDescription) {
    NetworkError error = networkError(true, url_error::timedOut, "The request timed out.");
    EXPECT_EQ(error.kind(), Kind::timedOut);
    EXPECT_EQ(error.platformCode(), url_error::timedOut);
    EXPECT_STREQ(error.what(), "The request timed out.");
}

TEST(IosUrlErrorCode, AURLErrorCodeIsHandedBackUnchanged) {
    NetworkError error(Kind::other, "offline");
    error.withPlatformCode(-1009);  // not connected to the internet
    EXPECT_EQ(urlErrorCode(error), -1009);
}

TEST(IosUrlErrorCode, ErrorsWithoutAURLCodeGetOneForTheirKind) {
    auto code = [](Kind kind, long platformCode) {
        NetworkError error(kind, "x");
        error.withPlatformCode(platformCode);
        return urlErrorCode(error);
    };
    EXPECT_EQ(code(Kind::refused, 0), url_error::cannotConnectToHost);
    EXPECT_EQ(code(Kind::timedOut, 0), url_error::timedOut);
    EXPECT_EQ(code(Kind::cancelled, 0), url_error::cancelled);
    EXPECT_EQ(code(Kind::cannotResolve, 0), url_error::cannotFindHost);
    EXPECT_EQ(code(Kind::secureConnection, 0), url_error::secureConnectionFailed);
    EXPECT_EQ(code(Kind::other, 0), url_error::unknown);
    // A positive code (an errno) is not a URL error code.
    EXPECT_EQ(code(Kind::refused, 61), url_error::cannotConnectToHost);
}

TEST(IosHostError, NoErrorIsNone) {
    EXPECT_EQ(hostError(nullptr).family, Family::none);
}

TEST(IosHostError, ABackendFailureKeepsStatusCodeAndMessage) {
    HostError host = hostError(std::make_exception_ptr(VirelaError(401, "bad_key", "Bad key.")));
    EXPECT_EQ(host.family, Family::virela);
    EXPECT_EQ(host.code, 401);
    EXPECT_EQ(host.errorCode, "bad_key");
    EXPECT_EQ(host.message, "Bad key.");
}

TEST(IosHostError, ANetworkFailureCarriesItsURLErrorCode) {
    HostError host = hostError(
        std::make_exception_ptr(networkError(true, url_error::cannotFindHost, "No such host.")));
    EXPECT_EQ(host.family, Family::network);
    EXPECT_EQ(host.code, url_error::cannotFindHost);
    EXPECT_EQ(host.message, "No such host.");
}

TEST(IosHostError, ASupersededConfigureReadsAsCancelled) {
    HostError host =
        hostError(std::make_exception_ptr(NetworkError(Kind::cancelled, "superseded")));
    EXPECT_EQ(host.family, Family::network);
    EXPECT_EQ(host.code, url_error::cancelled);
}

TEST(IosHostError, DecodingAndSerialisationUseTheCoderCodes) {
    HostError decoding = hostError(std::make_exception_ptr(DecodingError("missing isTest")));
    EXPECT_EQ(decoding.family, Family::decoding);
    EXPECT_EQ(decoding.code, cocoa_error::coderReadCorrupt);
    EXPECT_EQ(decoding.message, "missing isTest");

    HostError serialization = hostError(std::make_exception_ptr(SerializationError("not UTF-8")));
    EXPECT_EQ(serialization.family, Family::serialization);
    EXPECT_EQ(serialization.code, cocoa_error::coderInvalidValue);
}

TEST(IosHostError, AnythingElseIsUnknownButStillDescribed) {
    HostError runtime = hostError(std::make_exception_ptr(std::runtime_error("boom")));
    EXPECT_EQ(runtime.family, Family::unknown);
    EXPECT_EQ(runtime.message, "boom");

    HostError thrownInt = hostError(std::make_exception_ptr(42));
    EXPECT_EQ(thrownInt.family, Family::unknown);
    EXPECT_EQ(thrownInt.message, "unknown failure");
}

}  // namespace
}  // namespace virela::ios
