#pragma once

/// @file
/// A window into the library for a host's own tooling (the demo, a debug screen, an integration
/// harness): what the realtime channel does, what the registration said, and the image an agent
/// would receive. Nothing here is needed to use the library, and nothing here changes what it
/// does. Callable from any thread; calls that read state wait for the main executor, so never
/// call them from work that the main executor is waiting on.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "core/base/records.hpp"
#include "core/ports/host.hpp"
#include "core/transport/realtime_channel.hpp"

namespace virela {

/// The stored registration, as far as tooling needs it.
struct DeviceDiagnostics {
    std::string deviceId;   ///< The backend's identifier of this device.
    std::string installId;  ///< Of the API key the stored registration was made with.
    CaptureMode captureMode = CaptureMode::askEveryTime;  ///< How captures are asked for.
    bool isTest = false;  ///< True when the backend registered the device as a test device.
};

/// An image as an agent would receive it.
struct ScreenDiagnostics {
    std::vector<std::uint8_t> bytes;  ///< PNG, or JPEG for a live frame.
    std::size_t redactionBoxes = 0;   ///< Sensitive areas painted over.
};

/// The window into the library described above; static calls only.
class VirelaDiagnostics {
  public:
    VirelaDiagnostics() = delete;

    /// Every event of the realtime channel from now on; replaces earlier observers. The
    /// callbacks run on the main executor.
    static void observeChannel(ChannelEvents events);
    /// The stored registration; nullopt before the first successful configure.
    static std::optional<DeviceDiagnostics> device();
    /// The app's screen as an agent would receive it, with every sensitive view painted over:
    /// PNG, or JPEG when `live`. Throws VirelaError ("no_window", "encode_failed") as a capture
    /// for an agent would fail.
    static ScreenDiagnostics captureScreen(bool live);
    /// The window a capture on `host` is drawn over right now, chosen as captureScreen() chooses
    /// it; nullopt when there is none. Reads `host` on the calling thread and needs no client, so
    /// a platform can line its own picture of the screen up with the agent's.
    static std::optional<WindowFacts> captureWindow(HostInterface& host);
};

}  // namespace virela
