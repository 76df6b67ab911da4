#include "platform/headless/net/network.hpp"

#include <openssl/err.h>
#include <openssl/ssl.h>

#include <algorithm>
#include <boost/asio/ip/address.hpp>
#include <boost/asio/ssl.hpp>
#include <cctype>
#include <stdexcept>

#include "core/base/version.hpp"
#include "platform/headless/stderr_log.hpp"

namespace virela::headless::detail {

namespace asio = boost::asio;
namespace ssl = asio::ssl;
using boost::system::error_code;

bool NetworkJobs::add(const std::shared_ptr<NetworkJob>& job) {
    std::lock_guard lock(mutex_);
    if (closed_) return false;
    live_[job.get()] = job;
    return true;
}

void NetworkJobs::remove(const NetworkJob* job) {
    std::lock_guard lock(mutex_);
    live_.erase(job);
}

std::vector<std::shared_ptr<NetworkJob>> NetworkJobs::close() {
    std::lock_guard lock(mutex_);
    closed_ = true;
    std::vector<std::shared_ptr<NetworkJob>> live;
    for (auto& [key, weak] : live_) {
        if (auto job = weak.lock()) live.push_back(std::move(job));
    }
    live_.clear();
    return live;
}

Network::Network(HttpClientOptions options)
    : options_(std::make_shared<const HttpClientOptions>(std::move(options))) {
    const auto& opts = *options_;
    auto tls = std::make_shared<ssl::context>(ssl::context::tls_client);
    SSL_CTX_set_min_proto_version(tls->native_handle(), TLS1_2_VERSION);
    error_code ec;
    tls->set_default_verify_paths(ec);  // without system roots only the extra trust works
    if (opts.caFile) {
        tls->load_verify_file(opts.caFile->string(), ec);
        if (ec) throw std::runtime_error("cannot load CA file " + opts.caFile->string());
    }
    if (opts.caPem) {
        tls->add_certificate_authority(asio::buffer(*opts.caPem), ec);
        if (ec) throw std::runtime_error("cannot load the given CA certificate");
    }
    tls->set_verify_mode(opts.verifyPeer ? ssl::verify_peer : ssl::verify_none);
    tls_ = std::move(tls);
    threads_ = IoThreads::start("virela-net", 1);
}

Network::~Network() {
    shutdown();
}

std::string Network::userAgent() const {
    return options_->userAgent.value_or(std::string("VirelaAgent/") + kSdkVersion);
}

void Network::shutdown() {
    // Closing first means no job can slip in between the stop and the sweep.
    auto live = jobs_->close();
    threads_->shutdown();
    for (auto& job : live) {
        try {
            job->abandon();
        } catch (const std::exception& e) {
            // A throwing completion must not stop the others, nor escape a destructor.
            writeStderrLine(LogLevel::error, std::string("network completion threw: ") + e.what());
        } catch (...) {
            writeStderrLine(LogLevel::error, "network completion threw");
        }
    }
    // Steps posted just before the stop (a receive, a send) are dropped unrun; their
    // completions then run once, as cancelled.
    threads_->dropPending();
}

std::variant<Endpoint, std::string> endpointOf(const Url& url, std::string_view plainScheme,
                                               std::string_view secureScheme) {
    std::string scheme = url.scheme();
    std::transform(scheme.begin(), scheme.end(), scheme.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    if (scheme != plainScheme && scheme != secureScheme) {
        return "unsupported URL scheme \"" + url.scheme() + "\"";
    }
    Endpoint endpoint;
    endpoint.secure = scheme == secureScheme;
    endpoint.host = url.host();
    if (endpoint.host.size() >= 2 && endpoint.host.front() == '[' && endpoint.host.back() == ']') {
        endpoint.host = endpoint.host.substr(1, endpoint.host.size() - 2);
    }
    if (endpoint.host.empty()) return std::string("URL has no host");
    endpoint.port = url.effectivePort();
    if (endpoint.port <= 0 || endpoint.port > 65535) return std::string("URL has an invalid port");
    int defaultPort = endpoint.secure ? 443 : 80;
    endpoint.hostHeader = url.host();
    if (url.port() && *url.port() != defaultPort) {
        endpoint.hostHeader += ":" + std::to_string(*url.port());
    }
    return endpoint;
}

std::exception_ptr networkError(NetworkError::Kind kind, const std::string& detail, long code) {
    NetworkError error(kind, detail);
    error.withPlatformCode(code);
    return std::make_exception_ptr(error);
}

namespace {

// Server name indication (for host names, never address literals) and peer verification.
error_code prepareTls(boost::beast::ssl_stream<boost::beast::tcp_stream>& stream,
                      const std::string& host, bool verifyPeer) {
    error_code addressError;
    asio::ip::make_address(host, addressError);
    std::string name = host;  // OpenSSL wants a mutable pointer
    if (addressError && SSL_ctrl(stream.native_handle(), SSL_CTRL_SET_TLSEXT_HOSTNAME,
                                 TLSEXT_NAMETYPE_host_name, name.data()) != 1) {
        return error_code(static_cast<int>(::ERR_get_error()), asio::error::get_ssl_category());
    }
    if (verifyPeer) {
        stream.set_verify_mode(ssl::verify_peer);
        stream.set_verify_callback(ssl::host_name_verification(host));
    } else {
        stream.set_verify_mode(ssl::verify_none);
    }
    return {};
}

}  // namespace

void connectStream(asio::ip::tcp::resolver& resolver, const Endpoint& endpoint,
                   boost::beast::tcp_stream& tcp,
                   boost::beast::ssl_stream<boost::beast::tcp_stream>* tls, bool verifyPeer,
                   std::function<bool()> wanted, ConnectDone done) {
    // One state for the three steps; the handlers hold it, the owner holds the streams.
    struct Steps {
        boost::beast::tcp_stream& tcp;
        boost::beast::ssl_stream<boost::beast::tcp_stream>* tls;
        std::string host;
        bool verifyPeer;
        std::function<bool()> wanted;
        ConnectDone done;
    };
    auto steps = std::make_shared<Steps>(
        Steps{tcp, tls, endpoint.host, verifyPeer, std::move(wanted), std::move(done)});
    auto proceed = [](const std::shared_ptr<Steps>& s, ConnectStep step, const error_code& ec) {
        if (ec || !s->wanted()) {
            s->done(step, ec ? ec : error_code(asio::error::operation_aborted));
            return false;
        }
        return true;
    };
    resolver.async_resolve(
        endpoint.host, std::to_string(endpoint.port),
        [steps, proceed](const error_code& ec, const asio::ip::tcp::resolver::results_type& found) {
            if (!proceed(steps, ConnectStep::resolve, ec)) return;
            steps->tcp.async_connect(
                found, [steps, proceed](const error_code& e, const asio::ip::tcp::endpoint&) {
                    if (!proceed(steps, ConnectStep::connect, e)) return;
                    if (!steps->tls) return steps->done(ConnectStep::connect, {});
                    if (auto tlsError = prepareTls(*steps->tls, steps->host, steps->verifyPeer)) {
                        return steps->done(ConnectStep::tls, tlsError);
                    }
                    steps->tls->async_handshake(ssl::stream_base::client,
                                                [steps, proceed](const error_code& h) {
                                                    if (!proceed(steps, ConnectStep::tls, h))
                                                        return;
                                                    steps->done(ConnectStep::tls, {});
                                                });
                });
        });
}

bool isToken(std::string_view text) {
    if (text.empty()) return false;
    return std::all_of(text.begin(), text.end(), [](unsigned char c) {
        return std::isalnum(c) != 0 ||
               std::string_view("!#$%&'*+-.^_`|~").find(static_cast<char>(c)) !=
                   std::string_view::npos;
    });
}

std::exception_ptr connectFailure(ConnectStep step, const boost::system::error_code& ec,
                                  const std::string& where) {
    using Kind = NetworkError::Kind;
    auto [kind, action] = [&]() -> std::pair<Kind, const char*> {
        switch (step) {
            case ConnectStep::resolve:
                return {Kind::cannotResolve, "cannot resolve "};
            case ConnectStep::connect:
                return {ec == asio::error::connection_refused ? Kind::refused : Kind::other,
                        "cannot connect to "};
            case ConnectStep::tls:
                return {Kind::secureConnection, "TLS handshake failed with "};
        }
        return {Kind::other, "cannot connect to "};
    }();
    if (ec == asio::error::timed_out && step != ConnectStep::resolve) kind = Kind::timedOut;
    return networkError(kind, action + where + ": " + ec.message(), ec.value());
}

}  // namespace virela::headless::detail
