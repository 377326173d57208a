#pragma once

#include <chrono>
#include <cstdint>
#include <initializer_list>
#include <random>
#include <thread>

namespace tez::soak {

/// Choices that a seed decides; each thread has one.
class Random {
  public:
    /// @param seed the run's, and what tells the thread from the run's others.
    explicit Random(std::initializer_list<std::uint32_t> seed) {
        std::seed_seq sequence(seed);
        engine_.seed(sequence);
    }

    unsigned below(unsigned limit) { return std::uniform_int_distribution(0U, limit - 1)(engine_); }
    unsigned between(unsigned least, unsigned most) { return least + below(most - least + 1); }
    void pause(unsigned least, unsigned most) {
        std::this_thread::sleep_for(std::chrono::milliseconds(between(least, most)));
    }

    /// Mostly short. Now and then so long that an event which was not told stays so: the next one
    /// would hide it.
    void pauseBetweenEvents() {
        const bool isLong = below(100) == 0;
        pause(isLong ? 11000 : 10, isLong ? 15000 : 120);
    }

  private:
    std::minstd_rand engine_;
};

}  // namespace tez::soak
