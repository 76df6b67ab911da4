#pragma once

/// @file
/// The library's public entry point, Virela.

#include <exception>
#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <string>

#include "core/base/records.hpp"

/// Everything the library declares.
namespace virela {

class VirelaClient;

/// The library's public entry point. Holds nothing: every call forwards to one shared client,
/// created on first use and never replaced. Callable from any thread; state changes happen on
/// the main executor, and every host callback runs there.
///
/// A platform must be installed first (on Linux, by creating a headless::Runtime); the first
/// call without one stops the process.
class Virela {
  public:
    Virela() = delete;

    /// Registers the device and opens the realtime channel; starts over when called again. The
    /// future carries the failure (VirelaError, NetworkError, DecodingError). Never wait on it
    /// from the main executor: the work it waits for runs there.
    /// @param key the app's API key
    /// @param environment the backend to register with
    /// @param user the end user, when the app already knows who it is
    /// @param collectVendorId whether the registration carries the platform's vendor identifier
    static std::future<void> configure(std::string key, const VirelaEnvironment& environment,
                                       std::optional<VirelaUser> user = std::nullopt,
                                       bool collectVendorId = false);
    /// The same, reporting through `completion` (nullptr on success). The completion runs on a
    /// background thread, not on the main executor.
    static void configure(std::string key, const VirelaEnvironment& environment,
                          std::optional<VirelaUser> user, bool collectVendorId,
                          std::function<void(std::exception_ptr)> completion);

    /// Replaces the whole set of callbacks; there is one set per process.
    static void on(VirelaCallbacks callbacks);
    /// Tells the backend who the end user is. Fire and forget: failures are not reported.
    /// Calling it before configure() is a programming error and stops the process.
    static void identify(std::string id, std::optional<std::string> name = std::nullopt,
                         std::optional<std::string> phone = std::nullopt);
    /// Asks the backend for a fresh support code. Fire and forget; stops the process when called
    /// before configure().
    static void reset();
    /// The current registration's support code; nullopt before the first successful configure()
    /// or when the backend gave none.
    static std::optional<std::string> supportCode();
    /// Shows the customer their support code in a bottom sheet, over the app's window.
    static void showSupportCode();
    /// The style redacted views are painted with from now on. Views marked earlier keep the
    /// style they were marked with.
    static void setRedactionStyle(VirelaRedaction style);
    /// Closes the realtime channel and takes down anything on screen. The registration is kept;
    /// configure() starts the client again.
    static void stop();

    /// The shared client, for platform bindings.
    static std::shared_ptr<VirelaClient> sharedClient();
};

}  // namespace virela
