// An app built against the installed package: it starts the local backend, brings the headless
// platform up, configures the library against the backend and prints the support code. It fails
// when a header is missing, a library does not resolve or the registration does not go through.

#include <cstdio>
#include <exception>
#include <filesystem>
#include <string>

#include "core/api/virela.hpp"
#include "core/base/version.hpp"
#include "platform/headless/runtime.hpp"
#include "tools/devserver/server.hpp"

int main(int argc, char** argv) {
    // The install identifier goes to a folder of the caller's, not the user's state folder.
    const std::filesystem::path state =
        argc > 1 ? argv[1] : std::filesystem::temp_directory_path() / "virela-consumer";

    virela::devserver::Server backend;
    backend.start();

    virela::headless::RuntimeOptions options;
    options.stateDirectory = state;
    virela::headless::Runtime runtime(options);

    try {
        virela::Virela::configure(
            "vk_demo_local", virela::VirelaEnvironment::custom(*virela::Url::parse(backend.url())))
            .get();
    } catch (const std::exception& e) {
        std::fprintf(stderr, "configure failed: %s\n", e.what());
        return 1;
    }
    const auto code = virela::Virela::supportCode();
    const bool known = code && backend.device(*code).has_value();
    std::printf("VirelaAgent %s: configured against %s, support code %s%s\n", virela::kSdkVersion,
                backend.url().c_str(), code ? code->c_str() : "(none)",
                known ? "" : " (unknown to the backend)");
    virela::Virela::stop();
    backend.stop();
    return known ? 0 : 1;
}
