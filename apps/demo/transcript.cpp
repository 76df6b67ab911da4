#include "apps/demo/transcript.hpp"

#include <charconv>
#include <cmath>
#include <cstdio>
#include <mutex>
#include <variant>

#include "core/base/errors.hpp"

namespace demo {

namespace {
// Lines come from the main loop, the backend's thread and the demo's own; keep them whole.
std::mutex printMutex;

std::string text(const std::optional<std::string>& value) {
    return value ? *value : "-";
}
// Fractions from the wire, to a tenth of a percent.
std::string optionalNumber(const std::optional<double>& value) {
    return value ? number(std::round(*value * 1000) / 1000) : "-";
}
}  // namespace

void say(std::string_view line) {
    std::lock_guard lock(printMutex);
    std::fwrite(line.data(), 1, line.size(), stdout);
    std::fputc('\n', stdout);
    std::fflush(stdout);
}

std::string number(double value) {
    char buffer[32];
    const auto end = std::to_chars(buffer, buffer + sizeof buffer, value).ptr;
    return std::string(buffer, end);
}

std::string oneDecimal(double value) {
    const double rounded = std::round(value * 10) / 10;
    return number(rounded == 0 ? 0.0 : rounded);  // never "-0"
}

std::string fixed(double value, int decimals) {
    char buffer[64];
    const auto end =
        std::to_chars(buffer, buffer + sizeof buffer, value, std::chars_format::fixed, decimals)
            .ptr;
    return std::string(buffer, end);
}

std::string failureText(const std::exception_ptr& error) {
    try {
        std::rethrow_exception(error);
    } catch (const virela::VirelaError& e) {
        return "status " + std::to_string(e.status()) + ", code " + e.code() + ", message " +
               e.message();
    } catch (const virela::NetworkError& e) {
        return std::string("status 0, code ") + virela::toString(e.kind()) + ", message " +
               e.what();
    } catch (const std::exception& e) {
        return std::string("status 0, code undecodable, message ") + e.what();
    }
}

std::string describe(const virela::Push& push) {
    using namespace virela;
    struct Describe {
        std::string operator()(const ConsentPush& p) const {
            return "request " + p.requestId + " (" + rawValue(p.mode) + ") from " +
                   text(p.agentName) + ", expires " + p.expiresAt;
        }
        std::string operator()(const CapturePush& p) const { return "request " + p.requestId; }
        std::string operator()(const LivePush& p) const {
            return "session " + p.sessionId + " " + rawValue(p.state) + ", generation " +
                   text(p.generation);
        }
        std::string operator()(const LiveNotePush& p) const {
            return "session " + p.sessionId + " " + rawValue(p.kind) + ", generation " +
                   text(p.generation);
        }
        std::string operator()(const GuidePush& p) const {
            return p.kind + " at (" + optionalNumber(p.x) + ", " + optionalNumber(p.y) + ")" +
                   (p.text ? " \"" + *p.text + "\"" : "");
        }
        std::string operator()(const ControlPush& p) const {
            return "session " + p.sessionId + " " + rawValue(p.state) + ", generation " +
                   text(p.generation);
        }
        std::string operator()(const ControlInputPush& p) const {
            if (p.action == "type") {
                // A text may be long; the line shows its start.
                const std::string shown = p.text.value_or("");
                return "type \"" + shown.substr(0, 40) + (shown.size() > 40 ? "…" : "") + "\"";
            }
            if (p.action == "key") return "key " + p.key.value_or("-");
            std::string line =
                p.action + " at (" + optionalNumber(p.x) + ", " + optionalNumber(p.y) + ")";
            if (p.action == "scroll") {
                line += " by (" + optionalNumber(p.dx) + ", " + optionalNumber(p.dy) + ")";
            }
            return line;
        }
        std::string operator()(const SessionPush& p) const { return "state " + p.state; }
        std::string operator()(const ExpiredPush&) const { return "the pending request expired"; }
        std::string operator()(const DeniedPush&) const { return "the pending request was denied"; }
    };
    return std::string(pushType(push)) + ": " + std::visit(Describe{}, push);
}

}  // namespace demo
