// SCardGetStatusChangeA while the daemon comes, goes or is not ready.
#include <atomic>
#include <memory>

#include "daemon_records.h"
#include "latch.h"
#include "no_threads.h"
#include "status_waits.h"

namespace tez::test {
namespace {

using testing::_;
using testing::AtLeast;
using testing::Contains;
using testing::DoAll;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Return;
using testing::UnorderedElementsAre;

class StatusChangeAndDaemon : public StatusChangeTest {
  protected:
    /// Lets the daemon refuse a context with SCARD_E_NO_SERVICE, this often, as one does that is
    /// not ready.
    void refuseContexts(int times) {
        daemon.on(Command::kEstablishContext,
                  [left = std::make_shared<std::atomic<int>>(times),
                   refuse = refusing<EstablishLayout>(SCARD_E_NO_SERVICE)](const Request& request) {
                      return (*left)-- <= 0 ? std::nullopt : refuse(request);
                  });
    }

    /// A wait without limit that is inside the host, and waits for a context that the daemon
    /// refuses.
    BackgroundWait waitWhileNotReady(SCARDCONTEXT context) {
        listReaders(context);
        BackgroundWait wait(context, INFINITE,
                            {readerState(kPnpReader, 1U << 16U), unchangedHost()});
        waitForHostWait();
        EXPECT_TRUE(eventually([this] { return !contextWaits().empty(); }));
        return wait;
    }

    /// Lets the daemon go once a wait on one reader of the host has found that the daemon has
    /// nothing to keep the host waiting: it copies the host's entry then.
    ImportPatch<void*(std::size_t)> stopDaemonAsTheWaitBegins() {
        return {libraryModule(), "msvcrt.dll", "malloc", [this](std::size_t size) {
                    if (size == sizeof(SCARD_READERSTATEA) && !isGone_.exchange(true)) {
                        stopDaemon();
                    }
                    return ::malloc(size);
                }};
    }
    bool isGone() const { return isGone_; }

    /// What the calling thread's wait says while it waits for the daemon's context.
    std::vector<std::string> contextWaits() const {
        std::vector<std::string> waits;
        for (const std::string& message : log().messages(kStatusChange, 'D')) {
            if (message.rfind("Waiting for remote context", 0) == 0) {
                waits.push_back(message);
            }
        }
        return waits;
    }

  private:
    std::atomic<bool> isGone_ = false;
};

TEST_F(StatusChangeAndDaemon, ComingEndsAWaitOnTheHostAloneAsATimeout) {
    const SCARDCONTEXT context = establish();
    listReaders(context);
    const BackgroundWait wait(context, INFINITE, {unchangedHost()});
    waitForHostWait();
    startDaemon();
    EXPECT_THAT(wait.result(), Gives(SCARD_E_TIMEOUT));
    EXPECT_THAT(log().messages(kStatusChange), Contains("localRv: 0x8010000A"));
    waitForWatch();
    // The next call sees the new reader without the application listing anything.
    SCARD_READERSTATEA state = readerState(kRemoteReader, SCARD_STATE_UNAWARE);
    EXPECT_THAT(SCardGetStatusChangeA(context, 0, &state, 1), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(state.dwEventState, kFirstCard | kChanged);
    EXPECT_THAT(listReaders(context), UnorderedElementsAre(kHostReader, kRemoteReader));
}

TEST_F(StatusChangeAndDaemon, ComingEndsABoundedWaitOnTheHostToo) {
    const SCARDCONTEXT context = establish();
    listReaders(context);
    const BackgroundWait wait(context, 60000, {unchangedHost()});
    waitForHostWait();
    startDaemon();
    EXPECT_THAT(wait.result(), Gives(SCARD_E_TIMEOUT));
    EXPECT_LT(wait.duration(), 30000U);
}

TEST_F(StatusChangeAndDaemon, ComingEndsEveryWaitOfEveryContext) {
    const SCARDCONTEXT first = establish();
    const SCARDCONTEXT second = establish();
    listReaders(first);
    // On a busy machine either may be repeated.
    EXPECT_CALL(host, SCardCancel(kFirstHostContext)).Times(AtLeast(1));
    EXPECT_CALL(host, SCardCancel(kFirstHostContext + 1)).Times(AtLeast(1));
    const BackgroundWait waits[] = {{first, INFINITE, {unchangedHost()}},
                                    {first, INFINITE, {unchangedHost()}},
                                    {second, INFINITE, {unchangedHost()}}};
    waitForHostWait(3);
    startDaemon();
    for (const BackgroundWait& wait : waits) {
        EXPECT_THAT(wait.result(), Gives(SCARD_E_TIMEOUT));
    }
}

TEST_F(StatusChangeAndDaemon, ComingIsSeenByAWaitBegunAnewWhileOthersAreBeingCancelled) {
    const SCARDCONTEXT context = establish();
    listReaders(context);
    const Gate gate;
    ON_CALL(host, SCardCancel).WillByDefault([this, gate](SCARDCONTEXT system) {
        const LONG rv = host.service().SCardCancel(system);
        gate.pass();
        return rv;
    });
    const BackgroundWait ended(context, INFINITE, {unchangedHost()});
    waitForHostWait();
    startDaemon();
    EXPECT_THAT(ended.result(), Gives(SCARD_E_TIMEOUT));
    const BackgroundWait next(context, INFINITE, {unchangedHost(), unchangedRemote()});
    EXPECT_TRUE(daemon.waitForRequest(Command::kGetStatusChange, 1, kPatience));
    gate.open();
    waitForRemoteWait();
    remote.removeCard(kRemoteReader);
    EXPECT_THAT(next.result(), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(next.state(1).dwEventState, kFirstCardPulled | kChanged);
}

TEST_F(StatusChangeAndDaemon, ComingEndsAWaitThatHadNotYetBegunInTheHost) {
    const SCARDCONTEXT context = establish();
    listReaders(context);
    const Gate gate = holdHostWaits();
    const BackgroundWait wait(context, INFINITE, {unchangedHost()});
    ASSERT_TRUE(gate.waitUntilReached());
    startDaemon();
    waitForWatch();
    gate.open();
    EXPECT_THAT(wait.result(), Gives(SCARD_E_TIMEOUT));
}

TEST_F(StatusChangeAndDaemon, ComingEndsAWaitThatIsAboutToBegin) {
    const SCARDCONTEXT context = establish();
    // The call has seen that there is no daemon, and lists the readers, when the daemon comes.
    const Gate gate;
    ON_CALL(host, SCardListReadersA)
        .WillByDefault(
            [this, gate](SCARDCONTEXT system, LPCSTR groups, LPSTR readers, LPDWORD length) {
                gate.pass();
                return host.service().SCardListReadersA(system, groups, readers, length);
            });
    const BackgroundWait wait(context, INFINITE, {readerState(kPnpReader, 1U << 16U)});
    ASSERT_TRUE(gate.waitUntilReached());
    startDaemon();
    waitForWatch();
    gate.open();
    EXPECT_THAT(wait.result(), Gives(SCARD_E_TIMEOUT));
}

TEST_F(StatusChangeAndDaemon, AWaitBegunBeforeTheMonitorWatchesSeesTheHostsChanges) {
    // The first context finds the daemon; the monitor's own connection is still on its way when the
    // application waits already.
    const Gate gate = holdFirstPass();
    startDaemon();
    const SCARDCONTEXT context = establish();
    ASSERT_TRUE(gate.waitUntilReached());
    const BackgroundWait wait = waitOnBothSides(context);
    gate.open();
    waitForWatch();
    host.pcsc().removeCard(kHostReader);
    EXPECT_THAT(wait.result(), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(wait.state(0).dwEventState, kFirstCardPulled | kChanged);
}

TEST_F(StatusChangeAndDaemon, GoingEndsAWaitOnRemoteReaders) {
    const SCARDCONTEXT context = establishAndList();
    const BackgroundWait wait(context, INFINITE, {unchangedRemote()});
    waitForRemoteWait();
    stopDaemon();
    EXPECT_THAT(wait.result(), Gives(SCARD_S_SUCCESS));  // by the empty local half
    EXPECT_THAT(log().messages(kStatusChange), Contains("intermediate rv: 0x8010001D"));
    EXPECT_THAT(log().entries(), Contains(LogLine('W', kStatusChange, "Failed to receive data")));
    EXPECT_THAT(listReaders(context), ElementsAre(kHostReader));
}

TEST_F(StatusChangeAndDaemon, GoingLeavesTheHostsHalfOfAWait) {
    const SCARDCONTEXT context = establishAndList();
    const BackgroundWait wait = waitOnBothSides(context);
    stopDaemon();
    EXPECT_TRUE(eventually(
        [this] { return log().count(kStatusChange, "intermediate rv: 0x8010001D") == 1; }));
    EXPECT_FALSE(wait.isOver());
    host.pcsc().removeCard(kHostReader);
    EXPECT_THAT(wait.result(), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(wait.state(0).dwEventState, kFirstCardPulled | kChanged);
}

TEST_F(StatusChangeAndDaemon, GoingAndComingBackEndsTheHostsHalfOfAWait) {
    const SCARDCONTEXT context = establishAndList();
    const BackgroundWait wait = waitOnBothSides(context);
    stopDaemon();
    startDaemon();
    EXPECT_THAT(wait.result(), Gives(SCARD_E_NO_SERVICE));
    waitForWatch();
    std::vector states{unchangedHost(), readerState(kRemoteReader, SCARD_STATE_UNAWARE)};
    EXPECT_THAT(SCardGetStatusChangeA(context, 0, states.data(), 2), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(states[1].dwEventState, kFirstCard | kChanged);
}

TEST_F(StatusChangeAndDaemon, GoingLetsABoundedWaitRunItsTime) {
    const SCARDCONTEXT context = establishAndList();
    const BackgroundWait wait(context, 1500, {unchangedHost(), unchangedRemote()});
    waitForRemoteWait();
    stopDaemon();
    EXPECT_THAT(wait.result(), Gives(SCARD_E_NO_SERVICE));
    EXPECT_GE(wait.duration(), 1450U);
}

TEST_F(StatusChangeAndDaemon, GoneForTheNextCallMakesItOneOfTheHost) {
    const SCARDCONTEXT context = establishAndList();
    stopDaemon();
    std::vector states{readerState(kHostReader, SCARD_STATE_UNAWARE),
                       readerState(kRemoteReader, SCARD_STATE_PRESENT, kUntouched)};
    EXPECT_THAT(SCardGetStatusChangeA(context, 0, states.data(), 2), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(states[0].dwEventState, kFirstCard | kChanged);
    EXPECT_EQ(states[1].dwEventState, kUntouched);
}

TEST_F(StatusChangeAndDaemon, GoneBeforeTheWaitHasBegunLeavesTheHostsHalf) {
    const SCARDCONTEXT context = establishAndList();
    const auto allocate = stopDaemonAsTheWaitBegins();
    const BackgroundWait wait(context, INFINITE, {unchangedHost()});
    waitForHostWait();
    ASSERT_TRUE(isGone());
    host.pcsc().removeCard(kHostReader);
    EXPECT_THAT(wait.result(), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(wait.state(0).dwEventState, kFirstCardPulled | kChanged);
}

TEST_F(StatusChangeAndDaemon, GoneBeforeTheWaitHasBegunLeavesTheHostsHalfWithoutThreadsToo) {
    const SCARDCONTEXT context = establishAndList();
    const auto allocate = stopDaemonAsTheWaitBegins();
    const NoThreads refusing;
    const BackgroundWait wait(context, INFINITE, {unchangedHost()});
    waitForHostWait();
    ASSERT_TRUE(isGone());
    host.pcsc().removeCard(kHostReader);
    EXPECT_THAT(wait.result(), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(wait.state(0).dwEventState, kFirstCardPulled | kChanged);
}

TEST_F(StatusChangeAndDaemon, NotReadyIsWaitedForUntilTheTimeoutIsOver) {
    refuseContexts(1000);
    const SCARDCONTEXT context = establishWithDaemon();
    listReaders(context);
    EXPECT_CALL(host, SCardGetStatusChangeA(_, 2500, _, 1)).WillOnce(Return(SCARD_E_TIMEOUT));
    SCARD_READERSTATEA state = readerState(kPnpReader, 1U << 16U);
    const ULONGLONG start = GetTickCount64();
    EXPECT_THAT(SCardGetStatusChangeA(context, 2500, &state, 1), Gives(SCARD_E_TIMEOUT));
    EXPECT_GE(GetTickCount64() - start, 2400U);
    EXPECT_THAT(contextWaits(), ElementsAre("Waiting for remote context: 1, timeout=2500",
                                            "Waiting for remote context: 1, timeout=1500",
                                            "Waiting for remote context: 1, timeout=500"));
    EXPECT_THAT(log().messages(kStatusChange), Contains("intermediate rv: 0x8010000A"));
    EXPECT_THAT(daemon.requests(Command::kGetStatusChange), IsEmpty());
}

TEST_F(StatusChangeAndDaemon, NotReadyLeavesWhatRemainsOfTheTimeoutForTheWait) {
    refuseContexts(3);  // the list's and two of the wait's
    const SCARDCONTEXT context = establishWithDaemon();
    listReaders(context);
    const SkippedPauses pauses;
    Latch hostAsked(1);
    EXPECT_CALL(host, SCardGetStatusChangeA(_, 2500, _, 1))
        .WillOnce(DoAll([&] { hostAsked.countDown(); }, Return(SCARD_E_TIMEOUT)));
    // A thread that had not come to the host's half by then would be given what remains, too.
    daemon.on(Command::kGetStatusChange, [&](const Request&) -> std::optional<Reply> {
        hostAsked.wait();
        return std::nullopt;
    });
    SCARD_READERSTATEA state = readerState(kPnpReader, 7U << 16U);
    EXPECT_THAT(SCardGetStatusChangeA(context, 2500, &state, 1), Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(pauses.durations(), ElementsAre(1000U, 1000U));
    const std::vector<Request> requests = daemon.requests(Command::kGetStatusChange);
    ASSERT_EQ(requests.size(), 1U);
    EXPECT_EQ(u32At(requests[0].body, StatusChangeLayout::kTimeout), 500U);
}

TEST_F(StatusChangeAndDaemon, NotReadyIsAskedAgainEverySecondWithoutATimeout) {
    refuseContexts(3);
    const SCARDCONTEXT context = establishWithDaemon();
    listReaders(context);
    const SkippedPauses pauses;
    SCARD_READERSTATEA state = readerState(kPnpReader, 7U << 16U);
    ON_CALL(host, SCardGetStatusChangeA).WillByDefault(Return(SCARD_E_TIMEOUT));
    EXPECT_THAT(SCardGetStatusChangeA(context, INFINITE, &state, 1), Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(pauses.durations(), ElementsAre(1000U, 1000U));
    EXPECT_THAT(contextWaits(), ElementsAre("Waiting for remote context: 1, timeout=4294967295",
                                            "Waiting for remote context: 1, timeout=4294967295"));
}

TEST_F(StatusChangeAndDaemon, NotReadyDoesNotKeepAHostChangeBack) {
    refuseContexts(1000);
    const SCARDCONTEXT context = establishWithDaemon();
    const BackgroundWait wait = waitWhileNotReady(context);
    const ULONGLONG changed = GetTickCount64();
    host.pcsc().removeCard(kHostReader);
    EXPECT_THAT(wait.result(), Gives(SCARD_S_SUCCESS));
    EXPECT_LT(GetTickCount64() - changed, 3000U);
    EXPECT_EQ(wait.state(1).dwEventState, kFirstCardPulled | kChanged);
    EXPECT_THAT(log().messages(kStatusChange), Contains("intermediate rv: 0x80100002"));
    EXPECT_EQ(log().count(kLocalStatusChange, kCancelRemote), 1U);
    EXPECT_EQ(remoteCancels(), 0U);
}

TEST_F(StatusChangeAndDaemon, NotReadyIsWaitedForUntilTheApplicationCancels) {
    refuseContexts(1000);
    const SCARDCONTEXT context = establishWithDaemon();
    const BackgroundWait wait = waitWhileNotReady(context);
    EXPECT_THAT(SCardCancel(context), Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(wait.result(), Gives(SCARD_E_CANCELLED));
    EXPECT_THAT(daemon.requests(Command::kGetStatusChange), IsEmpty());
}

TEST_F(StatusChangeAndDaemon, NotReadyDoesNotHideTheHostsReadersThatNobodyListed) {
    refuseContexts(1000);
    const SCARDCONTEXT context = establishWithDaemon();
    const BackgroundWait wait(context, INFINITE, {unchangedHost()});
    waitForHostWait();
    host.pcsc().removeCard(kHostReader);
    EXPECT_THAT(wait.result(), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(wait.state(0).dwEventState, kFirstCardPulled | kChanged);
}

TEST_F(StatusChangeAndDaemon, NotReadyDoesNotLoseACancelThatTheNextWaitFollows) {
    refuseContexts(1000);
    const SCARDCONTEXT context = establishWithDaemon();
    const BackgroundWait wait = waitWhileNotReady(context);
    EXPECT_THAT(SCardCancel(context), Gives(SCARD_S_SUCCESS));
    // Takes the context's mark back, well within the second that the other one sleeps.
    SCARD_READERSTATEA state = unchangedHost();
    EXPECT_THAT(SCardGetStatusChangeA(context, 0, &state, 1), Gives(SCARD_E_TIMEOUT));
    EXPECT_THAT(wait.result(), Gives(SCARD_E_CANCELLED));
}

TEST_F(StatusChangeAndDaemon, NotReadyDoesNotKeepAHostChangeBackThatTheNextWaitFollows) {
    refuseContexts(1000);
    const SCARDCONTEXT context = establishWithDaemon();
    const BackgroundWait wait = waitWhileNotReady(context);
    host.pcsc().removeCard(kHostReader);
    ASSERT_TRUE(eventually([this] {
        return log().count("setContextCancelled", "Setting ContextCancelled 7a000001 to 1") == 1;
    }));
    SCARD_READERSTATEA state = readerState(kHostReader, kFirstCardPulled);
    EXPECT_THAT(SCardGetStatusChangeA(context, 0, &state, 1), Gives(SCARD_E_TIMEOUT));
    EXPECT_THAT(wait.result(), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(wait.state(1).dwEventState, kFirstCardPulled | kChanged);
}

TEST_F(StatusChangeAndDaemon, ComingAnewEndsAWaitForItsContextAsATimeout) {
    refuseContexts(1000);
    const SCARDCONTEXT context = establishWithDaemon();
    const BackgroundWait wait = waitWhileNotReady(context);
    stopDaemon();
    startDaemon();
    // Deaf to the host's readers, it would go on until the daemon is ready.
    EXPECT_THAT(wait.result(), Gives(SCARD_E_TIMEOUT));
    EXPECT_EQ(remoteCancels(), 0U);
}

TEST_F(StatusChangeAndDaemon, ThatLosesTheWatchAloneEndsBothHalvesOfAWait) {
    const SCARDCONTEXT context = establishAndList();
    const BackgroundWait wait = waitOnBothSides(context);
    ASSERT_TRUE(daemon.closeConnection(kWatch));
    EXPECT_THAT(wait.result(), Gives(SCARD_E_TIMEOUT));
    EXPECT_GE(remoteCancels(), 1U);
    ASSERT_TRUE(transport().waitForWatches(2));
    const BackgroundWait next(context, INFINITE, {unchangedHost(), unchangedRemote()});
    waitForHostWait();
    host.pcsc().removeCard(kHostReader);
    EXPECT_THAT(next.result(), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(next.state(0).dwEventState, kFirstCardPulled | kChanged);
}

TEST_F(StatusChangeAndDaemon, AwayDoesNotHideTheHostsReadersThatNobodyListed) {
    const SCARDCONTEXT context = establish();
    const BackgroundWait wait(context, INFINITE, {unchangedHost()});
    waitForHostWait();
    host.pcsc().removeCard(kHostReader);
    EXPECT_THAT(wait.result(), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(wait.state(0).dwEventState, kFirstCardPulled | kChanged);
}

TEST_F(StatusChangeAndDaemon, RefusingAContextOtherwiseEndsTheRemoteHalf) {
    daemon.on(Command::kEstablishContext, refusing<EstablishLayout>(SCARD_E_NO_MEMORY));
    const SCARDCONTEXT context = establishWithDaemon();
    listReaders(context);
    SCARD_READERSTATEA state = readerState(kPnpReader, 1U << 16U);
    EXPECT_THAT(SCardGetStatusChangeA(context, 0, &state, 1), Gives(SCARD_E_NO_MEMORY));
    EXPECT_THAT(contextWaits(), IsEmpty());
}

TEST_F(StatusChangeAndDaemon, ThatComesLaterIsSeenByAnApplicationStartedBefore) {
    const SCARDCONTEXT context = establish();
    EXPECT_THAT(listReaders(context), ElementsAre(kHostReader));
    startDaemon();
    waitForWatch();
    EXPECT_THAT(listReaders(context), UnorderedElementsAre(kHostReader, kRemoteReader));
    const BackgroundWait wait = waitOnBothSides(context);
    remote.removeCard(kRemoteReader);
    EXPECT_THAT(wait.result(), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(wait.state(1).dwEventState, kFirstCardPulled | kChanged);
}

TEST_F(StatusChangeAndDaemon, EndAWaitForACardWhenItComesNotWhenItGoesAgain) {
    remote.removeCard(kRemoteReader);
    const SCARDCONTEXT context = establishAndList();
    const BackgroundWait wait(context, INFINITE,
                              {unchangedHost(), readerState(kRemoteReader, SCARD_STATE_EMPTY)});
    waitForRemoteWait();
    waitForHostWait();
    remote.insertCard(kRemoteReader, makeDemoCard(kRemoteCardHolder));
    EXPECT_THAT(wait.result(), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(wait.state(1).dwEventState, kSecondCard | kChanged);
    const BackgroundWait next(context, INFINITE,
                              {unchangedHost(), readerState(kRemoteReader, kSecondCard)});
    waitForRemoteWait();
    remote.removeCard(kRemoteReader);
    EXPECT_THAT(next.result(), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(next.state(1).dwEventState, count(4) | SCARD_STATE_EMPTY | kChanged);
}

}  // namespace
}  // namespace tez::test
