#include "apps/demo/navigation.hpp"

namespace demo {

using virela::headless::ViewController;
using virela::headless::Window;

void showTop(Window& window, const ViewController& navigation) {
    if (navigation.children.empty()) return;
    const auto& top = navigation.children.back();
    for (const auto& child : navigation.children) {
        if (child != top && child->view && child->view->superview() == &window) {
            child->view->removeFromSuperview();
        }
    }
    if (top->view && top->view->superview() != &window) window.addSubview(top->view);
}

void push(Window& window, ViewController& navigation, std::shared_ptr<ViewController> controller) {
    navigation.children.push_back(std::move(controller));
    showTop(window, navigation);
}

bool pop(Window& window, ViewController& navigation) {
    if (navigation.children.size() < 2) return false;
    const auto popped = navigation.children.back();
    navigation.children.pop_back();
    if (popped->view && popped->view->superview() == &window) popped->view->removeFromSuperview();
    showTop(window, navigation);
    return true;
}

}  // namespace demo
