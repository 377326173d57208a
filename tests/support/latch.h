#pragma once

#include <condition_variable>
#include <cstddef>
#include <mutex>

namespace tez::test {

/// What std::latch is. That one waits through the standard library's atomic waiting, which loses
/// wake-ups with this toolchain under Wine (a program with two latches hangs).
class Latch {
  public:
    explicit Latch(std::ptrdiff_t expected) : expected_(expected) {}

    void countDown() {
        const std::scoped_lock guard(mutex_);
        --expected_;
        reached_.notify_all();
    }
    void wait() {
        std::unique_lock lock(mutex_);
        reached_.wait(lock, [this] { return expected_ <= 0; });
    }
    void arriveAndWait() {
        countDown();
        wait();
    }

  private:
    std::mutex mutex_;
    std::condition_variable reached_;
    std::ptrdiff_t expected_;
};

}  // namespace tez::test
