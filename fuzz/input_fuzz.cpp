// Arbitrary bytes as a generated headless screen (its seed) and a sequence of remote inputs
// (taps, scrolls, text, keys, and the customer focusing a field) on it: whatever the agent
// sends, nothing may reach a view that is redacted, a secure field, or under a redaction the
// customer sees. Aborts on the first input that breaks that.

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "core/control/input_engine.hpp"
#include "core/control/windows.hpp"
#include "tests/support/generated_screen.hpp"

namespace {

using namespace virela;
using namespace virela::headless;

class Bytes {
  public:
    Bytes(const std::uint8_t* data, std::size_t size) : data_(data), size_(size) {}
    bool empty() const { return at_ >= size_; }
    std::uint8_t next() { return at_ < size_ ? data_[at_++] : 0; }

    // A fraction of the window: mostly on screen, sometimes missing, far outside or not a number.
    std::optional<double> fraction() {
        const std::uint8_t kind = next();
        const double raw = (next() << 8 | next()) / 65535.0;
        switch (kind % 16) {
            case 0:
                return std::nullopt;
            case 1:
                return std::numeric_limits<double>::quiet_NaN();
            case 2:
                return kind & 0x80 ? std::numeric_limits<double>::infinity() : -1e308;
            case 3:
                return raw * 40 - 20;
            default:
                return raw * 1.2 - 0.1;
        }
    }
    std::string text() {
        std::string out(next() % 24, '\0');
        for (char& c : out) c = static_cast<char>(next());
        return out;
    }

  private:
    const std::uint8_t* data_;
    std::size_t size_;
    std::size_t at_ = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Bytes in(data, size);
    const unsigned seed = static_cast<unsigned>(in.next()) << 8 | in.next();
    testing::ScreenGenerator screen(seed, {});
    WindowRegistry registry(screen.host);
    screen.generate();
    testing::InputWatch watch(screen);
    InputEngine engine{{screen.host, screen.host->actions(), nullptr}, registry};
    const WindowFacts target = *screen.host->readWindow(screen.windows.front()->handle());
    static const char* const keys[] = {"backspace", "enter", "BACKSPACE", ""};

    // A point inside one of the screen's views, or any fraction at all.
    auto point = [&](std::optional<double>& x, std::optional<double>& y) {
        const auto& views = watch.targets();
        const std::uint8_t pick = in.next();
        if (views.empty() || pick < 64) {
            x = in.fraction();
            y = in.fraction();
            return;
        }
        const Rect f = views[(static_cast<std::size_t>(pick) << 8 | in.next()) % views.size()];
        x = (f.x + in.next() / 255.0 * f.width) / target.bounds.width;
        y = (f.y + in.next() / 255.0 * f.height) / target.bounds.height;
    };
    for (int step = 0; step < 64 && !in.empty(); ++step) {
        ControlInputPush input{.sessionId = "s"};
        switch (in.next() % 6) {
            case 0:
                input.action = "tap";
                point(input.x, input.y);
                break;
            case 1:
                input.action = "scroll";
                point(input.x, input.y);
                input.dx = in.fraction();
                input.dy = in.fraction();
                break;
            case 2:
                input.action = "type";
                input.text = in.text();
                break;
            case 3:
                input.action = "key";
                input.key = keys[in.next() % 4];
                break;
            case 4:
                input.action = in.text();
                break;
            default:
                watch.customerFocuses(in.next());
                continue;
        }
        watch.before();
        engine.route(input, target);
        const std::string reached = watch.after();
        if (!reached.empty()) {
            std::fprintf(stderr, "screen %u, input %d (%s): %s\n", seed, step, input.action.c_str(),
                         reached.c_str());
            std::abort();
        }
    }
    return 0;
}
