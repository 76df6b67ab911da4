#pragma once

// How long the realtime channel waits before each reconnection: 1, 2, 4, 8 and 16 seconds, then
// 30 seconds for as long as it takes. An open socket or a return to the foreground starts over.

#include <algorithm>

namespace virela {

class Backoff {
  public:
    // The delay before the next attempt; counts that attempt.
    double next() noexcept {
        const double delay =
            attempts_ >= kDoublings ? kLongest : std::min(kLongest, double(1 << attempts_));
        ++attempts_;
        return delay;
    }
    void reset() noexcept { attempts_ = 0; }
    // Attempts counted since the last reset.
    int attempts() const noexcept { return attempts_; }

  private:
    static constexpr int kDoublings = 5;
    static constexpr double kLongest = 30;
    int attempts_ = 0;
};

}  // namespace virela
