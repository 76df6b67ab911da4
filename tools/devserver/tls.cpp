#include "tools/devserver/tls.hpp"

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <array>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl.hpp>
#include <stdexcept>
#include <thread>

namespace virela::devserver {

namespace asio = boost::asio;
namespace ssl = asio::ssl;
using tcp = asio::ip::tcp;
using boost::system::error_code;

namespace {

template <class T, void (*Free)(T*)>
struct Owned {
    T* p;
    explicit Owned(T* value) : p(value) {
        if (!p) throw std::runtime_error("OpenSSL could not make the test certificate");
    }
    ~Owned() { Free(p); }
    Owned(const Owned&) = delete;
    Owned& operator=(const Owned&) = delete;
};

void check(int ok) {
    if (ok != 1) throw std::runtime_error("OpenSSL could not make the test certificate");
}

std::string pemOf(int (*write)(BIO*, void*), void* object) {
    Owned<BIO, BIO_free_all> bio(BIO_new(BIO_s_mem()));
    check(write(bio.p, object));
    char* data = nullptr;
    const long size = BIO_get_mem_data(bio.p, &data);
    return std::string(data, static_cast<std::size_t>(size));
}

}  // namespace

TlsIdentity makeSelfSignedIdentity() {
    Owned<EVP_PKEY, EVP_PKEY_free> key(EVP_EC_gen("P-256"));
    Owned<X509, X509_free> cert(X509_new());
    check(X509_set_version(cert.p, 2));
    check(ASN1_INTEGER_set(X509_get_serialNumber(cert.p), 1));
    X509_gmtime_adj(X509_getm_notBefore(cert.p), -60);
    X509_gmtime_adj(X509_getm_notAfter(cert.p), 24L * 60 * 60);
    check(X509_set_pubkey(cert.p, key.p));
    X509_NAME* name = X509_get_subject_name(cert.p);
    check(X509_NAME_add_entry_by_txt(
        name, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char*>("localhost"), -1, -1, 0));
    check(X509_set_issuer_name(cert.p, name));
    X509V3_CTX context;
    X509V3_set_ctx_nodb(&context);
    X509V3_set_ctx(&context, cert.p, cert.p, nullptr, nullptr, 0);
    Owned<X509_EXTENSION, X509_EXTENSION_free> names(
        X509V3_EXT_conf_nid(nullptr, &context, NID_subject_alt_name, "DNS:localhost,IP:127.0.0.1"));
    check(X509_add_ext(cert.p, names.p, -1));
    if (X509_sign(cert.p, key.p, EVP_sha256()) <= 0) check(0);

    TlsIdentity identity;
    identity.certificatePem = pemOf(
        [](BIO* bio, void* x) { return PEM_write_bio_X509(bio, static_cast<X509*>(x)); }, cert.p);
    identity.privateKeyPem = pemOf(
        [](BIO* bio, void* k) {
            return PEM_write_bio_PrivateKey(bio, static_cast<EVP_PKEY*>(k), nullptr, nullptr, 0,
                                            nullptr, nullptr);
        },
        key.p);
    return identity;
}

namespace {

// One relayed connection: TLS on the outside, plain TCP to the HTTP server inside. Each
// direction has one read and one write in flight at a time, on the front's one thread.
class Relay : public std::enable_shared_from_this<Relay> {
  public:
    Relay(tcp::socket outside, ssl::context& tls, tcp::endpoint plain)
        : outside_(std::move(outside), tls),
          inside_(outside_.get_executor()),
          plain_(std::move(plain)) {}

    void run() {
        outside_.async_handshake(ssl::stream_base::server,
                                 [self = shared_from_this()](const error_code& ec) {
                                     if (ec) return self->close();
                                     self->connectInside();
                                 });
    }

  private:
    void connectInside() {
        inside_.async_connect(plain_, [self = shared_from_this()](const error_code& ec) {
            if (ec) return self->close();
            self->pipe(self->outside_, self->inside_, self->up_);
            self->pipe(self->inside_, self->outside_, self->down_);
        });
    }

    template <class From, class To>
    void pipe(From& from, To& to, std::array<char, 16384>& buffer) {
        from.async_read_some(asio::buffer(buffer), [self = shared_from_this(), &from, &to, &buffer](
                                                       const error_code& ec, std::size_t n) {
            if (ec) return self->close();
            asio::async_write(to, asio::buffer(buffer.data(), n),
                              [self, &from, &to, &buffer](const error_code& e, std::size_t) {
                                  if (e) return self->close();
                                  self->pipe(from, to, buffer);
                              });
        });
    }

    void close() {
        error_code ignored;
        outside_.lowest_layer().close(ignored);
        inside_.close(ignored);
    }

    ssl::stream<tcp::socket> outside_;
    tcp::socket inside_;
    tcp::endpoint plain_;
    std::array<char, 16384> up_{};
    std::array<char, 16384> down_{};
};

}  // namespace

struct TlsFront::Impl {
    ssl::context tls{ssl::context::tls_server};
    asio::io_context io{1};
    tcp::acceptor acceptor{io};
    tcp::endpoint plain;
    std::thread thread;

    void accept() {
        acceptor.async_accept([this](const error_code& ec, tcp::socket socket) {
            if (!acceptor.is_open() || ec == asio::error::operation_aborted) return;
            if (!ec) std::make_shared<Relay>(std::move(socket), tls, plain)->run();
            accept();
        });
    }
};

TlsFront::TlsFront(const std::string& host, std::uint16_t port, std::uint16_t plainPort,
                   const TlsIdentity& identity)
    : impl_(std::make_unique<Impl>()) {
    const auto address = asio::ip::make_address(host);
    if (!address.is_loopback()) {
        throw std::invalid_argument("devserver only listens on loopback, not \"" + host + "\"");
    }
    impl_->plain = tcp::endpoint(address, plainPort);
    impl_->tls.use_certificate_chain(asio::buffer(identity.certificatePem));
    impl_->tls.use_private_key(asio::buffer(identity.privateKeyPem), ssl::context::pem);
    const tcp::endpoint endpoint(address, port);
    impl_->acceptor.open(endpoint.protocol());
    impl_->acceptor.set_option(tcp::acceptor::reuse_address(true));
    impl_->acceptor.bind(endpoint);
    impl_->acceptor.listen();
    impl_->accept();
    impl_->thread = std::thread([impl = impl_.get()] {
        for (;;) {
            try {
                impl->io.run();
                return;
            } catch (const std::exception&) {
                // One failed relay must not take the front down.
            }
        }
    });
}

TlsFront::~TlsFront() {
    impl_->io.stop();
    if (impl_->thread.joinable()) impl_->thread.join();
}

std::uint16_t TlsFront::port() const {
    return impl_->acceptor.local_endpoint().port();
}

}  // namespace virela::devserver
