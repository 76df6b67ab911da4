#pragma once

// An overlay presenter that draws nothing and records what it was asked to show, with the
// buttons and the scroll watch as callbacks a test can fire.

#include <algorithm>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "core/ports/overlay.hpp"

namespace virela::testing {

class RecordingPresenter final : public OverlayPresenter {
  public:
    bool canShow = true;
    bool canShowBanner = true;
    bool showing = false;
    bool banner = false;
    std::string status;
    int windowsShown = 0;
    std::vector<OverlayToast> toasts;
    int toastFades = 0;
    std::vector<std::uint64_t> marks;
    std::vector<std::uint64_t> fadedMarks;
    std::vector<Point> laserMoves;
    bool laserVisible = false;
    std::function<void()> stop;
    std::function<void()> takeBack;
    std::function<void()> scroll;
    int watches = 0;

    bool show(HostHandle, const std::string& text, std::function<void()> onStop) override {
        hide();
        if (!canShow) return false;
        ++windowsShown;
        showing = true;
        status = text;
        stop = std::move(onStop);
        return true;
    }
    void hide() override {
        showing = banner = laserVisible = false;
        marks.clear();
        stop = nullptr;
    }
    bool isShowing() override { return showing; }
    void setStatus(const std::string& text) override { status = text; }
    Size rootSize() override { return {390, 844}; }
    bool showToast(const OverlayToast& toast) override {
        toasts.push_back(toast);
        return showing;
    }
    void fadeOutToast() override { ++toastFades; }
    bool showControlBanner(std::function<void()> onTakeBack) override {
        takeBack = std::move(onTakeBack);
        banner = showing && canShowBanner;
        return banner;
    }
    void hideControlBanner() override { banner = false; }
    bool isShowingControlBanner() override { return banner; }
    void moveLaser(Point to) override {
        laserMoves.push_back(to);
        laserVisible = true;
    }
    void hideLaser() override { laserVisible = false; }
    bool addMark(std::uint64_t id, const MarkGeometry&, const std::optional<Color>&) override {
        marks.push_back(id);
        return true;
    }
    void fadeOutMark(std::uint64_t id) override {
        fadedMarks.push_back(id);
        std::erase(marks, id);
    }
    void removeMarks() override { marks.clear(); }
    std::unique_ptr<Subscription> watchScrolls(HostHandle,
                                               std::function<void()> onScroll) override {
        ++watches;
        scroll = std::move(onScroll);
        return std::make_unique<CallbackSubscription>([this] { scroll = nullptr; });
    }
};

}  // namespace virela::testing
