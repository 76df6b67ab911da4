#include "core/flow/indicator_confirmations.hpp"

#include "core/base/errors.hpp"
#include "core/flow/flow_context.hpp"
#include "core/ports/fatal.hpp"
#include "core/ports/log.hpp"
#include "core/transport/transport.hpp"
#include "core/wire/sdk_paths.hpp"

namespace virela {

void IndicatorConfirmations::confirm(const std::string& sessionId, const std::string& kind,
                                     const std::string& generation) {
    auto transport = context_.transport();
    if (!transport) {
        fatalPrecondition("an indicator confirmation needs the transport that configure made");
    }
    transport->postJson(
        paths::live(sessionId, "/indicator"), {{"kind", kind}, {"generation", generation}}, false,
        [log = log_, kind](const SendResult& result) {
            if (result || !log) return;
            try {
                std::rethrow_exception(result.error);
            } catch (const VirelaError& e) {
                log->write(LogLevel::error,
                           "indicator confirm '" + kind +
                               "' refused: " + std::to_string(e.status()) + " " + e.code() +
                               " — the backend does not hold this lease; input/frames of this "
                               "kind are being dropped");
            } catch (...) {
                log->write(LogLevel::error,
                           "indicator confirm '" + kind + "' failed: " + describe(result.error));
            }
        });
}

}  // namespace virela
