#include "common/never_destroyed.h"

#include <gtest/gtest.h>
#include <stdexcept>
#include <thread>
#include <type_traits>
#include <vector>

using namespace tez;

namespace {

std::atomic<int> made = 0;
std::atomic<int> destroyed = 0;

/// One that takes its time to be made.
struct Witness {
    Witness() : number(++made) { Sleep(20); }
    Witness(const Witness&) = delete;
    Witness& operator=(const Witness&) = delete;
    ~Witness() { ++destroyed; }
    int number;
};

static_assert(std::is_trivially_destructible_v<NeverDestroyed<Witness>>);

constinit NeverDestroyed<Witness> witness;

bool isToThrow = true;

struct ThrowsAtFirst {
    ThrowsAtFirst() {
        if (isToThrow) {
            throw std::runtime_error("not yet");
        }
    }
};

constinit NeverDestroyed<ThrowsAtFirst> throwsAtFirst;

}  // namespace

TEST(NeverDestroyed, IsMadeByItsFirstUse) {
    EXPECT_EQ(made, 0);
    EXPECT_FALSE(witness.isMade());
    EXPECT_EQ((*witness).number, 1);
    EXPECT_TRUE(witness.isMade());
    EXPECT_EQ(witness->number, 1);
    EXPECT_EQ(made, 1);
}

TEST(NeverDestroyed, IsMadeOnceByManyThreadsAtOnce) {
    constexpr int kThreads = 8;
    std::vector<std::thread> threads;
    threads.reserve(kThreads);
    std::atomic<int> sum = 0;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&sum] { sum += witness->number; });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(sum, kThreads);
    EXPECT_EQ(made, 1);
}

TEST(NeverDestroyed, LeavesItsObjectBe) {
    {
        NeverDestroyed<Witness> holder;
        EXPECT_EQ(holder->number, 1);
    }
    EXPECT_EQ(destroyed, 0);
}

TEST(NeverDestroyed, IsMadeByALaterUseWhenTheFirstThrows) {
    EXPECT_THROW(*throwsAtFirst, std::runtime_error);
    EXPECT_FALSE(throwsAtFirst.isMade());
    isToThrow = false;
    *throwsAtFirst;
    EXPECT_TRUE(throwsAtFirst.isMade());
}
