#include "context/handle_table.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <gtest/gtest.h>
#include <map>
#include <memory>
#include <string>

using namespace tez;

namespace {

using Table = HandleTable<std::string>;

std::string valueOf(Table& table, std::uint64_t handle) {
    const std::string* const value = table.find(handle);
    return value == nullptr ? "(unknown)" : *value;
}

std::map<std::uint64_t, std::string> contentsOf(Table& table) {
    std::map<std::uint64_t, std::string> contents;
    table.forEach([&contents](std::uint64_t handle, std::string& value) {
        EXPECT_TRUE(contents.emplace(handle, value).second) << handle << " is visited twice";
    });
    return contents;
}

}  // namespace

TEST(HandleTable, IssuesHandlesFromOneOn) {
    Table table;
    EXPECT_EQ(table.add("a"), 1U);
    EXPECT_EQ(table.add("b"), 2U);
    EXPECT_EQ(table.add("c"), 3U);
    EXPECT_EQ(table.size(), 3U);
    EXPECT_EQ(valueOf(table, 1), "a");
    EXPECT_EQ(valueOf(table, 3), "c");
}

TEST(HandleTable, KnowsNothingElse) {
    Table table;
    table.add("a");
    EXPECT_EQ(table.find(0), nullptr);
    EXPECT_EQ(table.find(2), nullptr);
    EXPECT_EQ(table.find(257), nullptr);  // the same bucket as 1
    EXPECT_EQ(table.find(~std::uint64_t{0}), nullptr);
}

TEST(HandleTable, DoesNotIssueATakenHandleAgain) {
    Table table;
    table.add("a");
    std::string value;
    EXPECT_TRUE(table.take(1, value));
    EXPECT_EQ(value, "a");
    EXPECT_EQ(table.find(1), nullptr);
    EXPECT_EQ(table.size(), 0U);
    EXPECT_EQ(table.add("b"), 2U);
}

TEST(HandleTable, TakesAnUnknownHandleNowhere) {
    Table table;
    table.add("a");
    std::string value = "kept";
    EXPECT_FALSE(table.take(2, value));
    EXPECT_EQ(value, "kept");
    EXPECT_EQ(table.size(), 1U);
}

TEST(HandleTable, SkipsHandlesThatAreInUse) {
    Table table;
    table.put(1, "x");
    table.put(2, "y");
    table.put(4, "z");
    EXPECT_EQ(table.add("a"), 3U);
    EXPECT_EQ(table.add("b"), 5U);
    EXPECT_EQ(valueOf(table, 2), "y");
    EXPECT_EQ(table.size(), 5U);
}

TEST(HandleTable, BeginsAnewBehindTheLastNumberAndNeverIssuesZero) {
    Table table(~std::uint64_t{0} - 1);
    table.put(1, "in use");
    EXPECT_EQ(table.add("last"), ~std::uint64_t{0});
    EXPECT_EQ(table.add("first again"), 2U);
}

TEST(HandleTable, IssuesHandlesAmongManyAsFastAsAmongFew) {
    // The best of many rounds, which no other load can have made longer.
    const auto quickest = [](HandleTable<int>& table) {
        auto best = std::chrono::steady_clock::duration::max();
        for (int round = 0; round < 50; ++round) {
            const auto start = std::chrono::steady_clock::now();
            for (int i = 0; i < 100; ++i) {
                table.add(i);
            }
            best = std::min(best, std::chrono::steady_clock::now() - start);
        }
        return best;
    };
    HandleTable<int> few;
    HandleTable<int> many;
    for (int i = 0; i < 100'000; ++i) {
        many.add(i);
    }
    // Had it to be searched for, each would take some dozens of times as long.
    EXPECT_LT(quickest(many), 10 * quickest(few));
}

TEST(HandleTable, PutsOverWhatIsThere) {
    Table table;
    table.add("a");
    table.put(1, "b");
    EXPECT_EQ(valueOf(table, 1), "b");
    EXPECT_EQ(table.size(), 1U);
}

TEST(HandleTable, KeepsHandlesOfOneBucketApart) {
    // The lowest bit does not count, the 33rd neither.
    const std::uint64_t chain[] = {6, 7, 6 + 256, 6 + 512, 6 + (std::uint64_t{1} << 33)};
    Table table;
    for (const std::uint64_t handle : chain) {
        table.put(handle, std::to_string(handle));
    }
    for (const std::uint64_t handle : chain) {
        EXPECT_EQ(valueOf(table, handle), std::to_string(handle));
    }
    std::string value;
    EXPECT_TRUE(table.take(6 + 256, value));   // out of the chain's middle
    EXPECT_TRUE(table.take(6, value));         // its end
    EXPECT_TRUE(table.take(chain[4], value));  // its front
    EXPECT_EQ(contentsOf(table), (std::map<std::uint64_t, std::string>{{7, "7"}, {518, "518"}}));
}

TEST(HandleTable, VisitsEveryHandleOnceAndLetsItsValueChange) {
    Table table;
    std::map<std::uint64_t, std::string> expected;
    for (int i = 0; i < 1000; ++i) {
        expected[table.add("old")] = "new";
    }
    table.forEach([](std::uint64_t, std::string& value) { value = "new"; });
    EXPECT_EQ(contentsOf(table), expected);
    EXPECT_EQ(table.size(), 1000U);
}

TEST(HandleTable, DestroysTheValuesThatItStillHolds) {
    const auto witness = std::make_shared<int>(0);
    {
        HandleTable<std::shared_ptr<int>> table;
        for (int i = 0; i < 300; ++i) {
            table.add(witness);
        }
        EXPECT_EQ(witness.use_count(), 301);
    }
    EXPECT_EQ(witness.use_count(), 1);
}
