#pragma once

// Random headless screens for the property tests and the fuzzers: nested views, scroll views,
// lists, controls, text inputs, menus (some open), accessibility elements, and every way an app
// marks a view as sensitive (a mark on the view, a marker behind it as SwiftUI draws one, a
// marked label inside a button, an identifier, secure entry), with covers over some redactions,
// rounded and transformed views and several windows.
//
// InputWatch records everything that remote input could do to such a screen and says whether
// any of it reached a protected view.

#include <cstdint>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "platform/headless/host/builder.hpp"
#include "platform/headless/host/headless_host.hpp"

namespace virela::headless::testing {

class ScreenGenerator {
  public:
    struct Options {
        // Controls, lists, menus, text inputs and elements as well as the plain views, labels,
        // fields and scroll views that drawing needs.
        bool interactive = true;
    };
    ScreenGenerator(unsigned seed, Options options);

    std::shared_ptr<HeadlessHost> host = std::make_shared<HeadlessHost>();
    std::vector<std::shared_ptr<Window>> windows;  // the app window first; open menus included

    void generate();

    // Draws from the screen's own sequence, so that inputs chosen with it replay with the seed.
    int pick(int n) { return std::uniform_int_distribution<int>(0, n - 1)(rng_); }
    bool chance(double p) { return std::bernoulli_distribution(p)(rng_); }
    double uniform(double low, double high) {
        return std::uniform_real_distribution<double>(low, high)(rng_);
    }

  private:
    double coord(double limit);
    Color colour(double alpha);
    void populate(View& parent, int depth);
    std::shared_ptr<View> makeView(const Rect& frame, int depth);
    std::shared_ptr<View> makeControl(const Rect& frame);
    std::shared_ptr<View> makeList(const Rect& frame);
    std::shared_ptr<View> makeMenuButton(const Rect& frame);
    std::shared_ptr<View> withElements(std::shared_ptr<View> host);
    void mark(View& v);
    void shape(View& v);
    std::shared_ptr<View> coverOver(const Rect& r);
    void openMenu(const Window& over, const View& button);

    Options options_;
    std::mt19937 rng_;
    int budget_ = 0;  // views still to make
    std::vector<std::shared_ptr<View>> menuButtons_;
};

// Every effect remote input can have, recorded through the screen's own handlers, and the
// check that none of it reached a protected view: one that is redacted or a secure field
// itself or through a superview, or whose frame overlaps a redaction rectangle of its window
// as the capture finds them. A secure text input may never gain the focus or text at all.
class InputWatch {
  public:
    explicit InputWatch(ScreenGenerator& screen);
    ~InputWatch();
    InputWatch(const InputWatch&) = delete;
    InputWatch& operator=(const InputWatch&) = delete;

    // Takes the state before an input: what is protected, and every view's values.
    void before();
    // Empty when the input reached nothing protected; otherwise what it reached.
    std::string after();
    // The customer focuses a key-input view by hand: whatever that changes is theirs.
    void customerFocuses(std::size_t index);

    // Where an agent would aim, in the app window's coordinates: every view a finger can reach,
    // and every marked one.
    const std::vector<Rect>& targets() const noexcept { return targets_; }

  private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
    std::vector<Rect> targets_;
};

}  // namespace virela::headless::testing
