// The one translation unit that compiles Asio, Beast and Asio's TLS layer. Everything else
// includes their headers with separate compilation on, so the heavy code is built once.
#include <boost/asio/impl/src.hpp>
#include <boost/asio/ssl/impl/src.hpp>
#include <boost/beast/src.hpp>
