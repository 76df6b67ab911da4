#include "apps/demo/sample_screen.hpp"

#include <fstream>

#include "apps/demo/transcript.hpp"
#include "core/api/diagnostics.hpp"

namespace demo {

using namespace virela::headless;
using virela::Color;
using virela::Rect;

SampleScreen showSampleScreen(HeadlessHost& host) {
    SampleScreen screen;
    auto window = makeAppWindow(host, {390, 844}, rgb(0xF3F0E6));
    screen.window = window;

    auto bar = add(*window, view({0, 0, 390, 96}, rgb(0x0C6B57)));
    add(*bar, label({16, 52, 358, 32}, "Checkout", rgb(0xFFFFFF)));

    auto form = add(*window, scrollView({0, 96, 390, 640}, {390, 900}));
    auto card = add(*form, view({16, 16, 358, 300}, rgb(0xFFFFFF)));
    card->borderColor = rgb(0xE5E1D4);
    card->borderWidth = 1;
    add(*card, label({16, 12, 326, 20}, "Email", rgb(0x5E6B60)));
    add(*card, textField({16, 36, 326, 40}, "ana@example.com"));
    add(*card, label({16, 84, 326, 20}, "Password", rgb(0x5E6B60)));
    add(*card, textField({16, 108, 326, 40}, "hunter22", /*secure=*/true));
    add(*card, label({16, 156, 326, 20}, "Card number", rgb(0x5E6B60)));
    auto number = add(*card, textField({16, 180, 326, 40}, "4111 1111 1111 1111"));
    number->virelaRedact(std::nullopt, std::string("CARD"));
    add(*card, label({16, 228, 200, 20}, "Security code", rgb(0x5E6B60)));
    auto cvc = add(*card, textField({16, 252, 120, 36}, "123"));
    cvc->accessibilityIdentifier = "checkout.virela-redact.cvc";

    auto options = add(*form, view({16, 332, 358, 120}, rgb(0xFFFFFF)));
    add(*options, label({16, 16, 240, 24}, "Save card for later"));
    add(*options, switchControl({290, 12, 52, 32}, true));
    add(*options, label({16, 64, 120, 24}, "Tip"));
    add(*options, segmented({130, 60, 212, 32}, 4, 1));

    add(*window, button({16, 760, 358, 48}, "Pay 42.00 EUR"));

    // A toast in a window of its own, above the app: drawn on top, transparent around it.
    auto toast = addWindow(*window, 1);
    add(*toast, label({60, 700, 270, 40}, "  Saved to your wallet", rgb(0xFFFFFF)))->background =
        rgb(0x1C2620, 0.92);
    screen.toast = toast;

    // The system keyboard's window is never part of a capture.
    auto keyboard = addWindow(*window, 10, "UITextEffectsWindow");
    add(*keyboard, view({0, 560, 390, 284}, rgb(0xD1D5DB)));
    return screen;
}

SampleScreen showAndCaptureSampleScreen(Runtime& runtime, const std::filesystem::path& outDir) {
    return runtime.runOnMain([&] {
        auto screen = showSampleScreen(*runtime.host());
        say("app: showing the checkout screen (a password, a card number and a security code "
            "are sensitive)");
        const auto path = outDir / "live-frame.jpg";
        try {
            const auto shot = virela::VirelaDiagnostics::captureScreen(/*live=*/true);
            std::ofstream file(path, std::ios::binary);
            file.write(reinterpret_cast<const char*>(shot.bytes.data()),
                       static_cast<std::streamsize>(shot.bytes.size()));
            if (file) {
                say("app: live frame with " + std::to_string(shot.redactionBoxes) +
                    " redaction boxes written to " + path.string() + " (" +
                    std::to_string(shot.bytes.size()) + " bytes)");
            } else {
                say("app: could not write " + path.string());
            }
        } catch (...) {
            say("app: capture failed: " + failureText(std::current_exception()));
        }
        return screen;
    });
}

}  // namespace demo
