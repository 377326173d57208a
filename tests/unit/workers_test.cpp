#include "common/workers.h"

#include <windows.h>

#include <atomic>
#include <gmock/gmock.h>
#include <utility>

#include "import_patch.h"
#include "patience.h"

namespace tez {
namespace {

class CountedJob : public Job {
  public:
    CountedJob() : Job(&count) {}

    /// Waits until it has been run that often.
    bool isRun(int times) const {
        return test::eventually([&] { return runs_ == times; });
    }
    int runs() const { return runs_; }

  private:
    static void count(Job& job) noexcept { ++static_cast<CountedJob&>(job).runs_; }

    std::atomic<int> runs_ = 0;
};

TEST(WorkersTest, RunAJobAgainWithoutThatWhichStoodBehindIt) {
    CountedJob first;
    CountedJob second;
    CountedJob third;
    {
        using Start =
            std::uintptr_t(void*, unsigned, unsigned (*)(void*), void*, unsigned, unsigned*);
        bool isSecondThere = false;
        const test::ImportPatch<Start>* started = nullptr;
        const test::ImportPatch<Start> start(
            GetModuleHandleA(nullptr), "msvcrt.dll", "_beginthreadex",
            [&](void* security, unsigned stack, unsigned (*body)(void*), void* argument,
                unsigned flags, unsigned* id) {
                // Both are there before there is a thread.
                if (!std::exchange(isSecondThere, true)) {
                    EXPECT_TRUE(runOnWorker(second));
                }
                return started->original()(security, stack, body, argument, flags, id);
            });
        started = &start;
        ASSERT_TRUE(runOnWorker(first));
    }
    ASSERT_TRUE(first.isRun(1) && second.isRun(1));
    ASSERT_TRUE(runOnWorker(first) && first.isRun(2));
    ASSERT_TRUE(runOnWorker(third) && third.isRun(1));
    EXPECT_EQ(second.runs(), 1);
}

}  // namespace
}  // namespace tez
