#pragma once

// Errors between Foundation and the core, in both directions.

#import <Foundation/Foundation.h>

#include <exception>
#include <utility>

#include "core/base/errors.hpp"

namespace virela::ios {

// A failed URL-session task as the core sees it. It keeps the NSError it came from, so that
// the host gets that very error back when the failure reaches it.
class URLTaskError final : public NetworkError {
  public:
    URLTaskError(NetworkError error, NSError* _Nonnull original)
        : NetworkError(std::move(error)), original_(original) {}
    NSError* _Nonnull original() const noexcept { return original_; }

  private:
    NSError* _Nonnull original_;
};

// The core's value for an NSError from a URL-session task.
std::exception_ptr networkFailure(NSError* _Nonnull error);

// What the host receives for an error value of the core; nil for none.
NSError* _Nullable toNSError(const std::exception_ptr& error);

}  // namespace virela::ios
