#include "tools/devserver/socket_hub.hpp"

#include <algorithm>
#include <exception>
#include <utility>

#include "tools/devserver/traffic_log.hpp"
#include "tools/devserver/websocket_session.hpp"

namespace virela::devserver {

namespace {

// A device that keeps flooding must not exhaust memory; past this its text frames are still
// read and reported, but no longer kept.
constexpr std::size_t kKeptTextPerDevice = std::size_t{64} * 1024 * 1024;

}  // namespace

SocketHub::SocketHub(Resolver resolve) : resolve_(std::move(resolve)) {}

void SocketHub::open(EventHandler onEvent, std::shared_ptr<TrafficLog> traffic) {
    std::lock_guard lock(mutex_);
    open_ = true;
    traffic_ = std::move(traffic);
    onEvent_ = onEvent ? std::make_shared<const EventHandler>(std::move(onEvent)) : nullptr;
}

void SocketHub::shutdown() {
    std::vector<std::shared_ptr<WebSocketSession>> ended;
    std::shared_ptr<TrafficLog> traffic;
    {
        std::lock_guard lock(mutex_);
        open_ = false;
        ended.swap(live_);
        traffic = std::exchange(traffic_, nullptr);
        for (auto& entry : devices_) entry.second.current.reset();
    }
    changed_.notify_all();
    for (const auto& session : ended) {
        if (traffic) traffic->closed(session->connection(), session->deviceId(), 1006);
        emit({SocketEvent::Kind::closed, session->deviceId(), {}, 1006});
    }
    std::lock_guard lock(mutex_);
    onEvent_.reset();
}

void SocketHub::refuseFor(std::chrono::milliseconds duration) {
    std::lock_guard lock(mutex_);
    refuseUntil_ =
        std::chrono::steady_clock::now() + std::max(duration, std::chrono::milliseconds::zero());
}

bool SocketHub::refusing() const {
    std::lock_guard lock(mutex_);
    return std::chrono::steady_clock::now() < refuseUntil_;
}

bool SocketHub::attach(const std::shared_ptr<WebSocketSession>& session) {
    std::shared_ptr<WebSocketSession> replaced;
    {
        std::lock_guard lock(mutex_);
        if (!open_) return false;
        Device& device = devices_[session->deviceId()];
        replaced = std::exchange(device.current, session);
        ++device.accepted;
        live_.push_back(session);
        if (traffic_) {
            traffic_->opened(session->connection(), session->deviceId());
            if (replaced) {
                traffic_->closeSent(replaced->connection(), replaced->deviceId(),
                                    kReplacedCloseCode);
            }
        }
    }
    changed_.notify_all();
    if (replaced) {
        replaced->post(
            {Outgoing::Kind::close, "replaced by a newer connection", kReplacedCloseCode});
    }
    emit({SocketEvent::Kind::connected, session->deviceId(), {}, 0});
    return true;
}

void SocketHub::received(const WebSocketSession& session, std::string frame, bool text) {
    {
        std::lock_guard lock(mutex_);
        if (traffic_) {
            traffic_->frame(session.connection(), session.deviceId(), true, text, frame, false);
        }
        Device& device = devices_[session.deviceId()];
        if (text && device.textBytes + frame.size() <= kKeptTextPerDevice) {
            device.textBytes += frame.size();
            device.texts.push_back(frame);
        }
    }
    changed_.notify_all();
    emit({text ? SocketEvent::Kind::text : SocketEvent::Kind::binary, session.deviceId(),
          std::move(frame), 0});
}

void SocketHub::detach(const WebSocketSession& session, int closeCode) {
    {
        std::lock_guard lock(mutex_);
        auto it = std::find_if(live_.begin(), live_.end(),
                               [&](const auto& candidate) { return candidate.get() == &session; });
        if (it == live_.end()) return;
        live_.erase(it);
        if (traffic_) traffic_->closed(session.connection(), session.deviceId(), closeCode);
        auto device = devices_.find(session.deviceId());
        if (device != devices_.end() && device->second.current.get() == &session) {
            device->second.current.reset();
        }
    }
    changed_.notify_all();
    emit({SocketEvent::Kind::closed, session.deviceId(), {}, closeCode});
}

bool SocketHub::send(std::string_view device, Outgoing message) {
    {
        std::lock_guard lock(mutex_);
        Device* target = open_ ? find(device) : nullptr;
        if (target == nullptr || !target->current) return false;
        const bool closing = message.kind == Outgoing::Kind::close;
        if (traffic_) {
            const WebSocketSession& to = *target->current;
            if (closing) {
                traffic_->closeSent(to.connection(), to.deviceId(), message.code);
            } else {
                traffic_->frame(to.connection(), to.deviceId(), false,
                                message.kind == Outgoing::Kind::text, message.data,
                                message.crafted);
            }
        }
        // Posted under the lock: shutdown() cannot let the io_context go in the meantime.
        target->current->post(std::move(message));
        if (!closing) return true;
        target->current.reset();
    }
    changed_.notify_all();
    return true;
}

void SocketHub::drop(std::string_view device) {
    {
        std::lock_guard lock(mutex_);
        Device* target = open_ ? find(device) : nullptr;
        if (target == nullptr || !target->current) return;
        if (traffic_) traffic_->dropped(target->current->connection(), target->current->deviceId());
        target->current->postDrop();
        target->current.reset();
    }
    changed_.notify_all();
}

bool SocketHub::connected(std::string_view device) const {
    std::lock_guard lock(mutex_);
    const Device* found = find(device);
    return found != nullptr && found->current != nullptr;
}

std::size_t SocketHub::accepted(std::string_view device) const {
    std::lock_guard lock(mutex_);
    const Device* found = find(device);
    return found != nullptr ? found->accepted : 0;
}

std::vector<std::string> SocketHub::frames(std::string_view device) const {
    std::lock_guard lock(mutex_);
    const Device* found = find(device);
    return found != nullptr ? found->texts : std::vector<std::string>();
}

bool SocketHub::waitForConnection(std::string_view device, std::chrono::milliseconds timeout,
                                  std::size_t minAccepted) const {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] {
        const Device* found = find(device);
        return found != nullptr && found->current != nullptr && found->accepted >= minAccepted;
    });
}

bool SocketHub::waitForFrames(std::string_view device, std::size_t count,
                              std::chrono::milliseconds timeout) const {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] {
        const Device* found = find(device);
        return count == 0 || (found != nullptr && found->texts.size() >= count);
    });
}

bool SocketHub::waitForTexts(std::string_view device,
                             const std::function<bool(const std::vector<std::string>&)>& done,
                             std::chrono::milliseconds timeout) const {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] {
        const Device* found = find(device);
        return done(found != nullptr ? found->texts : std::vector<std::string>());
    });
}

const SocketHub::Device* SocketHub::find(std::string_view device) const {
    // Lock order: the hub, then the registry behind the resolver; never the other way round.
    const std::optional<std::string> id = resolve_(device);
    if (!id) return nullptr;
    auto it = devices_.find(*id);
    return it != devices_.end() ? &it->second : nullptr;
}

SocketHub::Device* SocketHub::find(std::string_view device) {
    return const_cast<Device*>(std::as_const(*this).find(device));
}

void SocketHub::emit(const SocketEvent& event) const {
    std::shared_ptr<const EventHandler> handler;
    {
        std::lock_guard lock(mutex_);
        handler = onEvent_;
    }
    if (!handler) return;
    try {
        (*handler)(event);
    } catch (const std::exception&) {
        // An observer's failure is not the device's problem.
    }
}

}  // namespace virela::devserver
