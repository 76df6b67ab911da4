#pragma once

#include <exception>
#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <string>

#include "core/base/records.hpp"

namespace virela {

class VirelaClient;

// The library's public entry point. Holds nothing: every call forwards to one shared client,
// created on first use and never replaced. Callable from any thread; state changes happen on
// the main executor, and every host callback runs there.
class Virela {
  public:
    Virela() = delete;

    // Registers the device and opens the realtime channel. The future carries the failure
    // (VirelaError, NetworkError, DecodingError). Never wait on it from the main executor:
    // the work it waits for runs there.
    static std::future<void> configure(std::string key, const VirelaEnvironment& environment,
                                       std::optional<VirelaUser> user = std::nullopt,
                                       bool collectVendorId = false);
    // The same, reporting through `completion` (nullptr on success). The completion runs on a
    // background thread, not on the main executor.
    static void configure(std::string key, const VirelaEnvironment& environment,
                          std::optional<VirelaUser> user, bool collectVendorId,
                          std::function<void(std::exception_ptr)> completion);

    static void on(VirelaCallbacks callbacks);
    static void identify(std::string id, std::optional<std::string> name = std::nullopt,
                         std::optional<std::string> phone = std::nullopt);
    static void reset();
    static std::optional<std::string> supportCode();
    // Shows the customer their support code in a bottom sheet, over the app's window.
    static void showSupportCode();
    // The style redacted views are painted with from now on. Views marked earlier keep the
    // style they were marked with.
    static void setRedactionStyle(VirelaRedaction style);
    static void stop();

    // The shared client, for platform bindings.
    static std::shared_ptr<VirelaClient> sharedClient();
};

}  // namespace virela
