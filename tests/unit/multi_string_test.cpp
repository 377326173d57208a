#include "common/multi_string.h"

#include <cstring>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <random>
#include <string>
#include <vector>

#include "guarded_buffer.h"

using namespace tez;
using namespace std::string_literals;
using test::GuardedBuffer;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

/// The names of a multi-string that ends where memory does: a read past it ends the process.
std::vector<std::string> namesOf(const std::string& multiString) {
    const GuardedBuffer buffer(multiString.size());
    std::memcpy(buffer.data(), multiString.data(), multiString.size());
    std::vector<std::string> names;
    forEachName(std::string_view(buffer.as<char>(), buffer.size()),
                [&names](std::string_view name) { names.emplace_back(name); });
    return names;
}

std::string closed(std::string multiString) {
    closeMultiString(multiString);
    return multiString;
}

}  // namespace

TEST(MultiString, IsWalkedInOrder) {
    EXPECT_THAT(namesOf("A\0Bc\0Def\0\0"s), ElementsAre("A", "Bc", "Def"));
}

TEST(MultiString, HasNoNamesWhenEmpty) {
    EXPECT_THAT(namesOf(""s), IsEmpty());
    EXPECT_THAT(namesOf("\0"s), IsEmpty());
    EXPECT_THAT(namesOf("\0\0"s), IsEmpty());
}

TEST(MultiString, EndsAtItsClosingNul) {
    EXPECT_THAT(namesOf("A\0\0hidden\0\0"s), ElementsAre("A"));
}

TEST(MultiString, EndsWithItsViewWhenNulsAreMissing) {
    EXPECT_THAT(namesOf("A\0B\0"s), ElementsAre("A", "B"));
    EXPECT_THAT(namesOf("A\0B"s), ElementsAre("A", "B"));
    EXPECT_THAT(namesOf("A"s), ElementsAre("A"));
}

TEST(MultiString, StaysAsItIsWhenWellFormed) {
    EXPECT_EQ(closed("A\0B\0\0"s), "A\0B\0\0"s);
    EXPECT_EQ(closed("\0"s), "\0"s);
}

TEST(MultiString, GetsTheNulsThatItLacks) {
    EXPECT_EQ(closed("A\0B\0"s), "A\0B\0\0"s);
    EXPECT_EQ(closed("A\0B"s), "A\0B\0\0"s);
    EXPECT_EQ(closed(""s), "\0"s);
}

TEST(MultiString, LosesWhatStandsBehindItsEnd) {
    EXPECT_EQ(closed("A\0\0hidden\0\0"s), "A\0\0"s);
    EXPECT_EQ(closed("\0hidden"s), "\0"s);
}

TEST(MultiString, OfAnyBytesIsWalkedInsideAndStaysTheSameWhenClosed) {
    std::mt19937 random(20260101);  // the same bytes in every run
    for (int round = 0; round < 2000; ++round) {
        std::string bytes(random() % 24, '\0');
        for (char& character : bytes) {
            character = "\0\0\0aB\xFF"[random() % 6];
        }
        const std::vector<std::string> names = namesOf(bytes);
        std::string walked;
        for (const std::string& name : names) {
            ASSERT_FALSE(name.empty());
            walked += name + '\0';
        }
        // What was walked is how the bytes begin, but for the NUL that the last name may lack.
        ASSERT_LE(walked.size(), bytes.size() + 1);
        ASSERT_EQ((bytes + '\0').compare(0, walked.size(), walked), 0);

        const std::string whole = closed(bytes);
        ASSERT_EQ(namesOf(whole), names);
        ASSERT_EQ(whole, walked + '\0') << "nothing stands behind the end";
        ASSERT_EQ(closed(whole), whole);
        // Walked as applications walk it: by its NULs alone.
        const GuardedBuffer buffer(whole.size());
        std::memcpy(buffer.data(), whole.data(), whole.size());
        std::size_t count = 0;
        for (const char* name = buffer.as<char>(); *name != '\0'; name += std::strlen(name) + 1) {
            ++count;
        }
        ASSERT_EQ(count, names.size());
    }
}
