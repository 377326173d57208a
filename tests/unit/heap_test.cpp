#include "common/heap.h"

#include <cstdint>
#include <cstring>
#include <gtest/gtest.h>

using namespace tez;

TEST(Heap, GivesABlockForASizeOfZero) {
    void* const block = heapAllocate(0);
    EXPECT_NE(block, nullptr);
    heapFree(block);
}

TEST(Heap, GivesNullForWhatNoMemoryCanHold) {
    EXPECT_EQ(heapAllocate(SIZE_MAX), nullptr);
}

TEST(Heap, TakesNullBack) {
    heapFree(nullptr);
    const HeapPtr<char> none;
    EXPECT_EQ(none, nullptr);
}

TEST(Heap, DuplicatesATextIntoABlockOfItsOwn) {
    char text[] = "reader";
    const HeapPtr<char> copy(heapDuplicate(text));
    text[0] = 'R';
    EXPECT_STREQ(copy.get(), "reader");
}

TEST(Heap, DuplicatesTheEmptyText) {
    const HeapPtr<char> copy(heapDuplicate(""));
    EXPECT_STREQ(copy.get(), "");
}

TEST(Heap, DuplicatesNoTextAsNone) {
    EXPECT_EQ(heapDuplicate(nullptr), nullptr);
}
