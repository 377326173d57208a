// Contexts released and cards disconnected by one thread under the call of another: the call ends,
// and the handle is none afterwards.
#include <atomic>
#include <future>

#include "catalogue_test.h"
#include "status_waits.h"

namespace tez::test {
namespace {

bool canBeTakenAway(const ExportedCall& call) {
    if (call.asksNobody) {
        return false;
    }
    return call.isCardCall() || call.takes == Takes::kContext || call.takes == Takes::kAnyContext;
}

class TakenAwayTest : public CatalogueTest {
  protected:
    /// Holds the host's part of a call, whatever function it asks, while the test goes on. Calls of
    /// the test's own thread pass.
    void holdTheHost() {
        const DWORD own = GetCurrentThreadId();
// NOLINTNEXTLINE(bugprone-macro-parentheses): names are no expressions
#define TEZ_HOLD_CALL(Result, name, parameters, arguments)       \
    ON_CALL(host, name).WillByDefault([this, own](auto... all) { \
        if (GetCurrentThreadId() != own) {                       \
            gate_.pass();                                        \
        }                                                        \
        return host.service().name(all...);                      \
    });
        TEZ_FOR_EACH_SYSTEM_CALL(TEZ_HOLD_CALL)
#undef TEZ_HOLD_CALL
    }

    /// Holds the daemon's answer to the call, the first of them.
    void holdTheDaemon() {
        daemon.on(answer().command, [this](const Request& request) {
            if (!hasHeld_.exchange(true)) {
                gate_.pass();
            }
            return Reply::of({answer().bytesFor(request)});
        });
    }

    /// Makes the call on another thread and takes its handle away while it is held.
    void takeAway(Side side) {
        const Target on = target(side);
        auto called = std::async(std::launch::async, [&] { return GetParam().make(on); });
        const bool isHeld = gate_.waitUntilReached();
        EXPECT_TRUE(isHeld);
        const LONG taken = GetParam().isCardCall() ? SCardDisconnect(on.handle, SCARD_LEAVE_CARD)
                                                   : SCardReleaseContext(on.handle);
        gate_.open();
        called.get();  // how it ends depends on what is left to do
        // Of two calls that end a handle one may find it ended.
        EXPECT_TRUE(taken == SCARD_S_SUCCESS || GetParam().endsHandle) << taken;
        EXPECT_THAT(GetParam().make(on), Gives(side == Side::kDaemon ? GetParam().unknownHandle
                                                                     : SCARD_E_INVALID_HANDLE));
    }

    /// Both sides serve, and what was taken away is not there any more.
    void expectOrder() {
        const SCARDCONTEXT fresh = establish();
        EXPECT_THAT(SCardIsValidContext(fresh), Gives(SCARD_S_SUCCESS));
        EXPECT_THAT(SCardReleaseContext(fresh), Gives(SCARD_S_SUCCESS));
        EXPECT_EQ(host.heap().outstanding(), 0U);
    }

  private:
    Gate gate_;
    std::atomic<bool> hasHeld_ = false;
};

TEST_P(TakenAwayTest, EndsTheCallThatTheDaemonHolds) {
    connectBothSides();
    holdTheDaemon();
    takeAway(Side::kDaemon);
    expectOrder();
}

INSTANTIATE_TEST_SUITE_P(EveryCall, TakenAwayTest,
                         testing::ValuesIn(callsWith([](const ExportedCall& call) {
                             return reachesDaemon(call) && canBeTakenAway(call);
                         })),
                         nameOfCall);

using TakenAwayOnTheHostTest = TakenAwayTest;

TEST_P(TakenAwayOnTheHostTest, EndsTheCallThatTheHostHolds) {
    connectHostAlone();
    holdTheHost();
    takeAway(Side::kHost);
    expectOrder();
}

INSTANTIATE_TEST_SUITE_P(EveryCall, TakenAwayOnTheHostTest,
                         testing::ValuesIn(callsWith([](const ExportedCall& call) {
                             return canBeTakenAway(call) || call.takes == Takes::kUpdateContext;
                         })),
                         nameOfCall);

}  // namespace
}  // namespace tez::test
