// The realtime channel's socket over NSURLSessionWebSocketTask, one URL session per socket.
//
// Ownership: the core holds the socket and its session wrapper. NSURLSession keeps its delegate
// strongly until it is invalidated, so the wrapper invalidates its session when the core lets
// go of it (finishTasksAndInvalidate: a task that is still closing gets to finish). The delegate
// holds the core's delegate and the socket weakly, and nothing of ours that Foundation keeps
// holds the socket, so dropping both closes the connection and frees everything once the task
// has ended (unless a completion the core handed us holds the socket itself).

#import <Foundation/Foundation.h>

#include <atomic>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "platform/ios/objc/src/bridge_rules.hpp"
#include "platform/ios/objc/src/errors.hpp"
#include "platform/ios/objc/src/ports.hpp"
#include "platform/ios/objc/src/socket_calls.hpp"
#include "platform/ios/objc/src/strings.hpp"

static_assert(virela::ios::task_state::running == NSURLSessionTaskStateRunning);
static_assert(virela::ios::task_state::suspended == NSURLSessionTaskStateSuspended);
static_assert(virela::ios::task_state::canceling == NSURLSessionTaskStateCanceling);
static_assert(virela::ios::task_state::completed == NSURLSessionTaskStateCompleted);

namespace virela::ios {
namespace {

NSError* urlError(NSInteger code, NSString* description, NSError* _Nullable underlying) {
    NSMutableDictionary* info = [NSMutableDictionary dictionary];
    info[NSLocalizedDescriptionKey] = description;
    if (underlying) info[NSUnderlyingErrorKey] = underlying;
    return [NSError errorWithDomain:NSURLErrorDomain code:code userInfo:info];
}

// What one socket's calls, its session delegate and Foundation's completion blocks share.
struct SocketChannel {
    SocketCalls calls;
    std::atomic<bool> closedByUs{false};

    // The core's value for a failed call. Once we have closed the socket, Foundation reports
    // later failures as whatever the torn-down connection says (often "socket is not
    // connected"); they read as cancelled, with Foundation's error kept as the underlying one.
    std::exception_ptr failure(NSError* _Nullable error) const {
        if (closedByUs.load()) {
            const bool alreadyCancelled = [error.domain isEqualToString:NSURLErrorDomain] &&
                                          error.code == NSURLErrorCancelled;
            if (!alreadyCancelled) {
                error = urlError(NSURLErrorCancelled, @"The WebSocket was closed.", error);
            }
        } else if (!error) {
            // The server closed the connection cleanly, or Foundation gave neither a message nor
            // an error; to the caller both mean the connection is gone.
            error = urlError(NSURLErrorNetworkConnectionLost,
                             @"The WebSocket connection was closed.", nil);
        }
        return networkFailure(error);
    }
};

SocketReceiveResult receiveResult(const SocketChannel& channel,
                                  NSURLSessionWebSocketMessage* _Nullable message,
                                  NSError* _Nullable error) {
    if (error || !message) return channel.failure(error);
    if (message.type == NSURLSessionWebSocketMessageTypeString) {
        return SocketMessage::text(toStdString(message.string));
    }
    NSData* data = message.data;
    std::string bytes;
    if (data.length > 0) bytes.assign(static_cast<const char*>(data.bytes), data.length);
    return SocketMessage::binary(std::move(bytes));
}

NSURLSessionWebSocketMessage* webSocketMessage(const SocketMessage& message) {
    if (message.kind == SocketMessage::Kind::text) {
        return [[NSURLSessionWebSocketMessage alloc] initWithString:toNSString(message.data)];
    }
    NSData* data = [NSData dataWithBytes:message.data.data() length:message.data.size()];
    return [[NSURLSessionWebSocketMessage alloc] initWithData:data];
}

// Completes a call that never reached the task: later, never from inside send() or receive().
void completeLater(dispatch_block_t block) {
    dispatch_async(dispatch_get_global_queue(QOS_CLASS_DEFAULT, 0), block);
}

// How long an ended task gets to answer a receive with a message it still holds, or with its
// own error, before the end's error stands in. Foundation answers at once when it answers at
// all; the grace only bounds the case where it never does.
constexpr int64_t kReceiveGraceNanoseconds = NSEC_PER_SEC;

void expireAfterGrace(const std::shared_ptr<SocketChannel>& channel, std::uint64_t receive) {
    dispatch_after(dispatch_time(DISPATCH_TIME_NOW, kReceiveGraceNanoseconds),
                   dispatch_get_global_queue(QOS_CLASS_DEFAULT, 0), ^{
                     channel->calls.expire(receive);
                   });
}

class URLSessionSocket final : public VirelaSocket {
  public:
    // Without a task (Foundation refused the URL) the channel has already ended: every call
    // fails with that error and the socket reads as completed.
    URLSessionSocket(NSURLSessionWebSocketTask* _Nullable task,
                     std::shared_ptr<SocketChannel> channel)
        : task_(task), channel_(std::move(channel)) {}

    // A socket the core has let go of can no longer be closed by anyone, so close it here
    // rather than leave its connection open for the life of the session.
    ~URLSessionSocket() override {
        const SocketState now = state();
        if (now == SocketState::running || now == SocketState::suspended) {
            cancel(static_cast<int>(NSURLSessionWebSocketCloseCodeGoingAway), std::nullopt);
        }
    }

    SocketState state() const override {
        if (!task_) return SocketState::completed;
        return socketStateOf(static_cast<long>(task_.state));
    }

    void resume() override { [task_ resume]; }

    void cancel(int closeCode, std::optional<std::string> reason) override {
        // Set before the close starts, so that the failures it causes read as cancelled.
        channel_->closedByUs.store(true);
        NSData* reasonData = nil;
        if (reason) {
            const std::string bytes = closeReasonToSend(std::move(*reason));
            reasonData = [NSData dataWithBytes:bytes.data() length:bytes.size()];
        }
        const auto code = static_cast<NSURLSessionWebSocketCloseCode>(closeCodeToSend(closeCode));
        [task_ cancelWithCloseCode:code reason:reasonData];
    }

    void send(SocketMessage message, std::function<void(std::exception_ptr)> completion) override {
        auto done =
            std::make_shared<std::function<void(std::exception_ptr)>>(std::move(completion));
        auto call = channel_->calls.add(SocketCalls::Kind::send,
                                        [done](std::exception_ptr error) { (*done)(error); });
        if (auto* ended = std::get_if<std::exception_ptr>(&call)) {
            std::exception_ptr error = *ended;
            completeLater(^{
              (*done)(error);
            });
            return;
        }
        const std::uint64_t id = std::get<std::uint64_t>(call);
        auto channel = channel_;
        [task_ sendMessage:webSocketMessage(message)
            completionHandler:^(NSError* _Nullable error) {
              if (!channel->calls.settle(id)) return;
              (*done)(error ? channel->failure(error) : nullptr);
            }];
    }

    void receive(std::function<void(SocketReceiveResult)> completion) override {
        auto done =
            std::make_shared<std::function<void(SocketReceiveResult)>>(std::move(completion));
        auto call = channel_->calls.add(SocketCalls::Kind::receive,
                                        [done](std::exception_ptr error) { (*done)(error); });
        const std::uint64_t id = std::get<std::uint64_t>(call);
        auto channel = channel_;
        if (!task_) {
            // No task ever ran, so nothing is buffered: the end's error, at once.
            completeLater(^{
              channel->calls.expire(id);
            });
            return;
        }
        // Even after the task has ended: it may still hold messages that arrived before the
        // close, and those come before the end.
        [task_ receiveMessageWithCompletionHandler:^(
                   NSURLSessionWebSocketMessage* _Nullable message, NSError* _Nullable error) {
          if (!channel->calls.settle(id)) return;
          (*done)(receiveResult(*channel, message, error));
        }];
        if (channel->calls.ended()) expireAfterGrace(channel, id);
    }

  private:
    NSURLSessionWebSocketTask* _Nullable task_;
    std::shared_ptr<SocketChannel> channel_;
};

class URLSocketSession final : public SocketSession {
  public:
    explicit URLSocketSession(NSURLSession* _Nullable session) : session_(session) {}
    // Releases the session's hold on its delegate once its task has ended.
    ~URLSocketSession() override { [session_ finishTasksAndInvalidate]; }

  private:
    NSURLSession* _Nullable session_;
};

}  // namespace
}  // namespace virela::ios

// The delegate of one socket's URL session; it runs on the session's own serial queue.
@interface VIRSocketSessionDelegate : NSObject <NSURLSessionWebSocketDelegate>
@end

@implementation VIRSocketSessionDelegate {
    std::shared_ptr<virela::ios::SocketChannel> _channel;
    std::weak_ptr<virela::SocketDelegate> _delegate;
    // Set once, before the task is resumed, so before any callback can read it.
    std::weak_ptr<virela::VirelaSocket> _socket;
}

- (instancetype)initWithChannel:(std::shared_ptr<virela::ios::SocketChannel>)channel
                       delegate:(std::weak_ptr<virela::SocketDelegate>)delegate {
    self = [super init];
    if (self) {
        _channel = std::move(channel);
        _delegate = std::move(delegate);
    }
    return self;
}

- (void)attachSocket:(std::weak_ptr<virela::VirelaSocket>)socket {
    _socket = std::move(socket);
}

- (void)URLSession:(NSURLSession*)session
          webSocketTask:(NSURLSessionWebSocketTask*)webSocketTask
    didOpenWithProtocol:(nullable NSString*)protocol {
    auto delegate = _delegate.lock();
    auto socket = _socket.lock();
    if (!delegate || !socket) return;
    delegate->socketDidOpen(*socket, virela::ios::toOptionalString(protocol));
}

- (void)URLSession:(NSURLSession*)session
                    task:(NSURLSessionTask*)task
    didCompleteWithError:(nullable NSError*)error {
    for (const std::uint64_t receive : _channel->calls.end(_channel->failure(error))) {
        virela::ios::expireAfterGrace(_channel, receive);
    }
}

@end

namespace virela::ios {

SocketConnection makeSocket(const Url& url, const std::shared_ptr<SocketSession>& /*session*/,
                            const std::vector<std::string>& protocols,
                            std::weak_ptr<SocketDelegate> delegate) {
    auto channel = std::make_shared<SocketChannel>();

    // webSocketTaskWithURL: raises for a URL that is not ws or wss; the core builds only those,
    // but a refusal here must fail the socket, not the process.
    NSURL* nsurl = [NSURL URLWithString:toNSString(url.str())];
    NSString* scheme = nsurl.scheme.lowercaseString;
    if (!nsurl || !([scheme isEqualToString:@"ws"] || [scheme isEqualToString:@"wss"])) {
        channel->calls.end(
            networkFailure(urlError(NSURLErrorBadURL, @"The socket URL is not valid.", nil)));
        return {std::make_shared<URLSessionSocket>(nil, channel),
                std::make_shared<URLSocketSession>(nil)};
    }

    // A session of its own per socket (the one passed in is not reused): invalidating it then
    // concerns exactly this socket. Its callbacks run on a serial queue the session creates.
    VIRSocketSessionDelegate* sessionDelegate =
        [[VIRSocketSessionDelegate alloc] initWithChannel:channel delegate:std::move(delegate)];
    NSURLSession* session =
        [NSURLSession sessionWithConfiguration:NSURLSessionConfiguration.defaultSessionConfiguration
                                      delegate:sessionDelegate
                                 delegateQueue:nil];
    NSMutableArray<NSString*>* names = [NSMutableArray arrayWithCapacity:protocols.size()];
    for (const std::string& protocol : protocols) [names addObject:toNSString(protocol)];
    NSURLSessionWebSocketTask* task = [session webSocketTaskWithURL:nsurl protocols:names];

    auto socket = std::make_shared<URLSessionSocket>(task, channel);
    [sessionDelegate attachSocket:socket];
    return {socket, std::make_shared<URLSocketSession>(session)};
}

}  // namespace virela::ios
