#include "platform/headless/http_client.hpp"

#include <openssl/err.h>
#include <openssl/ssl.h>

#include <algorithm>
#include <boost/asio/ip/address.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/ssl.hpp>
#include <cctype>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <unordered_map>

#include "core/api/errors.hpp"
#include "core/client/clock.hpp"
#include "core/client/registration.hpp"
#include "platform/headless/detail/io_threads.hpp"
#include "platform/headless/detail/timer_set.hpp"
#include "platform/headless/stderr_log.hpp"

namespace virela::headless {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
namespace ssl = asio::ssl;
using tcp = asio::ip::tcp;
using boost::system::error_code;
using Kind = NetworkError::Kind;

namespace {

constexpr std::size_t kHeaderLimit = std::size_t{64} * 1024;

std::exception_ptr networkError(Kind kind, const std::string& detail, long code) {
    NetworkError error(kind, detail);
    error.withPlatformCode(code);
    return std::make_exception_ptr(error);
}

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](unsigned char x, unsigned char y) {
        return std::tolower(x) == std::tolower(y);
    });
}

// An HTTP token (method, header name).
bool isToken(std::string_view text) {
    if (text.empty()) return false;
    return std::all_of(text.begin(), text.end(), [](unsigned char c) {
        return std::isalnum(c) != 0 ||
               std::string_view("!#$%&'*+-.^_`|~").find(static_cast<char>(c)) !=
                   std::string_view::npos;
    });
}

// Header values must not smuggle in line breaks.
bool isFieldValue(std::string_view text) {
    return text.find_first_of(std::string_view("\r\n\0", 3)) == std::string_view::npos;
}

// Errors meaning the bytes received are not a well-formed HTTP response.
bool isMalformed(const error_code& ec) {
    if (ec.category() != http::make_error_code(http::error::bad_version).category()) return false;
    switch (static_cast<http::error>(ec.value())) {
        case http::error::bad_line_ending:
        case http::error::bad_method:
        case http::error::bad_target:
        case http::error::bad_version:
        case http::error::bad_status:
        case http::error::bad_reason:
        case http::error::bad_field:
        case http::error::bad_value:
        case http::error::bad_content_length:
        case http::error::bad_transfer_encoding:
        case http::error::bad_chunk:
        case http::error::bad_chunk_extension:
        case http::error::bad_obs_fold:
        case http::error::multiple_content_length:
            return true;
        default:
            return false;
    }
}

// Requests in flight, so that shutdown can complete them.
class Exchange;
struct Registry {
    std::mutex mutex;
    bool closed = false;
    std::unordered_map<const Exchange*, std::weak_ptr<Exchange>> live;
};

// One request on one connection. Runs on the network thread; after that thread has been joined,
// shutdown may abort it from another.
class Exchange : public std::enable_shared_from_this<Exchange> {
  public:
    Exchange(asio::io_context& io, std::shared_ptr<ssl::context> tls,
             std::shared_ptr<const HttpClientOptions> options, std::shared_ptr<Registry> registry,
             HttpRequest request, std::function<void(HttpOutcome)> done)
        : io_(io),
          tlsContext_(std::move(tls)),
          options_(std::move(options)),
          registry_(std::move(registry)),
          request_(std::move(request)),
          done_(std::move(done)),
          resolver_(io),
          deadline_(io) {}

    void start();

    void abort(Kind kind) {
        if (finished_) return;
        if (kind == Kind::timedOut) {
            finish({std::nullopt, networkError(kind, "request timed out after " + seconds() + " s",
                                               asio::error::timed_out)});
        } else {
            finish({std::nullopt,
                    networkError(kind, "request cancelled", asio::error::operation_aborted)});
        }
    }

  private:
    enum class Phase { resolve, connect, handshake, write, read };

    beast::tcp_stream& tcp() { return tls_ ? beast::get_lowest_layer(*tls_) : *plain_; }
    std::string seconds() const {
        std::ostringstream text;
        text << request_.timeoutSeconds;
        return text.str();
    }
    std::string where() const { return host_ + ":" + std::to_string(port_); }

    bool prepare();
    void onResolved(const error_code& ec, const tcp::resolver::results_type& endpoints);
    void onConnected(const error_code& ec);
    template <class Stream>
    void write(Stream& stream);
    template <class Stream>
    void read(Stream& stream);
    template <class Stream>
    void onRead(Stream& stream, error_code ec);
    void fail(Phase phase, const error_code& ec);
    void finish(HttpOutcome outcome);

    asio::io_context& io_;
    std::shared_ptr<ssl::context> tlsContext_;
    std::shared_ptr<const HttpClientOptions> options_;
    std::shared_ptr<Registry> registry_;
    HttpRequest request_;
    std::function<void(HttpOutcome)> done_;
    tcp::resolver resolver_;
    asio::steady_timer deadline_;
    std::optional<beast::ssl_stream<beast::tcp_stream>> tls_;
    std::optional<beast::tcp_stream> plain_;
    http::request<http::string_body> message_;
    beast::flat_buffer buffer_;
    std::optional<http::response_parser<http::string_body>> parser_;
    std::string host_;  // without IPv6 brackets
    int port_ = 0;
    bool finished_ = false;
};

bool Exchange::prepare() {
    const Url& url = request_.url;
    std::string scheme = url.scheme();
    std::transform(scheme.begin(), scheme.end(), scheme.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    auto invalid = [this](const std::string& detail) {
        finish({std::nullopt, networkError(Kind::other, detail, 0)});
        return false;
    };
    if (scheme != "http" && scheme != "https") {
        return invalid("unsupported URL scheme \"" + url.scheme() + "\"");
    }
    host_ = url.host();
    if (host_.size() >= 2 && host_.front() == '[' && host_.back() == ']') {
        host_ = host_.substr(1, host_.size() - 2);
    }
    if (host_.empty()) return invalid("URL has no host");
    port_ = url.effectivePort();
    if (port_ <= 0 || port_ > 65535) return invalid("URL has an invalid port");
    if (!isToken(request_.method)) return invalid("invalid HTTP method");

    message_.version(11);
    message_.method_string(request_.method);
    message_.target(url.target());
    bool hasHost = false;
    bool hasAgent = false;
    for (const auto& header : request_.headers) {
        if (!isToken(header.name) || !isFieldValue(header.value)) {
            return invalid("invalid header \"" + header.name + "\"");
        }
        // Framing is ours: one body of known length on a connection used once.
        if (equalsIgnoringCase(header.name, "Content-Length") ||
            equalsIgnoringCase(header.name, "Transfer-Encoding") ||
            equalsIgnoringCase(header.name, "Connection")) {
            continue;
        }
        hasHost = hasHost || equalsIgnoringCase(header.name, "Host");
        hasAgent = hasAgent || equalsIgnoringCase(header.name, "User-Agent");
        message_.insert(header.name, header.value);
    }
    if (!hasHost) {
        int defaultPort = scheme == "https" ? 443 : 80;
        std::string value = url.host();
        if (url.port() && *url.port() != defaultPort) value += ":" + std::to_string(*url.port());
        message_.set(http::field::host, value);
    }
    if (!hasAgent) {
        auto agent = options_->userAgent.value_or(std::string("VirelaAgent/") + kSdkVersion);
        if (!agent.empty()) message_.set(http::field::user_agent, agent);
    }
    message_.set(http::field::connection, "close");
    bool bodyExpected =
        request_.method == "POST" || request_.method == "PUT" || request_.method == "PATCH";
    if (!request_.body.empty() || bodyExpected) message_.content_length(request_.body.size());
    message_.body() = std::move(request_.body);

    if (scheme == "https") {
        tls_.emplace(io_, *tlsContext_);
    } else {
        plain_.emplace(io_);
    }
    return true;
}

void Exchange::start() {
    if (finished_ || !prepare()) return;
    deadline_.expires_after(
        detail::toDuration(request_.timeoutSeconds > 0 ? request_.timeoutSeconds : 60.0, 0.0));
    deadline_.async_wait([self = shared_from_this()](const error_code& ec) {
        if (!ec) self->abort(Kind::timedOut);
    });
    resolver_.async_resolve(
        host_, std::to_string(port_),
        [self = shared_from_this()](const error_code& ec,
                                    const tcp::resolver::results_type& endpoints) {
            self->onResolved(ec, endpoints);
        });
}

void Exchange::onResolved(const error_code& ec, const tcp::resolver::results_type& endpoints) {
    if (finished_) return;
    if (ec) return fail(Phase::resolve, ec);
    tcp().async_connect(endpoints,
                        [self = shared_from_this()](const error_code& e, const tcp::endpoint&) {
                            self->onConnected(e);
                        });
}

void Exchange::onConnected(const error_code& ec) {
    if (finished_) return;
    if (ec) return fail(Phase::connect, ec);
    if (!tls_) return write(*plain_);

    error_code addressError;
    asio::ip::make_address(host_, addressError);
    if (addressError) {
        // Server name indication, for host names only (never for address literals).
        if (SSL_ctrl(tls_->native_handle(), SSL_CTRL_SET_TLSEXT_HOSTNAME, TLSEXT_NAMETYPE_host_name,
                     host_.data()) != 1) {
            return fail(Phase::handshake, error_code(static_cast<int>(::ERR_get_error()),
                                                     asio::error::get_ssl_category()));
        }
    }
    if (options_->verifyPeer) {
        tls_->set_verify_mode(ssl::verify_peer);
        tls_->set_verify_callback(ssl::host_name_verification(host_));
    } else {
        tls_->set_verify_mode(ssl::verify_none);
    }
    tls_->async_handshake(ssl::stream_base::client,
                          [self = shared_from_this()](const error_code& e) {
                              if (self->finished_) return;
                              if (e) return self->fail(Phase::handshake, e);
                              self->write(*self->tls_);
                          });
}

template <class Stream>
void Exchange::write(Stream& stream) {
    http::async_write(stream, message_,
                      [self = shared_from_this(), &stream](const error_code& ec, std::size_t) {
                          if (self->finished_) return;
                          if (ec) return self->fail(Phase::write, ec);
                          self->read(stream);
                      });
}

template <class Stream>
void Exchange::read(Stream& stream) {
    parser_.emplace();
    parser_->header_limit(kHeaderLimit);
    parser_->body_limit(options_->maxBodyBytes);
    if (request_.method == "HEAD") parser_->skip(true);
    http::async_read(stream, buffer_, *parser_,
                     [self = shared_from_this(), &stream](error_code ec, std::size_t) {
                         self->onRead(stream, ec);
                     });
}

template <class Stream>
void Exchange::onRead(Stream& stream, error_code ec) {
    if (finished_) return;
    // Many TLS servers close without a close_notify; that still ends a body read to EOF.
    if (ec == ssl::error::stream_truncated && parser_->is_header_done() && parser_->need_eof()) {
        parser_->put_eof(ec);
    }
    if (ec == http::error::partial_message && !parser_->is_header_done()) {
        // The peer sent a few bytes and hung up: an interrupted response if they began like
        // one, otherwise something that is not HTTP at all.
        std::string_view head(static_cast<const char*>(buffer_.data().data()),
                              std::min<std::size_t>(buffer_.size(), 5));
        if (std::string_view("HTTP/").substr(0, head.size()) != head) {
            return finish({std::nullopt, nullptr});
        }
    }
    if (ec) return fail(Phase::read, ec);
    const auto& message = parser_->get();
    int status = static_cast<int>(message.result_int());
    // Interim responses (100 Continue and the like) precede the real one.
    if (status >= 100 && status < 200 && status != 101) return read(stream);

    HttpResponse response;
    response.status = status;
    for (const auto& field : message) {
        response.headers.push_back({std::string(field.name_string()), std::string(field.value())});
    }
    response.body = parser_->release().body();
    finish({std::move(response), nullptr});
}

void Exchange::fail(Phase phase, const error_code& ec) {
    if (finished_) return;
    if (phase == Phase::read && isMalformed(ec)) return finish({std::nullopt, nullptr});
    Kind kind = Kind::other;
    std::string action;
    switch (phase) {
        case Phase::resolve:
            kind = Kind::cannotResolve;
            action = "cannot resolve ";
            break;
        case Phase::connect:
            if (ec == asio::error::connection_refused) kind = Kind::refused;
            action = "cannot connect to ";
            break;
        case Phase::handshake:
            kind = Kind::secureConnection;
            action = "TLS handshake failed with ";
            break;
        case Phase::write:
            action = "sending to ";
            break;
        case Phase::read:
            action = "reading the response from ";
            break;
    }
    if (ec == asio::error::timed_out && phase != Phase::resolve) kind = Kind::timedOut;
    finish({std::nullopt, networkError(kind, action + where() + ": " + ec.message(), ec.value())});
}

void Exchange::finish(HttpOutcome outcome) {
    if (finished_) return;
    finished_ = true;
    error_code ignored;
    deadline_.cancel();
    resolver_.cancel();
    if (tls_ || plain_) tcp().socket().close(ignored);
    {
        std::lock_guard lock(registry_->mutex);
        registry_->live.erase(this);
    }
    auto done = std::move(done_);
    done_ = nullptr;
    if (done) done(std::move(outcome));
}

class RequestHandle final : public VirelaCancellable {
  public:
    RequestHandle(std::weak_ptr<Exchange> exchange, std::weak_ptr<detail::IoThreads> net)
        : exchange_(std::move(exchange)), net_(std::move(net)) {}

    void cancel() override {
        auto net = net_.lock();
        if (!net || net->stopped()) return;  // shutdown completes it
        asio::post(net->context(), [exchange = exchange_] {
            if (auto e = exchange.lock()) e->abort(Kind::cancelled);
        });
    }

  private:
    std::weak_ptr<Exchange> exchange_;
    std::weak_ptr<detail::IoThreads> net_;
};

class NothingToCancel final : public VirelaCancellable {
  public:
    void cancel() override {}
};

}  // namespace

struct BeastHttpClient::Impl {
    std::shared_ptr<const HttpClientOptions> options;
    std::shared_ptr<ssl::context> tls;
    std::shared_ptr<Registry> registry = std::make_shared<Registry>();
    std::shared_ptr<detail::IoThreads> net;
};

BeastHttpClient::BeastHttpClient(HttpClientOptions options) : impl_(std::make_shared<Impl>()) {
    impl_->options = std::make_shared<const HttpClientOptions>(std::move(options));
    const auto& opts = *impl_->options;
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
    impl_->tls = std::move(tls);
    impl_->net = detail::IoThreads::start("virela-net", 1);
}

BeastHttpClient::~BeastHttpClient() {
    shutdown();
}

std::shared_ptr<VirelaCancellable> BeastHttpClient::send(HttpRequest request,
                                                         std::function<void(HttpOutcome)> done) {
    if (!done) done = [](const HttpOutcome&) {};
    {
        std::lock_guard lock(impl_->registry->mutex);
        if (!impl_->registry->closed) {
            auto exchange =
                std::make_shared<Exchange>(impl_->net->context(), impl_->tls, impl_->options,
                                           impl_->registry, std::move(request), std::move(done));
            impl_->registry->live[exchange.get()] = exchange;
            asio::post(impl_->net->context(), [exchange] { exchange->start(); });
            return std::make_shared<RequestHandle>(exchange, impl_->net);
        }
    }
    done({std::nullopt, networkError(Kind::cancelled, "HTTP client is shut down",
                                     asio::error::operation_aborted)});
    return std::make_shared<NothingToCancel>();
}

void BeastHttpClient::shutdown() {
    {
        std::lock_guard lock(impl_->registry->mutex);
        impl_->registry->closed = true;
    }
    impl_->net->shutdown();
    // The network thread is gone, so nothing else touches the exchanges now.
    std::vector<std::shared_ptr<Exchange>> live;
    {
        std::lock_guard lock(impl_->registry->mutex);
        for (auto& [key, weak] : impl_->registry->live) {
            if (auto exchange = weak.lock()) live.push_back(std::move(exchange));
        }
    }
    for (auto& exchange : live) {
        try {
            exchange->abort(Kind::cancelled);
        } catch (const std::exception& e) {
            // A throwing completion must not stop the others, nor escape a destructor.
            writeStderrLine(LogLevel::error, std::string("HTTP completion threw: ") + e.what());
        } catch (...) {
            writeStderrLine(LogLevel::error, "HTTP completion threw");
        }
    }
}

}  // namespace virela::headless
