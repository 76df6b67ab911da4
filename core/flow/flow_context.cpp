#include "core/flow/flow_context.hpp"

#include "core/base/url.hpp"
#include "core/transport/transport.hpp"
#include "core/wire/sdk_paths.hpp"

namespace virela {

void FlowContext::reportPromptShown(const std::optional<std::string>& promptId) {
    auto sender = transport();
    if (!promptId || promptId->empty() || !sender) return;
    const std::string path = paths::promptShown(*promptId);
    if (!Url::parse(path)) return;
    sender->postJson(path, {}, false, [](const SendResult&) {});
}

}  // namespace virela
