#include "memory_sweep.h"

#include "database_calls.h"

namespace tez::test {

void PrintTo(const SweptCall& call, std::ostream* stream) {
    *stream << call.name;
}

LONG freeing(const SweptHandles& handles,
             const std::function<LONG(void* destination, DWORD* length)>& call) {
    void* block = nullptr;
    auto length = SCARD_AUTOALLOCATE;
    const LONG rv = call(static_cast<void*>(&block), &length);
    if (rv == SCARD_S_SUCCESS) {
        SCardFreeMemory(handles.context, block);
    } else {
        EXPECT_EQ(block, nullptr) << "a failure must leave nothing allocated";
    }
    return rv;
}

void MemoryTest::SetUp() {
    if (GetParam().isRedirected) {
        redirectDatabaseCalls();
    }
    // Before the first of the connections that the library keeps.
    heap_.emplace();
    establishContext({1, 4});
    serveQueries(daemon, host);
    handles_ = {context, connect(context, kHostReader).handle,
                connect(context, kRemoteReader).handle};
    listReaders(context);
}

void MemoryTest::expectNothingLost() {
    EXPECT_EQ(host.heap().outstanding(), 0U);
    EXPECT_EQ(host.heap().foreignFrees(), 0U);
    EXPECT_EQ(host.pcsc().contextCount(), 1U);
    EXPECT_EQ(host.pcsc().cardCount(), 1U);
    EXPECT_LE(remote.contextCount(), 1U + brokenOff_);
    EXPECT_LE(remote.cardCount(), 1U + brokenOff_);
}

std::size_t MemoryTest::outstandingBlocks() const {
    return heap_->outstanding();
}

void MemoryTest::sweep() {
    ASSERT_THAT(call(), Gives(SCARD_S_SUCCESS));
    bool wasRefused = true;
    for (std::size_t n = 1; wasRefused && !HasFailure(); ++n) {
        SCOPED_TRACE("allocation " + std::to_string(n));
        heap_->refuseNth(n);
        const LONG rv = call();
        wasRefused = heap_->stopRefusing();
        brokenOff_ += rv == SCARD_E_NO_SERVICE ? 1U : 0U;
        // A log line may do without its allocation, then the call succeeds.
        EXPECT_THAT(rv, testing::AnyOf(Gives(SCARD_S_SUCCESS), Gives(GetParam().fallback),
                                       Gives(SCARD_E_NO_MEMORY), Gives(SCARD_F_INTERNAL_ERROR),
                                       Gives(SCARD_E_NO_SERVICE)));
        if (!wasRefused) {
            EXPECT_THAT(rv, Gives(SCARD_S_SUCCESS));
        }
        EXPECT_THAT(call(), Gives(SCARD_S_SUCCESS)) << "afterwards";
        expectNothingLost();
    }
}

bool MemoryTest::comesDownTo(std::size_t blocks) const {
    // A worker of the library may just be on its way out.
    return eventually([&] { return heap_->outstanding() <= blocks; });
}

}  // namespace tez::test
