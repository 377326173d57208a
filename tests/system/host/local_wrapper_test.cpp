// Buffers that the host's library allocates: they never reach the application, which gets blocks of
// the library's own heap, and each of them is given back at once.
#include <cstring>
#include <tuple>

#include "catalogue_test.h"
#include "guarded_buffer.h"
#include "heap_spy.h"

namespace tez::test {
namespace {

using testing::_;
using testing::ElementsAre;
using testing::NotNull;
using testing::Pointee;
using testing::Return;

/// Where a call that is to allocate stores the block's address.
template <class Unit>
Unit* addressOf(void** block) {
    // NOLINTNEXTLINE(cppcoreguidelines-pro-type-reinterpret-cast): the platform's way to say it
    return reinterpret_cast<Unit*>(block);
}

/// What a failing call may leave in the place of a result: the address of something.
constexpr int kStray = 0;

class LocalWrapperTest : public RemoteCardTest {
  protected:
    void SetUp() override {
        context = establish();
        card = connect(context, kHostReader);
    }

    /// Every block of the host's heap is with the host again.
    void expectHostsBuffersGivenBack() {
        EXPECT_EQ(host.heap().outstanding(), 0U);
        EXPECT_EQ(host.heap().foreignFrees(), 0U);
    }
};

/// A call with one result that can be auto-allocated, on arguments that the host is content with.
class AllocatingCallTest : public CatalogueTest {
  protected:
    void SetUp() override { connectHostAlone(); }

    LONG call(void* destination, DWORD& length) const {
        return GetParam().outputs.front().make(target(Side::kHost), destination, &length);
    }
};

TEST_P(AllocatingCallTest, WithoutMemoryIsAnInternalErrorAndGivesTheHostsBufferBack) {
    DWORD size = 0;
    ASSERT_THAT(call(nullptr, size), Gives(SCARD_S_SUCCESS));
    HeapSpy heap;
    int place = 0;
    void* block = &place;
    auto length = SCARD_AUTOALLOCATE;
    heap.refuse(size);
    EXPECT_CALL(host, SCardFreeMemory(kHostContext, NotNull()));
    EXPECT_THAT(call(static_cast<void*>(&block), length), Gives(SCARD_F_INTERNAL_ERROR));
    EXPECT_EQ(block, nullptr);
    EXPECT_EQ(length, size);
    EXPECT_EQ(host.heap().outstanding(), 0U);
    EXPECT_EQ(host.heap().foreignFrees(), 0U);
}

TEST_P(AllocatingCallTest, LeavesAPointerAloneThatAFailedCallOfTheHostHasStored) {
    // The destination is the last argument but one of each of the host's calls.
    const auto storeAndFail = [](auto... arguments) -> LONG {
        const auto all = std::make_tuple(arguments...);
        const void* const stray = &kStray;
        std::memcpy(std::get<sizeof...(arguments) - 2>(all), &stray, sizeof stray);
        return SCARD_E_SERVICE_STOPPED;
    };
    ON_CALL(host, SCardListReadersA).WillByDefault(storeAndFail);
    ON_CALL(host, SCardListCardsA).WillByDefault(storeAndFail);
    ON_CALL(host, SCardGetCardTypeProviderNameA).WillByDefault(storeAndFail);
    ON_CALL(host, SCardGetReaderIconA).WillByDefault(storeAndFail);
    ON_CALL(host, SCardReadCacheA).WillByDefault(storeAndFail);
    ON_CALL(host, SCardGetAttrib).WillByDefault(storeAndFail);
    EXPECT_CALL(host, SCardFreeMemory).Times(0);
    void* block = nullptr;
    auto length = SCARD_AUTOALLOCATE;
    EXPECT_THAT(call(static_cast<void*>(&block), length), Gives(SCARD_E_SERVICE_STOPPED));
    EXPECT_EQ(block, nullptr);
    EXPECT_EQ(length, DWORD{SCARD_AUTOALLOCATE});
}

INSTANTIATE_TEST_SUITE_P(LocalWrapperTest, AllocatingCallTest,
                         testing::ValuesIn(callsWith([](const ExportedCall& call) {
                             return reachesDaemon(call) && call.outputs.size() == 1 &&
                                    call.outputs.front().isAllocatable && !call.name.ends_with('W');
                         })),
                         nameOfCall);

TEST_F(LocalWrapperTest, AHostsFailureLeavesPointerAndLengthAsTheyWere) {
    EXPECT_CALL(host, SCardListReadersA(kHostContext, _, NotNull(), Pointee(SCARD_AUTOALLOCATE)))
        .WillOnce(Return(SCARD_E_SERVICE_STOPPED));
    EXPECT_CALL(host, SCardFreeMemory).Times(0);
    int place = 0;
    void* block = &place;
    auto length = SCARD_AUTOALLOCATE;
    EXPECT_THAT(SCardListReadersA(context, nullptr, addressOf<char>(&block), &length),
                Gives(SCARD_E_SERVICE_STOPPED));
    EXPECT_EQ(block, &place);
    EXPECT_EQ(length, DWORD{SCARD_AUTOALLOCATE});
}

TEST_F(LocalWrapperTest, AnEmptyListIsABlockOfOneByte) {
    EXPECT_CALL(host, SCardListReadersA)
        .WillOnce([&](SCARDCONTEXT, LPCSTR, LPSTR readers, LPDWORD length) {
            const std::uint8_t end = 0;
            return host.heap().deliver({&end, 1}, readers, length);
        });
    const HeapSpy heap;
    void* block = nullptr;
    auto length = SCARD_AUTOALLOCATE;
    EXPECT_THAT(SCardListReadersA(context, nullptr, addressOf<char>(&block), &length),
                Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(length, 1U);
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(*static_cast<char*>(block), '\0');
    EXPECT_EQ(heap.outstanding(1), 1U);
    expectHostsBuffersGivenBack();
    EXPECT_THAT(SCardFreeMemory(context, block), Gives(SCARD_S_SUCCESS));
}

class LocalStatusTest : public LocalWrapperTest {
  protected:
    static constexpr DWORD kNameSize = 15;  // of kHostReader as a multi-string

    static Bytes cardsAtr() { return makeDemoCard(kHostCardHolder).atr(); }

    LONG status(LPSTR name, LPBYTE atr) {
        return SCardStatusA(card.handle, name, &nameLength, &state, &protocol, atr, &atrLength);
    }

    void expectAtrAndFree(void* block) {
        ASSERT_EQ(atrLength, cardsAtr().size());
        EXPECT_EQ(std::memcmp(block, cardsAtr().data(), atrLength), 0);
        EXPECT_THAT(SCardFreeMemory(context, block), Gives(SCARD_S_SUCCESS));
    }

    void expectNameAndFree(void* block) {
        EXPECT_EQ(nameLength, kNameSize);
        EXPECT_THAT(splitMultiString(static_cast<char*>(block)), ElementsAre(kHostReader));
        EXPECT_THAT(SCardFreeMemory(context, block), Gives(SCARD_S_SUCCESS));
    }

    DWORD nameLength = SCARD_AUTOALLOCATE;
    DWORD atrLength = SCARD_AUTOALLOCATE;
    DWORD state = 0;
    DWORD protocol = 0;
    void* nameBlock = nullptr;
    void* atrBlock = nullptr;
};

TEST_F(LocalStatusTest, MovesNameAndAtr) {
    EXPECT_CALL(host, SCardFreeMemory(kHostContext, NotNull())).Times(2);
    EXPECT_THAT(status(addressOf<char>(&nameBlock), addressOf<BYTE>(&atrBlock)),
                Gives(SCARD_S_SUCCESS));
    expectNameAndFree(nameBlock);
    expectAtrAndFree(atrBlock);
    expectHostsBuffersGivenBack();
}

TEST_F(LocalStatusTest, WithOnlyTheAtrAllocatedPassesTheNameBufferThrough) {
    const GuardedBuffer name(kNameSize);
    nameLength = kNameSize;
    EXPECT_CALL(host, SCardStatusA(kHostCard, name.as<char>(), &nameLength, &state, &protocol,
                                   NotNull(), Pointee(SCARD_AUTOALLOCATE)));
    EXPECT_CALL(host, SCardFreeMemory(kHostContext, NotNull()));
    EXPECT_THAT(status(name.as<char>(), addressOf<BYTE>(&atrBlock)), Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(splitMultiString(name.as<char>()), ElementsAre(kHostReader));
    expectAtrAndFree(atrBlock);
    expectHostsBuffersGivenBack();
}

TEST_F(LocalStatusTest, WithOnlyTheNameAllocatedPassesTheAtrBufferThrough) {
    const GuardedBuffer atr(cardsAtr().size());
    atrLength = static_cast<DWORD>(atr.size());
    EXPECT_CALL(host, SCardStatusA(kHostCard, NotNull(), Pointee(SCARD_AUTOALLOCATE), &state,
                                   &protocol, atr.data(), &atrLength));
    EXPECT_THAT(status(addressOf<char>(&nameBlock), atr.data()), Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(Bytes(atr.bytes().begin(), atr.bytes().end()), cardsAtr());
    expectNameAndFree(nameBlock);
    expectHostsBuffersGivenBack();
}

TEST_F(LocalStatusTest, WithNothingAllocatedPassesEverythingThrough) {
    const GuardedBuffer name(kNameSize);
    const GuardedBuffer atr(cardsAtr().size());
    nameLength = kNameSize;
    atrLength = static_cast<DWORD>(atr.size());
    EXPECT_CALL(host, SCardStatusA(kHostCard, name.as<char>(), &nameLength, &state, &protocol,
                                   atr.data(), &atrLength));
    EXPECT_CALL(host, SCardFreeMemory).Times(0);
    EXPECT_THAT(status(name.as<char>(), atr.data()), Gives(SCARD_S_SUCCESS));
}

TEST_F(LocalStatusTest, WithoutMemoryForTheNameAllocatesNothing) {
    HeapSpy heap;
    heap.refuse(kNameSize);
    EXPECT_THAT(status(addressOf<char>(&nameBlock), addressOf<BYTE>(&atrBlock)),
                Gives(SCARD_F_INTERNAL_ERROR));
    EXPECT_EQ(nameBlock, nullptr);
    EXPECT_EQ(atrBlock, nullptr);
    EXPECT_EQ(atrLength, DWORD{SCARD_AUTOALLOCATE}) << "the ATR is not handled";
    expectHostsBuffersGivenBack();
}

TEST_F(LocalStatusTest, WithoutMemoryForTheAtrTakesTheNameAway) {
    HeapSpy heap;
    heap.refuse(cardsAtr().size());
    EXPECT_THAT(status(addressOf<char>(&nameBlock), addressOf<BYTE>(&atrBlock)),
                Gives(SCARD_F_INTERNAL_ERROR));
    EXPECT_EQ(nameBlock, nullptr);
    EXPECT_EQ(atrBlock, nullptr);
    EXPECT_EQ(heap.outstanding(kNameSize), 0U);
    expectHostsBuffersGivenBack();
}

TEST_F(LocalStatusTest, AHostsFailureLeavesEverythingAsItWas) {
    EXPECT_CALL(host, SCardStatusA)
        .WillOnce([](SCARDHANDLE, LPSTR name, LPDWORD, LPDWORD, LPDWORD, LPBYTE atr, LPDWORD) {
            const void* const stray = &kStray;
            std::memcpy(name, &stray, sizeof stray);
            std::memcpy(atr, &stray, sizeof stray);
            return SCARD_W_REMOVED_CARD;
        });
    EXPECT_CALL(host, SCardFreeMemory).Times(0);
    EXPECT_THAT(status(addressOf<char>(&nameBlock), addressOf<BYTE>(&atrBlock)),
                Gives(SCARD_W_REMOVED_CARD));
    EXPECT_EQ(nameBlock, nullptr);
    EXPECT_EQ(atrBlock, nullptr);
    EXPECT_EQ(nameLength, DWORD{SCARD_AUTOALLOCATE});
    EXPECT_EQ(atrLength, DWORD{SCARD_AUTOALLOCATE});
}

}  // namespace
}  // namespace tez::test
