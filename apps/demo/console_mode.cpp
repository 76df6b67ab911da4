#include "apps/demo/console_mode.hpp"

#include <chrono>
#include <cstdio>
#include <fstream>
#include <optional>
#include <system_error>
#include <vector>

namespace demo {

namespace {

using virela::headless::OverlayState;

// What makes the customer's view differ: the laser counts by presence, not by every move, so a
// pointing agent does not make the file churn.
std::string signature(const std::optional<OverlayState>& state) {
    if (!state) return "-";
    std::string text = state->status + '|' + (state->toast ? state->toast->text : "") + '|' +
                       (state->controlBanner ? "c" : "") + (state->laser ? "l" : "");
    for (const auto& mark : state->marks) text += '|' + std::to_string(mark.id);
    return text;
}

}  // namespace

CustomerViewWriter::CustomerViewWriter(virela::headless::Runtime& runtime,
                                       std::filesystem::path outDir)
    : runtime_(runtime), outDir_(std::move(outDir)), thread_([this] { run(); }) {}

CustomerViewWriter::~CustomerViewWriter() {
    stopping_ = true;
    thread_.join();
}

void CustomerViewWriter::run() {
    using namespace std::chrono_literals;
    std::optional<std::string> written;
    while (!stopping_) {
        const std::optional<OverlayState> state =
            runtime_.runOnMain([this] { return runtime_.overlay()->state(); });
        const std::string now = signature(state);
        if (now != written) {
            const std::vector<std::uint8_t> png = runtime_.renderCustomerView();
            const std::filesystem::path partial = outDir_ / "customer-view.png.partial";
            std::ofstream file(partial, std::ios::binary | std::ios::trunc);
            file.write(reinterpret_cast<const char*>(png.data()),
                       static_cast<std::streamsize>(png.size()));
            file.close();
            std::error_code error;
            if (file && !png.empty()) std::filesystem::rename(partial, path(), error);
            written = now;
        }
        std::this_thread::sleep_for(150ms);
    }
}

}  // namespace demo
