#pragma once

// The demo app's one screen: a payment form with the kinds of sensitive content a real app has
// (a password, a card number the host marks, a view marked by its accessibility identifier),
// under a navigation title, with a keyboard window and a toast window above it.

#include <filesystem>
#include <memory>

#include "platform/headless/host/builder.hpp"
#include "platform/headless/runtime.hpp"

namespace demo {

struct SampleScreen {
    std::shared_ptr<virela::headless::Window> window;
    std::shared_ptr<virela::headless::Window> toast;
};

SampleScreen showSampleScreen(virela::headless::HeadlessHost& host);

// Shows the screen and writes a JPEG live frame of it to `outDir`, as live sharing will send it,
// with every sensitive view painted over.
SampleScreen showAndCaptureSampleScreen(virela::headless::Runtime& runtime,
                                        const std::filesystem::path& outDir);

}  // namespace demo
