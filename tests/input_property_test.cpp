// Remote input must never reach what the customer sees covered: over many generated screens,
// each given a random sequence of taps, scrolls, text and keys (with the customer focusing
// fields in between), no event, value change, focus, text change, selection, activation or menu
// action may reach a view that is redacted or a secure field, or one lying over a redaction of
// its window; and no secure text input may gain the focus or text.
//
// VIRELA_INPUT_SCREENS sets how many screens are tried (default 3000); VIRELA_INPUT_SEED the
// first seed, so that a failure can be replayed alone.

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "core/control/input_engine.hpp"
#include "core/control/windows.hpp"
#include "tests/support/fake_platform.hpp"
#include "tests/support/generated_screen.hpp"

namespace virela::headless {
namespace {

unsigned envOr(const char* name, unsigned fallback) {
    const char* value = std::getenv(name);
    return value ? static_cast<unsigned>(std::strtoul(value, nullptr, 10)) : fallback;
}

// The next input: mostly aimed at a view (often a protected one), sometimes anywhere, even off
// the window.
ControlInputPush nextInput(testing::ScreenGenerator& screen, const testing::InputWatch& watch,
                           const WindowFacts& target) {
    ControlInputPush input{.sessionId = "s"};
    auto aimed = [&](std::optional<double>& x, std::optional<double>& y) {
        const auto& views = watch.targets();
        if (views.empty() || screen.chance(0.2)) {
            x = screen.uniform(-0.1, 1.1);
            y = screen.uniform(-0.1, 1.1);
            return;
        }
        const Rect f = views[static_cast<std::size_t>(screen.pick(static_cast<int>(views.size())))];
        x = (f.x + screen.uniform(0, 1) * f.width) / target.bounds.width;
        y = (f.y + screen.uniform(0, 1) * f.height) / target.bounds.height;
    };
    switch (screen.pick(10)) {
        case 0:
        case 1:
            input.action = "scroll";
            aimed(input.x, input.y);
            input.dx = screen.uniform(-0.5, 0.5);
            input.dy = screen.uniform(-0.5, 0.5);
            break;
        case 2:
        case 3:
            input.action = "type";
            input.text = "1234";
            break;
        case 4:
            input.action = "key";
            input.key = screen.chance(0.7) ? "backspace" : "enter";
            break;
        default:
            input.action = "tap";
            aimed(input.x, input.y);
            break;
    }
    return input;
}

TEST(InputProperty, NoRemoteInputReachesAProtectedViewOnAnyGeneratedScreen) {
    const unsigned screens = envOr("VIRELA_INPUT_SCREENS", 3000);
    const unsigned firstSeed = envOr("VIRELA_INPUT_SEED", 1);
    auto log = std::make_shared<virela::testing::RecordingLog>();
    std::size_t refused = 0;
    std::size_t handled = 0;
    for (unsigned seed = firstSeed; seed < firstSeed + screens; ++seed) {
        SCOPED_TRACE("VIRELA_INPUT_SEED=" + std::to_string(seed) + " VIRELA_INPUT_SCREENS=1");
        testing::ScreenGenerator screen(seed, {});
        WindowRegistry registry(screen.host);  // before the windows show, as in an app
        screen.generate();
        testing::InputWatch watch(screen);
        InputEngine engine{{screen.host, screen.host->actions(), log}, registry};
        const WindowFacts target = *screen.host->readWindow(screen.windows.front()->handle());
        for (int step = 0; step < 16; ++step) {
            if (screen.chance(0.15)) {
                watch.customerFocuses(static_cast<std::size_t>(screen.pick(64)));
            }
            const ControlInputPush input = nextInput(screen, watch, target);
            log->lines.clear();
            watch.before();
            engine.route(input, target);
            const std::string reached = watch.after();
            ASSERT_EQ(reached, "") << "step " << step << ": " << input.action << " at "
                                   << input.x.value_or(-1) << ", " << input.y.value_or(-1);
            for (const auto& [level, line] : log->lines) {
                refused += line.rfind("tap ignored: locked target", 0) == 0;
                handled += line.rfind("tap handled by", 0) == 0;
            }
        }
    }
    // The screens really put protected views under the agent's taps, and taps really acted.
    std::printf("%zu taps refused as locked, %zu handled\n", refused, handled);
    EXPECT_GT(refused, screens);
    EXPECT_GT(handled, screens / 2);
}

}  // namespace
}  // namespace virela::headless
