#include "platform/headless/http_client.hpp"

#include <algorithm>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/ssl.hpp>
#include <cctype>
#include <sstream>
#include <variant>

#include "core/base/errors.hpp"
#include "core/ports/clock.hpp"
#include "platform/headless/detail/timer_set.hpp"
#include "platform/headless/net/network.hpp"

namespace virela::headless {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
namespace ssl = asio::ssl;
using tcp = asio::ip::tcp;
using boost::system::error_code;
using Kind = NetworkError::Kind;
using detail::ConnectStep;
using detail::isToken;
using detail::networkError;

namespace {

constexpr std::size_t kHeaderLimit = std::size_t{64} * 1024;

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](unsigned char x, unsigned char y) {
        return std::tolower(x) == std::tolower(y);
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

// One request on one connection. Runs on the network thread; after that thread has been joined,
// shutdown may abort it from another.
class Exchange : public detail::NetworkJob, public std::enable_shared_from_this<Exchange> {
  public:
    Exchange(detail::Network& network, HttpRequest request, std::function<void(HttpOutcome)> done)
        : io_(network.context()),
          tlsContext_(network.tls()),
          options_(network.options()),
          jobs_(network.jobs()),
          userAgent_(network.userAgent()),
          request_(std::move(request)),
          done_(std::move(done)),
          resolver_(io_),
          deadline_(io_) {}

    void start();

    void abandon() override { abort(Kind::cancelled); }

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
    enum class Phase { write, read };

    beast::tcp_stream& tcp() { return tls_ ? beast::get_lowest_layer(*tls_) : *plain_; }
    std::string seconds() const {
        std::ostringstream text;
        text << request_.timeoutSeconds;
        return text.str();
    }
    std::string where() const { return host_ + ":" + std::to_string(port_); }

    bool prepare();
    void onConnected(ConnectStep step, const error_code& ec);
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
    std::shared_ptr<detail::NetworkJobs> jobs_;
    std::string userAgent_;
    HttpRequest request_;
    std::function<void(HttpOutcome)> done_;
    tcp::resolver resolver_;
    asio::steady_timer deadline_;
    std::optional<beast::ssl_stream<beast::tcp_stream>> tls_;
    std::optional<beast::tcp_stream> plain_;
    http::request<http::string_body> message_;
    beast::flat_buffer buffer_;
    std::optional<http::response_parser<http::string_body>> parser_;
    detail::Endpoint endpoint_;
    std::string host_;  // without IPv6 brackets
    int port_ = 0;
    bool finished_ = false;
};

bool Exchange::prepare() {
    auto invalid = [this](const std::string& detail) {
        finish({std::nullopt, networkError(Kind::other, detail, 0)});
        return false;
    };
    auto endpoint = detail::endpointOf(request_.url, "http", "https");
    if (auto* problem = std::get_if<std::string>(&endpoint)) return invalid(*problem);
    auto& where = std::get<detail::Endpoint>(endpoint);
    endpoint_ = where;
    host_ = where.host;
    port_ = where.port;
    if (!isToken(request_.method)) return invalid("invalid HTTP method");

    message_.version(11);
    message_.method_string(request_.method);
    message_.target(request_.url.target());
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
    if (!hasHost) message_.set(http::field::host, where.hostHeader);
    if (!hasAgent && !userAgent_.empty()) message_.set(http::field::user_agent, userAgent_);
    message_.set(http::field::connection, "close");
    bool bodyExpected =
        request_.method == "POST" || request_.method == "PUT" || request_.method == "PATCH";
    if (!request_.body.empty() || bodyExpected) message_.content_length(request_.body.size());
    message_.body() = std::move(request_.body);

    if (where.secure) {
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
    detail::connectStream(
        resolver_, endpoint_, tcp(), tls_ ? &*tls_ : nullptr, options_->verifyPeer,
        [self = shared_from_this()] { return !self->finished_; },
        [self = shared_from_this()](ConnectStep step, const error_code& ec) {
            self->onConnected(step, ec);
        });
}

void Exchange::onConnected(ConnectStep step, const error_code& ec) {
    if (finished_) return;
    if (ec) return finish({std::nullopt, detail::connectFailure(step, ec, where())});
    if (tls_) return write(*tls_);
    write(*plain_);
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
    const Kind kind = ec == asio::error::timed_out ? Kind::timedOut : Kind::other;
    const std::string action = phase == Phase::write ? "sending to " : "reading the response from ";
    finish({std::nullopt, networkError(kind, action + where() + ": " + ec.message(), ec.value())});
}

void Exchange::finish(HttpOutcome outcome) {
    if (finished_) return;
    finished_ = true;
    error_code ignored;
    deadline_.cancel();
    resolver_.cancel();
    if (tls_ || plain_) tcp().socket().close(ignored);
    jobs_->remove(this);
    auto done = std::move(done_);
    done_ = nullptr;
    if (done) done(std::move(outcome));
}

class RequestHandle final : public VirelaCancellable {
  public:
    RequestHandle(std::weak_ptr<Exchange> exchange, std::weak_ptr<detail::Network> network)
        : exchange_(std::move(exchange)), network_(std::move(network)) {}

    void cancel() override {
        // A stopped loop drops the post; shutdown has completed the request by then.
        auto network = network_.lock();
        if (!network) return;
        asio::post(network->context(), [exchange = exchange_] {
            if (auto e = exchange.lock()) e->abort(Kind::cancelled);
        });
    }

  private:
    std::weak_ptr<Exchange> exchange_;
    std::weak_ptr<detail::Network> network_;
};

class NothingToCancel final : public VirelaCancellable {
  public:
    void cancel() override {}
};

}  // namespace

BeastHttpClient::BeastHttpClient(HttpClientOptions options)
    : network_(std::make_shared<detail::Network>(std::move(options))) {}

BeastHttpClient::~BeastHttpClient() {
    shutdown();
}

std::shared_ptr<VirelaCancellable> BeastHttpClient::send(HttpRequest request,
                                                         std::function<void(HttpOutcome)> done) {
    if (!done) done = [](const HttpOutcome&) {};
    auto exchange = std::make_shared<Exchange>(*network_, std::move(request), std::move(done));
    if (network_->jobs()->add(exchange)) {
        asio::post(network_->context(), [exchange] { exchange->start(); });
        return std::make_shared<RequestHandle>(exchange, network_);
    }
    exchange->abort(Kind::cancelled);
    return std::make_shared<NothingToCancel>();
}

void BeastHttpClient::shutdown() {
    network_->shutdown();
}

}  // namespace virela::headless
