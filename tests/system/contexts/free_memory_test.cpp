// SCardFreeMemory
#include "heap_spy.h"
#include "log_text.h"
#include "remote_card_test.h"

namespace tez::test {
namespace {

using testing::_;
using testing::ElementsAre;

class FreeMemoryTest : public RemoteCardTest {
  protected:
    /// A block that the library handed out.
    void* allocated() {
        char* readers = nullptr;
        auto length = SCARD_AUTOALLOCATE;
        EXPECT_THAT(SCardListReadersA(context, nullptr, reinterpret_cast<LPSTR>(&readers), &length),
                    Gives(SCARD_S_SUCCESS));
        return readers;
    }
};

TEST_F(FreeMemoryTest, FreesABlockOfTheLibraryItself) {
    establishContext();
    void* const block = allocated();
    EXPECT_CALL(host, SCardFreeMemory(_, _)).Times(0);
    const HeapSpy heap;
    EXPECT_THAT(SCardFreeMemory(context, block), Gives(SCARD_S_SUCCESS));
    EXPECT_TRUE(heap.wasFreed(block));
    EXPECT_THAT(
        log().messages("SCardFreeMemory"),
        ElementsAre("FREE_MEMORY IN-PARAMS: 1, " + logged(block), "FREE_MEMORY RV: 0x00000000"));
}

TEST_F(FreeMemoryTest, NeedsNoContext) {
    establishContext();
    void* const block = allocated();
    const HeapSpy heap;
    EXPECT_THAT(SCardFreeMemory(0, block), Gives(SCARD_S_SUCCESS));
    EXPECT_TRUE(heap.wasFreed(block));
}

TEST_F(FreeMemoryTest, FreesNothingForAnUnknownContext) {
    establishContext();
    void* const block = allocated();
    {
        const HeapSpy heap;
        EXPECT_THAT(SCardFreeMemory(kHostContext, block), Gives(SCARD_E_INVALID_HANDLE));
        EXPECT_FALSE(heap.wasFreed(block));
    }
    EXPECT_THAT(log().messages("SCardFreeMemory"),
                ElementsAre("FREE_MEMORY IN-PARAMS: 7a000001, " + logged(block),
                            "FREE_MEMORY RV: 0x80100003"));
    EXPECT_THAT(SCardFreeMemory(context, block), Gives(SCARD_S_SUCCESS));
}

TEST_F(FreeMemoryTest, TakesANullPointer) {
    establishContext();
    EXPECT_THAT(SCardFreeMemory(context, nullptr), Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(SCardFreeMemory(0, nullptr), Gives(SCARD_S_SUCCESS));
}

}  // namespace
}  // namespace tez::test
