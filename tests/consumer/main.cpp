// Links the installed package and brings the headless platform up: the public headers are all
// there and the libraries resolve.

#include <cstdio>

#include "core/api/virela.hpp"
#include "core/base/version.hpp"
#include "platform/headless/runtime.hpp"

int main() {
    virela::headless::Runtime runtime;
    const auto code = virela::Virela::supportCode();
    std::printf("VirelaAgent %s: headless runtime up, support code %s\n", virela::kSdkVersion,
                code ? code->c_str() : "(none before configure)");
    return code ? 1 : 0;
}
