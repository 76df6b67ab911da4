#pragma once

#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "tools/devserver/records.hpp"

namespace virela::devserver {

class CaptureBook;
class DeviceRegistry;
class LiveBook;
class SocketHub;

// Everything an agent can do to a device: ask for screenshots, open and end live views, send
// notes and guides, ask for control and drive input, refuse indicator confirmations. Each push
// goes out on the device's socket and is recorded in the books under their lock, so that an
// answer racing back finds it. Both the console and the Server facade act through this one
// class, so that a test and a person at the page are the same agent. Thread-safe; like the
// books it outlives server runs. Wherever a `device` is asked for, its id, any of its tokens or
// its current support code will do.
//
// The agent keeps the rules a real backend keeps, and an action they forbid is refused with its
// reason, sending nothing: one screenshot question at a time, another image only inside an
// allowed call still running, control granted only in answer to the customer, once, and input
// only under a control lease the device confirmed.
class Agent {
  public:
    Agent(const DeviceRegistry& registry, CaptureBook& captures, LiveBook& live,
          SocketHub& sockets);

    // The defaults of an asked screenshot or live view: the consent copy and how long a prompt
    // stays up, as the latest start() was given them.
    void setDefaults(std::string consentCopy, double promptSeconds);

    bool connected(std::string_view device) const;

    Attempt<AskedScreenshot> askScreenshot(std::string_view device, ScreenshotRequest request = {});
    Attempt<Done> sendCapture(std::string_view device, std::string_view requestId);
    bool sendExpired(std::string_view device);
    // {"type":"session","payload":{"state":"ended"}}: the call is over, and so is every
    // screenshot allowance in it, whether or not the device hears it.
    bool endCall(std::string_view device);
    bool sendDenied(std::string_view device);
    void setRespondStatus(std::string status);

    std::optional<LivePushed> requestLive(std::string_view device, LiveRequest request = {});
    bool activateLive(std::string_view device, std::string_view sessionId,
                      std::optional<std::string> generation = std::nullopt);
    bool endLive(std::string_view device, std::string_view sessionId);
    std::optional<LivePushed> sendLiveNote(std::string_view device, std::string_view sessionId,
                                           LiveNote note = {});
    bool sendGuide(std::string_view device, std::string_view sessionId, const Guide& guide);
    void refuseIndicator(std::string kind, bool refuse = true);

    std::optional<ControlPushed> requestControl(std::string_view device, std::string_view sessionId,
                                                ControlRequest request = {});
    Attempt<Done> grantControl(std::string_view device, std::string_view sessionId,
                               std::optional<std::string> generation = std::nullopt);
    bool endControl(std::string_view device, std::string_view sessionId);
    Attempt<Done> sendInput(std::string_view device, std::string_view sessionId,
                            const ControlInput& input);

  private:
    bool push(std::string_view device, std::string text);

    const DeviceRegistry& registry_;
    CaptureBook& captures_;
    LiveBook& live_;
    SocketHub& sockets_;

    mutable std::mutex mutex_;
    std::string consentCopy_;
    double promptSeconds_ = 0;
};

}  // namespace virela::devserver
