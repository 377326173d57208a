// What the system can refuse: a call is made with its first allocation refused, then its second,
// and so on until it has no more, and the same with events. Every time it must end with a result,
// lose nothing, and work again.
#include "catalogue_test.h"
#include "heap_spy.h"
#include "import_patch.h"

namespace tez::test {
namespace {

using testing::AnyOf;
using testing::UnorderedElementsAre;

/// Refuses the library's calls on the test's thread one event, the n-th from now on.
class RefusedEvent {
  public:
    explicit RefusedEvent(std::size_t n) : left_(n) {}

    bool hasRefused() const noexcept { return left_ == 0; }

  private:
    std::size_t left_;
    ImportPatch<decltype(::CreateEventA)> create_{
        libraryModule(), "KERNEL32.dll", "CreateEventA",
        [this, thread = GetCurrentThreadId()](LPSECURITY_ATTRIBUTES security, BOOL manual,
                                              BOOL initial, LPCSTR name) -> HANDLE {
            if (GetCurrentThreadId() == thread && left_ != 0 && --left_ == 0) {
                SetLastError(ERROR_NOT_ENOUGH_MEMORY);
                return nullptr;
            }
            return ::CreateEventA(security, manual, initial, name);
        }};
};

class MemoryTest : public CatalogueTest {
  protected:
    /// Both sides are there. Calls on the card database reach the daemon if redirected, and else
    /// the host.
    void connectTo(Side side) {
        side_ = side;
        if (side == Side::kDaemon) {
            redirectDatabaseCalls();
            closeHostsCache(host);
        }
        // Before the first of the connections that the library keeps.
        heap_.emplace();
        establishContext({1, 4});
        serveAnswers(daemon, databaseCalls());
        teachHost(host);
        card = connect(context, readerOf(side));
        other_ = connect(context, readerOf(side == Side::kDaemon ? Side::kHost : Side::kDaemon));
        listReaders(context);
    }

    void expectEndOfEveryCall() {
        sweepAllocations();
        // What is made once, such as the place for a thread's first exception, has been made.
        const std::size_t kept = heap_->outstanding();
        sweepAllocations();
        expectBlocks(kept);
        sweepEvents();
        expectBlocks(kept);
    }

    void TearDown() override {
        EXPECT_THAT(listReaders(context), UnorderedElementsAre(kHostReader, kRemoteReader));
    }

  private:
    /// Makes the call with one allocation refused after the other.
    void sweepAllocations() {
        ASSERT_THAT(callOn(target(side_)), Gives(SCARD_S_SUCCESS));
        sweep([this](std::size_t n, const Target& on) {
            heap_->refuseNth(n);
            const LONG rv = callOn(on);
            return std::pair(rv, heap_->stopRefusing());
        });
    }

    /// Makes the call with one event refused after the other.
    void sweepEvents() {
        sweep([this](std::size_t n, const Target& on) {
            const RefusedEvent refusing(n);
            const LONG rv = callOn(on);
            return std::pair(rv, refusing.hasRefused());
        });
    }

    /// @param callWithout  makes the call with the n-th of something refused, and gives its result
    ///                     and whether it came to that.
    template <class CallWithout>
    void sweep(CallWithout callWithout) {
        bool wasRefused = true;
        for (std::size_t n = 1; wasRefused && !HasFailure(); ++n) {
            SCOPED_TRACE("the " + std::to_string(n) + ". refused");
            const Target on = target(side_);
            const auto [rv, refused] = callWithout(n, on);
            wasRefused = refused;
            expectRefusal(on, rv, wasRefused);
            EXPECT_THAT(callOn(target(side_)), Gives(SCARD_S_SUCCESS)) << "afterwards";
            expectNothingLost();
        }
    }

    void expectRefusal(const Target& on, LONG rv, bool wasRefused) {
        // A log line may do without its allocation, then the call succeeds.
        EXPECT_THAT(rv, AnyOf(Gives(SCARD_S_SUCCESS), Gives(GetParam().failure(SCARD_E_NO_MEMORY)),
                              Gives(SCARD_E_NO_MEMORY), Gives(SCARD_F_INTERNAL_ERROR),
                              Gives(SCARD_E_NO_SERVICE)));
        EXPECT_TRUE(wasRefused || rv == SCARD_S_SUCCESS);
        // Whether the daemon has done, or is yet to do, what it was asked for in an exchange that
        // was given up, is known to nobody here.
        brokenOff_ += rv == SCARD_E_NO_SERVICE || (wasRefused && GetParam().endsHandle) ? 1U : 0U;
        if (rv != SCARD_S_SUCCESS && GetParam().endsHandle) {
            GetParam().make(on);
        }
    }

    void expectNothingLost() {
        EXPECT_EQ(host.heap().outstanding(), 0U);
        EXPECT_EQ(host.heap().foreignFrees(), 0U);
        EXPECT_EQ(host.pcsc().contextCount(), 1U);
        EXPECT_EQ(host.pcsc().cardCount(), 1U);
        EXPECT_LE(remote.contextCount(), 1U + brokenOff_);
        EXPECT_LE(remote.cardCount(), 1U + brokenOff_);
    }

    /// With each of its results in a block, if it has any.
    LONG callOn(const Target& on) const {
        LONG rv = GetParam().outputs.size() == 1 ? SCARD_S_SUCCESS : GetParam().make(on);
        if (rv != SCARD_S_SUCCESS) {
            return rv;
        }
        for (const Output& output : GetParam().outputs) {
            rv = output.isAllocatable ? intoBlock(output, on) : GetParam().make(on);
            if (rv != SCARD_S_SUCCESS) {
                break;
            }
        }
        return rv;
    }

    /// The library goes on knowing the handle of a card that was disconnected from the host, and of
    /// one whose disconnection at the daemon was broken off.
    static bool keepsHandles() {
        return GetParam().name.starts_with("SCardConnect") || GetParam().endsHandle ||
               GetParam().name == "SCardEstablishContext";
    }

    /// The library has no more blocks than that which were taken on the test's thread. A worker of
    /// it may just be on its way out.
    void expectBlocks(std::size_t kept) const {
        EXPECT_TRUE(keepsHandles() || eventually([&] { return heap_->outstanding() <= kept; }))
            << heap_->outstanding() << " blocks, not " << kept;
    }

    LONG intoBlock(const Output& output, const Target& on) const {
        void* block = nullptr;
        auto length = SCARD_AUTOALLOCATE;
        const LONG rv = output.make(on, static_cast<void*>(&block), &length);
        if (rv == SCARD_S_SUCCESS) {
            SCardFreeMemory(context, block);
        } else {
            EXPECT_EQ(block, nullptr) << "a failure must leave nothing allocated";
        }
        return rv;
    }

    std::optional<HeapSpy> heap_;
    Side side_ = Side::kDaemon;
    ConnectedCard other_;
    std::size_t brokenOff_ = 0;
};

TEST_P(MemoryTest, WhatTheSystemRefusesEndsTheCallAndLosesNothing) {
    connectTo(Side::kDaemon);
    expectEndOfEveryCall();
}

INSTANTIATE_TEST_SUITE_P(AtTheDaemon, MemoryTest, testing::ValuesIn(callsWith(reachesDaemon)),
                         nameOfCall);

using MemoryOnTheHostTest = MemoryTest;

TEST_P(MemoryOnTheHostTest, WhatTheSystemRefusesEndsTheCallAndLosesNothing) {
    connectTo(Side::kHost);
    expectEndOfEveryCall();
}

INSTANTIATE_TEST_SUITE_P(
    OnTheHost, MemoryOnTheHostTest,
    testing::ValuesIn(callsWith([](const auto& call) { return !call.refusal; })), nameOfCall);

}  // namespace
}  // namespace tez::test
