#pragma once

// The realtime channel: the one WebSocket to the backend, with its credential, receive loop,
// heartbeat, reconnection back-off and application-state messages. Every pushed frame is
// decoded and handed, on the main executor, to the handler the client set.
//
// Confined to the main executor, except dispatch() and the socket delegate call, which may
// come from any thread.

#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "core/base/url.hpp"
#include "core/ports/clock.hpp"
#include "core/ports/platform.hpp"
#include "core/ports/socket.hpp"
#include "core/transport/backoff.hpp"
#include "core/wire/push_records.hpp"

namespace virela {

// What happens on the channel, for diagnostics (the demo prints it). Every callback runs on the
// main executor.
struct ChannelEvents {
    std::function<void(const Url& url)> onConnecting;
    std::function<void()> onOpen;
    std::function<void(std::exception_ptr error)> onLost;
    std::function<void(double delaySeconds, int attempt)> onReconnectScheduled;
    std::function<void(const Push& push)> onPush;
};

class RealtimeChannel : public std::enable_shared_from_this<RealtimeChannel>,
                        public SocketDelegate {
  public:
    using PushHandler = std::function<void(Push push)>;

    static std::shared_ptr<RealtimeChannel> create(std::shared_ptr<const Platform> platform,
                                                   std::shared_ptr<VirelaClock> clock);
    ~RealtimeChannel() override;
    RealtimeChannel(const RealtimeChannel&) = delete;
    RealtimeChannel& operator=(const RealtimeChannel&) = delete;

    // Where every decoded push goes. A handler that throws is logged; the channel goes on.
    void setPushHandler(PushHandler handler) { onPush_ = std::move(handler); }
    void setEvents(ChannelEvents events) { events_ = std::move(events); }

    // Brings the channel up for a registration: the socket on `baseUrl`'s origin with the
    // device token as its credential. A retry left from an earlier start is dropped.
    void start(const Url& baseUrl, const std::string& deviceToken);
    // Closes the socket normally and cancels the heartbeat and any pending reconnection; nothing
    // reconnects until the next start().
    void stop();

    // Opens a socket for the current endpoint, replacing any earlier one.
    void connect();
    // After a failure: connect() again after 1, 2, 4, 8, 16, then 30 seconds, without limit.
    void scheduleReconnect();
    // (Re)starts the 25-second ping.
    void startHeartbeat();
    // Sends a text message when a socket exists; the outcome is ignored.
    void send(std::string text);
    // Decodes one text frame and routes it on the main executor; drops it silently when it
    // does not decode. Safe from any thread.
    void dispatch(std::string_view text);

    // The application-state handlers.
    void onEnterBackground();
    void onEnterForeground();

    void socketDidOpen(const VirelaSocket& socket,
                       const std::optional<std::string>& protocol) override;

  private:
    RealtimeChannel(std::shared_ptr<const Platform> platform, std::shared_ptr<VirelaClock> clock);

    struct Endpoint {
        Url url;
        std::string protocol;
    };

    void armReceive(const std::shared_ptr<VirelaSocket>& socket);
    void handleReceived(const std::shared_ptr<VirelaSocket>& socket, std::optional<Push> push,
                        const std::exception_ptr& error);
    void route(Push push);
    void cancelReconnect();
    void cancelHeartbeat();

    std::shared_ptr<const Platform> platform_;
    std::shared_ptr<VirelaClock> clock_;
    std::optional<Endpoint> endpoint_;  // nullopt before start() or when no URL could be formed
    bool stopped_ = true;
    std::shared_ptr<VirelaSocket> socket_;
    std::shared_ptr<SocketSession> socketSession_;
    std::shared_ptr<VirelaCancellable> heartbeat_;
    std::shared_ptr<VirelaCancellable> reconnectWork_;
    Backoff backoff_;
    PushHandler onPush_;
    ChannelEvents events_;
};

}  // namespace virela
