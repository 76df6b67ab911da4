#pragma once

// The demo's one voice: every line it prints goes through say(), whole and flushed, from
// whichever thread has something to tell. Numbers are written the same under any locale.

#include <exception>
#include <optional>
#include <string>
#include <string_view>

#include "core/api/diagnostics.hpp"

namespace demo {

// Prints one line to standard output and flushes it.
void say(std::string_view line);

// Shortest round-trip text of a number, with a point for a decimal mark whatever the locale.
std::string number(double value);
// Rounded to at most one decimal ("12", "12.5"), as the app's value and offset lines show it.
std::string oneDecimal(double value);
// Exactly `decimals` decimals ("0.500").
std::string fixed(double value, int decimals);

// "status S, code C, message M" for any failure the library reports.
std::string failureText(const std::exception_ptr& error);

// One readable line per push the library handled ("consent: request ...").
std::string describe(const virela::Push& push);

}  // namespace demo
