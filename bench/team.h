#pragma once

#include <condition_variable>
#include <cstddef>
#include <functional>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

namespace tez::bench {

/// Threads that do the same together, again and again: run() starts all at once and returns when
/// the last has ended.
class Team {
  public:
    /// @param work  called on each thread with the thread's number, by each run().
    Team(std::size_t size, std::function<void(std::size_t)> work) : work_(std::move(work)) {
        for (std::size_t i = 0; i < size; ++i) {
            threads_.emplace_back([this, i] { serve(i); });
        }
    }
    Team(const Team&) = delete;
    Team& operator=(const Team&) = delete;
    ~Team() {
        begin(true);
        for (std::thread& thread : threads_) {
            thread.join();
        }
    }

    void run() {
        begin(false);
        std::unique_lock lock(mutex_);
        ended_.wait(lock, [this] { return working_ == 0; });
    }

  private:
    void begin(bool isLast) {
        const std::scoped_lock lock(mutex_);
        working_ = threads_.size();
        isOver_ = isLast;
        ++round_;
        begun_.notify_all();
    }

    void serve(std::size_t number) {
        for (std::size_t round = 1;; ++round) {
            {
                std::unique_lock lock(mutex_);
                begun_.wait(lock, [&] { return round_ == round; });
                if (isOver_) {
                    return;
                }
            }
            work_(number);
            const std::scoped_lock lock(mutex_);
            if (--working_ == 0) {
                ended_.notify_one();
            }
        }
    }

    const std::function<void(std::size_t)> work_;
    std::mutex mutex_;  // guards what follows, but for the threads
    std::condition_variable begun_;
    std::condition_variable ended_;
    std::size_t round_ = 0;
    std::size_t working_ = 0;
    bool isOver_ = false;
    std::vector<std::thread> threads_;
};

}  // namespace tez::bench
