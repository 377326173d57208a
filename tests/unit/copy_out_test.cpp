#include "common/copy_out.h"

#include <cstring>
#include <gtest/gtest.h>

#include "common/heap.h"
#include "guarded_buffer.h"
#include "import_patch.h"
#include "record_codec.h"

using namespace tez;
using test::Bytes;
using test::copyBytes;
using test::GuardedBuffer;
using test::ImportPatch;

namespace {

constexpr char kSource[] = {'a', 'b', 'c', 'd', 'e'};
constexpr DWORD kCount = sizeof(kSource);

Bytes sourceBytes(std::size_t size = kCount) {
    return copyBytes(kSource, size);
}

}  // namespace

TEST(CopyOutBuffer, CopiesNothingWithoutALength) {
    const GuardedBuffer destination(kCount);
    EXPECT_EQ(copyOutBuffer(kSource, kCount, destination.data(), nullptr, 1), SCARD_S_SUCCESS);
    EXPECT_TRUE(destination.untouched());
}

TEST(CopyOutBuffer, TellsTheLengthToACallerWithoutABuffer) {
    for (const DWORD given : {DWORD{0}, DWORD{3}, DWORD{SCARD_AUTOALLOCATE}}) {
        DWORD length = given;
        EXPECT_EQ(copyOutBuffer(kSource, kCount, nullptr, &length, 1), SCARD_S_SUCCESS) << given;
        EXPECT_EQ(length, kCount) << given;
    }
}

TEST(CopyOutBuffer, RefusesATooSmallBufferAndTellsTheLength) {
    const GuardedBuffer destination(kCount - 1);
    DWORD length = kCount - 1;
    EXPECT_EQ(copyOutBuffer(kSource, kCount, destination.data(), &length, 1),
              SCARD_E_INSUFFICIENT_BUFFER);
    EXPECT_EQ(length, kCount);
    EXPECT_TRUE(destination.untouched());
}

TEST(CopyOutBuffer, FillsABufferThatFitsExactly) {
    const GuardedBuffer destination(kCount);
    DWORD length = kCount;
    EXPECT_EQ(copyOutBuffer(kSource, kCount, destination.data(), &length, 1), SCARD_S_SUCCESS);
    EXPECT_EQ(length, kCount);
    EXPECT_EQ(copyBytes(destination.data(), kCount), sourceBytes());
    EXPECT_TRUE(destination.untouchedFrom(kCount));
}

TEST(CopyOutBuffer, LeavesTheRestOfALargeBufferAlone) {
    const GuardedBuffer destination(kCount + 9);
    DWORD length = kCount + 9;
    EXPECT_EQ(copyOutBuffer(kSource, kCount, destination.data(), &length, 1), SCARD_S_SUCCESS);
    EXPECT_EQ(length, kCount);
    EXPECT_EQ(copyBytes(destination.data(), kCount), sourceBytes());
    EXPECT_TRUE(destination.untouchedFrom(kCount));
}

TEST(CopyOutBuffer, CountsInElementsOfTwoBytes) {
    const GuardedBuffer destination(4);
    DWORD length = 2;
    EXPECT_EQ(copyOutBuffer(kSource, 2, destination.data(), &length, 2), SCARD_S_SUCCESS);
    EXPECT_EQ(length, 2U);
    EXPECT_EQ(copyBytes(destination.data(), 4), sourceBytes(4));

    const GuardedBuffer small(2);
    length = 1;
    EXPECT_EQ(copyOutBuffer(kSource, 2, small.data(), &length, 2), SCARD_E_INSUFFICIENT_BUFFER);
    EXPECT_EQ(length, 2U);
    EXPECT_TRUE(small.untouched());
}

TEST(CopyOutBuffer, CopiesNothingOfAnEmptyResult) {
    const GuardedBuffer destination(0);
    DWORD length = 0;
    EXPECT_EQ(copyOutBuffer(nullptr, 0, destination.data(), &length, 1), SCARD_S_SUCCESS);
    EXPECT_EQ(length, 0U);
}

TEST(CopyOutBuffer, AllocatesFromTheLibrarysHeap) {
    char* block = nullptr;
    auto length = SCARD_AUTOALLOCATE;
    EXPECT_EQ(copyOutBuffer(kSource, kCount, &block, &length, 1), SCARD_S_SUCCESS);
    EXPECT_EQ(length, kCount);
    const HeapPtr<char> owner(block);
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(copyBytes(block, kCount), sourceBytes());
}

TEST(CopyOutBuffer, AllocatesElementsOfTwoBytes) {
    char* block = nullptr;
    auto length = SCARD_AUTOALLOCATE;
    EXPECT_EQ(copyOutBuffer(kSource, 2, &block, &length, 2), SCARD_S_SUCCESS);
    EXPECT_EQ(length, 2U);
    const HeapPtr<char> owner(block);
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(copyBytes(block, 4), sourceBytes(4));
}

TEST(CopyOutBuffer, AllocatesABlockForAnEmptyResultToo) {
    char* block = nullptr;
    auto length = SCARD_AUTOALLOCATE;
    EXPECT_EQ(copyOutBuffer(nullptr, 0, &block, &length, 1), SCARD_S_SUCCESS);
    EXPECT_EQ(length, 0U);
    const HeapPtr<char> owner(block);
    EXPECT_NE(block, nullptr);
}

TEST(CopyOutBuffer, TellsExhaustedMemoryAndLeavesTheCallerNoPointer) {
    char unrelated = 0;
    char* block = &unrelated;
    auto length = SCARD_AUTOALLOCATE;
    std::size_t requested = 0;
    LONG rv = SCARD_S_SUCCESS;
    {
        const ImportPatch<void*(std::size_t)> exhausted(GetModuleHandleA(nullptr), "msvcrt.dll",
                                                        "malloc", [&](std::size_t size) -> void* {
                                                            requested = size;
                                                            return nullptr;
                                                        });
        rv = copyOutBuffer(kSource, 2, &block, &length, 2);
    }
    EXPECT_EQ(rv, SCARD_E_NO_MEMORY);
    EXPECT_EQ(requested, 4U);
    EXPECT_EQ(length, 2U);
    EXPECT_EQ(block, nullptr);
}
