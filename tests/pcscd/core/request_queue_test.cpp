// The requests of one connection that wait for their answers.
#include "core/request_queue.h"

#include <gtest/gtest.h>

namespace tez::pcscd {
namespace {

TEST(RequestQueueTest, HoldsTwoOfTheLongestRequests) {
    Request longest;
    longest.body.resize(std::size_t{16} << 20);
    RequestQueue queue;
    EXPECT_TRUE(queue.put(longest));
    EXPECT_TRUE(queue.put(longest));
    EXPECT_FALSE(queue.put(longest));
    EXPECT_TRUE(queue.take());
    EXPECT_TRUE(queue.put(longest));
}

}  // namespace
}  // namespace tez::pcscd
