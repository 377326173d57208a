// The rule of a caller's buffer, for every call that hands a result out: a missing one asks for the
// length, one that is too small gets the length that is needed, one that is large enough the result
// and nothing behind it, and SCARD_AUTOALLOCATE a block.
#include <cstring>

#include "catalogue_test.h"
#include "guarded_buffer.h"
#include "heap_spy.h"

namespace tez::test {
namespace {

constexpr DWORD kUnlikely[] = {0x7FFFFFFF, 0xFFFFFFFE};

class BufferContractTest : public CatalogueTest {
  protected:
    void expectContract(Side side) {
        for (const Output& output : GetParam().outputs) {
            SCOPED_TRACE(output.name);
            const DWORD needed = neededRoom(output, side);
            if (output.isAllocatable || side == Side::kDaemon) {
                expectRefusal(output, side, needed);
            }  // else the host tells no length
            const Bytes result = expectExact(output, side, needed);
            if (side == Side::kDaemon && output.unit == 1) {
                expectBeginsWith(result, GetParam().answer ? answer().data : Bytes{});
            }
            expectRestUntouched(output, side, result);
            if (output.isAllocatable) {
                expectBlock(output, side, result);
            }
        }
    }

  private:
    /// The last NUL of a list is behind the host's names.
    static void expectBeginsWith(const Bytes& result, const Bytes& data) {
        ASSERT_GE(result.size(), data.size());
        EXPECT_TRUE(std::equal(data.begin(), data.end() - (data.empty() ? 0 : 1), result.begin()));
    }

    DWORD neededRoom(const Output& output, Side side) const {
        if (!output.isAllocatable) {
            const GuardedBuffer buffer(300);
            DWORD length = 300;
            EXPECT_THAT(output.make(target(side), buffer.data(), &length), Gives(SCARD_S_SUCCESS));
            return length;
        }
        DWORD needed = 0;
        for (const DWORD given : {DWORD{SCARD_AUTOALLOCATE}, DWORD{7}, DWORD{0}}) {
            needed = given;
            EXPECT_THAT(output.make(target(side), nullptr, &needed), Gives(SCARD_S_SUCCESS));
            EXPECT_GT(needed, 1U);
        }
        return needed;
    }

    void expectRefusal(const Output& output, Side side, DWORD needed) const {
        for (const DWORD room : {DWORD{0}, DWORD{1}, needed - 1}) {
            SCOPED_TRACE(room);
            const GuardedBuffer buffer(room * output.unit);
            DWORD length = room;
            EXPECT_THAT(output.make(target(side), buffer.data(), &length),
                        Gives(SCARD_E_INSUFFICIENT_BUFFER));
            EXPECT_EQ(length, needed);
            EXPECT_TRUE(buffer.untouched());
        }
    }

    Bytes expectExact(const Output& output, Side side, DWORD needed) const {
        const GuardedBuffer buffer(needed * output.unit);
        DWORD length = needed;
        EXPECT_THAT(output.make(target(side), buffer.data(), &length), Gives(SCARD_S_SUCCESS));
        EXPECT_EQ(length, needed);
        EXPECT_TRUE(buffer.untouchedFrom(buffer.size()));
        EXPECT_FALSE(buffer.untouched());
        return {buffer.bytes().begin(), buffer.bytes().end()};
    }

    /// More room than the result needs, or none so large as is said.
    void expectRestUntouched(const Output& output, Side side, const Bytes& result) const {
        const auto needed = static_cast<DWORD>(result.size() / output.unit);
        for (const DWORD room : {needed + 9, kUnlikely[0], kUnlikely[1]}) {
            SCOPED_TRACE(room);
            const GuardedBuffer buffer((needed + 9) * output.unit);
            DWORD length = room;
            EXPECT_THAT(output.make(target(side), buffer.data(), &length), Gives(SCARD_S_SUCCESS));
            EXPECT_EQ(length, needed);
            EXPECT_EQ(std::memcmp(buffer.data(), result.data(), result.size()), 0);
            EXPECT_TRUE(buffer.untouchedFrom(result.size()));
        }
    }

    void expectBlock(const Output& output, Side side, const Bytes& result) {
        const HeapSpy heap;
        void* block = nullptr;
        auto length = SCARD_AUTOALLOCATE;
        ASSERT_THAT(output.make(target(side), static_cast<void*>(&block), &length),
                    Gives(SCARD_S_SUCCESS));
        EXPECT_EQ(length, result.size() / output.unit);
        ASSERT_NE(block, nullptr);
        EXPECT_EQ(std::memcmp(block, result.data(), result.size()), 0);
        EXPECT_EQ(heap.outstanding(result.size()), 1U) << "the caller's block alone";
        EXPECT_EQ(host.heap().outstanding(), 0U);
        EXPECT_EQ(host.heap().foreignFrees(), 0U);
        EXPECT_THAT(SCardFreeMemory(context, block), Gives(SCARD_S_SUCCESS));
        EXPECT_TRUE(heap.wasFreed(block));
    }
};

TEST_P(BufferContractTest, HoldsForWhatTheDaemonTells) {
    connectBothSides();
    call();
    const std::size_t opens = transport().opens();
    expectContract(Side::kDaemon);
    if (GetParam().outputs.front().isAllocatable) {
        EXPECT_EQ(transport().opens(), opens) << "all that came was read";
    }
}

TEST_P(BufferContractTest, HoldsForWhatTheHostTells) {
    connectHostAlone();
    expectContract(Side::kHost);
}

INSTANTIATE_TEST_SUITE_P(EveryResult, BufferContractTest,
                         testing::ValuesIn(callsWith([](const ExportedCall& call) {
                             return !call.outputs.empty();
                         })),
                         nameOfCall);

}  // namespace
}  // namespace tez::test
