#pragma once

// Internal: the network thread, TLS trust and shutdown bookkeeping that the HTTP and WebSocket
// clients share. Only .cpp files of the headless platform include this header.

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl/context.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/ssl/ssl_stream.hpp>

#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <variant>
#include <vector>

#include "core/base/errors.hpp"
#include "core/base/url.hpp"
#include "platform/headless/detail/io_threads.hpp"
#include "platform/headless/http_client.hpp"

namespace virela::headless::detail {

// Work in flight on the network thread that must still complete when the thread is stopped.
class NetworkJob {
  public:
    virtual ~NetworkJob() = default;
    // Called once the network thread has stopped (or from the thread itself while it stops):
    // complete everything pending as cancelled.
    virtual void abandon() = 0;
};

// The jobs in flight. Jobs hold this, never the Network, so a handler left in a stopped
// io_context cannot keep the io_context alive through its own job.
class NetworkJobs {
  public:
    // False once closed; the caller then completes the job itself.
    bool add(const std::shared_ptr<NetworkJob>& job);
    void remove(const NetworkJob* job);
    // Refuses later jobs and returns the live ones.
    std::vector<std::shared_ptr<NetworkJob>> close();

  private:
    std::mutex mutex_;
    bool closed_ = false;
    std::unordered_map<const NetworkJob*, std::weak_ptr<NetworkJob>> live_;
};

class Network {
  public:
    // Throws std::runtime_error when the TLS trust in `options` cannot be loaded.
    explicit Network(HttpClientOptions options);
    ~Network();  // shutdown()

    Network(const Network&) = delete;
    Network& operator=(const Network&) = delete;

    boost::asio::io_context& context() { return threads_->context(); }
    const std::shared_ptr<const HttpClientOptions>& options() const { return options_; }
    const std::shared_ptr<boost::asio::ssl::context>& tls() const { return tls_; }
    const std::shared_ptr<NetworkJobs>& jobs() const { return jobs_; }
    // The User-Agent to send, or empty for none.
    std::string userAgent() const;

    // Stops the thread, then abandons every job still in flight. Idempotent.
    void shutdown();

  private:
    std::shared_ptr<const HttpClientOptions> options_;
    std::shared_ptr<boost::asio::ssl::context> tls_;
    std::shared_ptr<NetworkJobs> jobs_ = std::make_shared<NetworkJobs>();
    std::shared_ptr<IoThreads> threads_;
};

// Where to connect for a URL of one of two schemes (plain and secure).
struct Endpoint {
    bool secure = false;
    std::string host;  // without IPv6 brackets
    int port = 0;
    std::string hostHeader;  // host, plus the port when it is not the scheme's default
};

// The endpoint, or why the URL cannot be used.
std::variant<Endpoint, std::string> endpointOf(const Url& url, std::string_view plainScheme,
                                               std::string_view secureScheme);

std::exception_ptr networkError(NetworkError::Kind kind, const std::string& detail, long code);

// The steps every connection takes before its own protocol starts.
enum class ConnectStep { resolve, connect, tls };

// A failure at one of those steps as the library reports it: its kind and a message naming the
// step and the peer (`where`, "host:port").
std::exception_ptr connectFailure(ConnectStep step, const boost::system::error_code& ec,
                                  const std::string& where);

// Resolve, connect and, on a secure endpoint, the TLS handshake with server name indication and
// host verification: the steps every connection of the HTTP and WebSocket clients takes before
// its own protocol starts, written once. Runs on the network thread. `wanted` is asked after
// every step, so that a connection its owner gave up never goes further; `done` is called once,
// with an empty code on success or the step that failed and why (operation_aborted when no
// longer wanted).
using ConnectDone = std::function<void(ConnectStep failed, const boost::system::error_code& ec)>;
void connectStream(boost::asio::ip::tcp::resolver& resolver, const Endpoint& endpoint,
                   boost::beast::tcp_stream& tcp,
                   boost::beast::ssl_stream<boost::beast::tcp_stream>* tls, bool verifyPeer,
                   std::function<bool()> wanted, ConnectDone done);

// An HTTP token (method, header name, WebSocket subprotocol).
bool isToken(std::string_view text);

}  // namespace virela::headless::detail
