#include "common/never_destroyed.h"

#include <gtest/gtest.h>
#include <string>

using namespace tez;

namespace {

struct Witness {
    Witness(int& count, std::string given) : destroyed(count), text(std::move(given)) {}
    Witness(const Witness&) = delete;
    Witness& operator=(const Witness&) = delete;
    ~Witness() { ++destroyed; }
    int& destroyed;
    std::string text;
};

}  // namespace

TEST(NeverDestroyed, ConstructsItsObjectFromTheArgumentsAndLeavesItBe) {
    int destroyed = 0;
    Witness* object = nullptr;
    {
        NeverDestroyed<Witness> holder(destroyed, "short");
        object = &*holder;
        EXPECT_EQ(object->text, "short");
        EXPECT_EQ(&*holder, object);
    }
    EXPECT_EQ(destroyed, 0);
}
