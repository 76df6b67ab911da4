// The control lease against a small reference model of who may apply remote input. Random
// sequences of control pushes (every state, with and without generations, for the current and
// other sessions), banner faults, take-backs, live sessions starting and ending, trips to the
// background with a request held, prompts of ours coming and going, and inputs of every action
// run against the live session flow that owns the lease; after each step the flow must agree
// with the model on which inputs landed, on every control confirmation and on the host's
// onRemoteControl calls.
//
// Invariants: an input lands only while control is armed (banner attached, generation held) in
// the current live session with no prompt of ours on screen; every control confirmation
// carries the generation held at that moment; onRemoteControl alternates, starting with true.
//
// VIRELA_LEASE_SEQUENCES sets how many sequences run, VIRELA_LEASE_SEED the first seed.

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <array>
#include <cstdlib>
#include <iostream>
#include <random>
#include <sstream>

#include "core/live/live_session.hpp"
#include "core/ports/manual_clock.hpp"
#include "platform/headless/host/builder.hpp"
#include "platform/headless/presenters.hpp"
#include "tests/support/fake_platform.hpp"
#include "tests/support/recording_overlay.hpp"
#include "tests/support/test_flow_context.hpp"

namespace virela {
namespace {

using nlohmann::json;
using Showing = ConsentPrompt::Showing;

constexpr int kDefaultSequences = 2000;
constexpr int kSteps = 40;

unsigned long fromEnvironment(const char* name, unsigned long fallback) {
    const char* value = std::getenv(name);
    return value ? std::strtoul(value, nullptr, 10) : fallback;
}

// What the client should do, written as plainly as possible.
struct Model {
    std::optional<std::string> live;
    bool active = false;
    std::optional<std::string> generation;
    bool banner = false;
    bool bannerFails = false;
    std::optional<ControlPush> pending;
    std::optional<Showing> prompt;
    bool background = false;

    std::vector<bool> remote;                // onRemoteControl calls
    std::vector<std::string> confirmations;  // "session generation" of each control confirmation
    std::vector<std::string> applied;        // "session action" of each input that landed

    void endControl() {
        generation.reset();
        pending.reset();
        if (prompt == Showing::control) prompt.reset();
        banner = false;
        if (active) {
            active = false;
            remote.push_back(false);
        }
    }
    void stopLive() {
        endControl();
        live.reset();
    }
    void startLive(const std::string& id) {
        if (live == id) return;
        stopLive();
        if (!background) live = id;
    }
    void control(const ControlPush& push) {
        if (live != push.sessionId) return;
        switch (push.state) {
            case LiveState::requested:
                if (background) {
                    pending = push;
                } else {
                    pending.reset();
                    prompt = Showing::control;
                }
                return;
            case LiveState::active:
                generation = push.generation;
                if (active || !generation) return;
                if (bannerFails) {
                    banner = false;
                    return;
                }
                active = banner = true;
                confirmations.push_back(*live + " " + *generation);
                remote.push_back(true);
                return;
            case LiveState::ended:
                endControl();
                return;
        }
    }
    void tick() {
        if (!live || !active || !generation) return;
        if (banner) {
            confirmations.push_back(*live + " " + *generation);
        } else {
            endControl();
        }
    }
    void input(const std::string& sessionId, const std::string& action) {
        if (active && generation && banner && live == sessionId && !background && !prompt) {
            applied.push_back(sessionId + " " + action);
        }
    }
};

class Sequence {
  public:
    explicit Sequence(std::uint32_t seed) : random_(seed) {
        fake_.platform->host = host_;
        fake_.platform->actions = host_->actions();
        fake_.platform->prompts = prompts_;
        fake_.platform->overlay = overlay_;
        context_ = std::make_unique<testing::TestFlowContext>(fake_);
        context_->hostCallbacks.onRemoteControl = [this](bool on) {
            if (remote_.empty() ? !on : remote_.back() == on) fail("onRemoteControl repeated");
            remote_.push_back(on);
        };
        LiveSessionFlow::Parts parts{
            .main = fake_.platform->main,
            .log = fake_.platform->log,
            .host = host_,
            .actions = host_->actions(),
            .lifecycle = fake_.platform->lifecycle,
            .clock = clock_,
            .overlay = LiveOverlay::create({overlay_, host_, host_->actions().reader, clock_}),
        };
        parts.applyInput = [this](const ControlInputPush& input, const WindowFacts&) {
            // Checked against the flow's own state at the moment the input lands.
            const ControlLease& lease = live_->lease();
            if (!lease.active() || !lease.generation() || !overlay_->banner ||
                live_->sessionId() != input.sessionId || context_->prompt().showing()) {
                fail("an input landed outside an armed lease");
            }
            applied_.push_back(input.sessionId + " " + input.action);
            return ControlOutcome::none;
        };
        live_ = LiveSessionFlow::create(std::move(parts), *context_);
    }

    // How much of the sequence happened under an armed lease.
    std::size_t landed() const { return applied_.size(); }
    std::size_t confirmed() const { return model_.confirmations.size(); }

    // Runs the sequence; the first disagreement with the model is returned with the steps taken.
    std::optional<std::string> run() {
        if (chance(0.8)) startLive("s1");
        for (int step = 0; step < kSteps && !failure_; ++step) {
            this->step();
            check();
        }
        if (!failure_) return std::nullopt;
        return *failure_ + "\nsteps:\n" + history_.str();
    }

  private:
    std::string pick(std::initializer_list<const char*> choices) {
        std::uniform_int_distribution<std::size_t> d(0, choices.size() - 1);
        return *(choices.begin() + d(random_));
    }
    bool chance(double p) { return std::bernoulli_distribution(p)(random_); }
    // Mostly the live session's id, sometimes a stale or unknown one.
    std::string sessionId() {
        if (model_.live && chance(0.7)) return *model_.live;
        return pick({"s1", "s2", "s3"});
    }
    void push(const std::string& type, const json& payload) {
        history_ << "  " << type << " " << payload.dump() << "\n";
        const std::optional<Push> decoded =
            decodePush(json{{"type", type}, {"payload", payload}}.dump());
        if (!decoded) return fail("a push did not decode: " + type);
        std::visit(
            [this](const auto& p) {
                using T = std::decay_t<decltype(p)>;
                if constexpr (std::is_same_v<T, LivePush>) live_->handleLive(p);
                if constexpr (std::is_same_v<T, ControlPush>) live_->handleControl(p);
                if constexpr (std::is_same_v<T, ControlInputPush>) live_->handleInput(p);
            },
            *decoded);
        fake_.executor->drain();
    }
    void startLive(const std::string& id) {
        model_.startLive(id);
        push("live", {{"sessionId", id}, {"state", "active"}});
    }
    void note(const std::string& what) { history_ << "  " << what << "\n"; }

    void step() {
        // Weighted so that control is often armed while inputs arrive, and often not.
        std::discrete_distribution<int> event({4, 1, 1, 1, 2, 1, 1, 1, 2, 0.5, 2, 6});
        switch (event(random_)) {
            case 0: {
                ControlPush p{sessionId(), LiveState::active};
                p.state =
                    std::array{LiveState::requested, LiveState::active, LiveState::active,
                               LiveState::ended}[std::uniform_int_distribution<int>(0, 3)(random_)];
                if (chance(0.7)) p.generation = "g" + std::to_string(++generations_);
                if (chance(0.5)) p.requestId = "r" + std::to_string(generations_);
                json payload = {{"sessionId", p.sessionId}, {"state", rawValue(p.state)}};
                if (p.generation) payload["generation"] = *p.generation;
                if (p.requestId) payload["requestId"] = *p.requestId;
                model_.control(p);
                push("control", payload);
                return;
            }
            case 1:
                if (overlay_->canShowBanner && chance(0.6)) return;
                overlay_->canShowBanner = !overlay_->canShowBanner;
                model_.bannerFails = !overlay_->canShowBanner;
                note(model_.bannerFails ? "banner attach fails from now" : "banner attaches again");
                return;
            case 2:
                if (!overlay_->banner) return;
                note("banner removed");
                overlay_->banner = false;
                model_.banner = false;
                return;
            case 3:
                if (!overlay_->banner) return;
                note("take back");
                model_.endControl();
                overlay_->takeBack();
                fake_.executor->drain();
                return;
            case 4:
                startLive(model_.live && chance(0.4) ? *model_.live : pick({"s1", "s2", "s3"}));
                return;
            case 5: {
                // Whatever its session, "ended" closes our prompt and stops sharing.
                const std::string id = sessionId();
                model_.prompt.reset();
                model_.stopLive();
                push("live", {{"sessionId", id}, {"state", "ended"}});
                return;
            }
            case 6:
                if (model_.background) {
                    note("foreground");
                    model_.background = false;
                    window_->makeKeyAndVisible();
                    fake_.lifecycle->send(AppEvent::willEnterForeground);
                    live_->onEnterForeground();
                    fake_.executor->drain();
                    if (auto held = std::exchange(model_.pending, std::nullopt)) {
                        model_.control(*held);
                    }
                } else {
                    if (chance(0.6)) return;
                    note("background");
                    model_.background = true;
                    window_->key = false;
                    window_->hide();
                    fake_.lifecycle->send(AppEvent::didEnterBackground);
                    fake_.executor->drain();
                }
                return;
            case 7:
                if (model_.background) return;
                if (chance(0.5)) {
                    note("support code shown");
                    model_.prompt = Showing::supportCode;
                    context_->prompt().showSupportCode(window_->handle(), "482-913");
                } else {
                    model_.prompt = Showing::consent;
                    push("live", {{"sessionId", pick({"s1", "s2"})}, {"state", "requested"}});
                }
                return;
            case 8: {
                if (!model_.prompt || model_.background) return;
                const std::string button = model_.prompt == Showing::supportCode ? "Done"
                                           : model_.prompt == Showing::control
                                               ? pick({"Allow control", "Not now"})
                                               : "Not now";
                note("pressed " + button);
                model_.prompt.reset();
                if (!prompts_->press(button)) fail("no " + button + " button on screen");
                fake_.executor->drain();
                return;
            }
            case 9:
                if (!model_.live) return;
                note("customer stop");
                model_.stopLive();
                overlay_->stop();
                fake_.executor->drain();
                return;
            case 10:
                note("10 s");
                model_.tick();
                clock_->advance(10);
                fake_.executor->drain();
                return;
            default: {
                const std::string id = sessionId();
                const std::string action = pick({"tap", "scroll", "type", "key", "Tap", "swipe"});
                model_.input(id, action);
                push("control-input", {{"sessionId", id}, {"action", action}, {"x", 0.5}});
                return;
            }
        }
    }

    void check() {
        const ControlLease& lease = live_->lease();
        if (lease.active() != model_.active) fail("controlActive differs");
        if (lease.generation() != model_.generation) fail("the generation differs");
        if (lease.pending().has_value() != model_.pending.has_value()) fail("pending differs");
        if (overlay_->banner != model_.banner) fail("the banner differs");
        if (context_->prompt().showing() != model_.prompt) fail("the prompt differs");
        if (live_->sessionId() != model_.live) fail("the live session differs");
        if (applied_ != model_.applied) fail("the inputs that landed differ");
        if (remote_ != model_.remote) fail("the onRemoteControl calls differ");
        std::vector<std::string> confirmations;
        for (const auto& request : fake_.http->requests) {
            const std::string path = request.url.path();
            if (!path.ends_with("/indicator")) continue;
            const json body = json::parse(request.body);
            if (body["kind"] != "control") continue;
            // "/v1/sdk/live/" + id + "/indicator"
            const std::string id = path.substr(13, path.size() - 13 - 10);
            confirmations.push_back(id + " " + body["generation"].get<std::string>());
        }
        if (confirmations != model_.confirmations) fail("the control confirmations differ");
    }

    void fail(const std::string& what) {
        if (!failure_) failure_ = what;
    }

    std::mt19937 random_;
    testing::FakePlatform fake_;
    std::shared_ptr<headless::HeadlessHost> host_ = std::make_shared<headless::HeadlessHost>();
    std::shared_ptr<headless::Window> window_ = headless::makeAppWindow(*host_, {390, 844});
    std::shared_ptr<headless::HeadlessPromptPresenter> prompts_ =
        std::make_shared<headless::HeadlessPromptPresenter>([] { return Appearance::light; });
    std::shared_ptr<testing::RecordingPresenter> overlay_ =
        std::make_shared<testing::RecordingPresenter>();
    std::shared_ptr<ManualClock> clock_ = std::make_shared<ManualClock>();
    std::unique_ptr<testing::TestFlowContext> context_;
    std::shared_ptr<LiveSessionFlow> live_;
    Model model_;
    int generations_ = 0;
    std::vector<std::string> applied_;
    std::vector<bool> remote_;
    std::optional<std::string> failure_;
    std::ostringstream history_;
};

TEST(LeaseModel, RandomSequencesAgreeWithTheModel) {
    const auto count = fromEnvironment("VIRELA_LEASE_SEQUENCES", kDefaultSequences);
    const auto first = fromEnvironment("VIRELA_LEASE_SEED", 1);
    std::size_t landed = 0;
    std::size_t confirmed = 0;
    for (unsigned long seed = first; seed < first + count; ++seed) {
        Sequence sequence(static_cast<std::uint32_t>(seed));
        if (auto failure = sequence.run()) {
            FAIL() << "seed " << seed << " (VIRELA_LEASE_SEED=" << seed
                   << " VIRELA_LEASE_SEQUENCES=1 replays it): " << *failure;
        }
        landed += sequence.landed();
        confirmed += sequence.confirmed();
    }
    // The sequences must reach an armed lease often, or they prove little.
    if (count >= 1000) {
        EXPECT_GT(landed, count / 10);
        EXPECT_GT(confirmed, count / 10);
    }
    std::cout << count << " sequences, " << landed << " inputs landed, " << confirmed
              << " control confirmations\n";
}

}  // namespace
}  // namespace virela
