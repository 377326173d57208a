// SCardGetStatusChangeA: what several waits, and the threads that end them, do to each other. Each
// wait ends by what is meant for it, at once, and by nothing else.
#include <algorithm>
#include <atomic>
#include <mutex>
#include <optional>
#include <thread>

#include "daemon_records.h"
#include "heap_spy.h"
#include "status_waits.h"

namespace tez::test {
namespace {

using testing::_;
using testing::Contains;
using testing::IsEmpty;
using testing::SizeIs;

/// Longer than a cancel that was repeated needs to reach a wait that it is not meant for.
constexpr std::chrono::milliseconds kSeveralRepeats(1300);

class SharedWaits : public StatusChangeTest {
  protected:
    /// Counts the host's cancels.
    void countHostCancels() {
        ON_CALL(host, SCardCancel).WillByDefault([this](SCARDCONTEXT context) {
            const LONG rv = host.service().SCardCancel(context);
            ++hostCancels_;
            return rv;
        });
    }
    std::size_t hostCancels() const { return hostCancels_; }

    /// Lets the daemon carry a cancel out, but never answer it.
    void leaveCancelsUnanswered() {
        daemon.on(Command::kCancel, [this](const Request& request) {
            remote.cancel(u64At(request.body, 0));
            return Reply::silence();
        });
    }

    /// Lets the host's first wait return behind a gate only.
    Gate holdEndOfFirstHostWait() {
        Gate gate;
        ON_CALL(host, SCardGetStatusChangeA)
            .WillByDefault(
                [this, gate, isFirst = std::make_shared<std::atomic<bool>>(true)](
                    SCARDCONTEXT system, DWORD timeout, LPSCARD_READERSTATEA states, DWORD count) {
                    const bool isHeld = isFirst->exchange(false);
                    const LONG rv =
                        host.service().SCardGetStatusChangeA(system, timeout, states, count);
                    if (isHeld) {
                        gate.pass();
                    }
                    return rv;
                });
        return gate;
    }

  private:
    std::atomic<std::size_t> hostCancels_ = 0;
};

TEST_F(SharedWaits, ACancelEndsNoWaitThatBeginsBehindIt) {
    const SCARDCONTEXT context = establishAndList();
    const Gate gate;  // behind which the system's cancel returns
    ON_CALL(host, SCardCancel).WillByDefault([this, gate](SCARDCONTEXT system) {
        const LONG rv = host.service().SCardCancel(system);
        gate.pass();
        return rv;
    });
    const BackgroundWait first = waitOnBothSides(context);
    std::thread cancelling(
        [context] { EXPECT_THAT(SCardCancel(context), Gives(SCARD_S_SUCCESS)); });
    EXPECT_THAT(first.result(), Gives(SCARD_E_CANCELLED));
    const BackgroundWait second = waitOnBothSides(context);
    gate.open();
    cancelling.join();
    EXPECT_FALSE(second.isOver(kSeveralRepeats));
    host.pcsc().removeCard(kHostReader);
    EXPECT_THAT(second.result(), Gives(SCARD_S_SUCCESS));
}

TEST_F(SharedWaits, ARepeatedCancelEndsNoOtherWaitOfTheContext) {
    const SCARDCONTEXT context = establishAndList();
    countHostCancels();
    const Gate gate = holdEndOfFirstHostWait();
    const BackgroundWait first = waitOnBothSides(context);
    EXPECT_THAT(SCardCancel(context), Gives(SCARD_S_SUCCESS));
    const BackgroundWait second(context, INFINITE, {unchangedHost(), unchangedRemote()});
    waitForHostWait();
    // The first one's half goes on being cancelled on the context that both share.
    ASSERT_TRUE(eventually([this] { return hostCancels() >= 4; }));
    waitForHostWait();
    EXPECT_FALSE(second.isOver());
    gate.open();
    EXPECT_THAT(first.result(), Gives(SCARD_E_CANCELLED));
    host.pcsc().removeCard(kHostReader);
    EXPECT_THAT(second.result(), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(second.state(0).dwEventState, kFirstCardPulled | kChanged);
}

TEST_F(SharedWaits, ARemoteChangeForOneLeavesTheOtherHearingOfTheHost) {
    const SCARDCONTEXT context = establishAndList();
    remote.addReader("Remote Reader 1");
    listReaders(context);
    daemon.clearRecords();
    const BackgroundWait first(context, INFINITE, {unchangedHost(), unchangedRemote()});
    const BackgroundWait second(
        context, INFINITE, {unchangedHost(), readerState("Remote Reader 1", SCARD_STATE_EMPTY)});
    waitForRemoteWait(2);
    waitForHostWait(2);
    remote.removeCard(kRemoteReader);
    EXPECT_THAT(first.result(), Gives(SCARD_S_SUCCESS));
    host.pcsc().removeCard(kHostReader);
    EXPECT_THAT(second.result(), Gives(SCARD_S_SUCCESS));
    EXPECT_LT(second.duration(), 5000U);
    EXPECT_EQ(second.state(0).dwEventState, kFirstCardPulled | kChanged);
}

TEST_F(SharedWaits, AHostChangeForOneLeavesTheOtherHearingOfTheDaemon) {
    const SCARDCONTEXT context = establishAndList();
    host.pcsc().addReader("Host Reader 1");
    listReaders(context);
    daemon.clearRecords();
    const BackgroundWait first(context, INFINITE, {unchangedHost(), unchangedRemote()});
    const BackgroundWait second(
        context, INFINITE, {readerState("Host Reader 1", SCARD_STATE_EMPTY), unchangedRemote()});
    waitForRemoteWait(2);
    waitForHostWait(2);
    host.pcsc().removeCard(kHostReader);
    EXPECT_THAT(first.result(), Gives(SCARD_S_SUCCESS));
    waitForRemoteWait();
    remote.removeCard(kRemoteReader);
    EXPECT_THAT(second.result(), Gives(SCARD_S_SUCCESS));
    EXPECT_LT(second.duration(), 5000U);
    EXPECT_EQ(second.state(1).dwEventState, kFirstCardPulled | kChanged);
}

TEST_F(SharedWaits, ACancelUnderWayEndsNoWaitThatBeginsMeanwhile) {
    const SCARDCONTEXT context = establishAndList();
    const Gate gate;
    daemon.on(Command::kCancel, [gate](const Request& /*request*/) {
        gate.pass();
        return std::nullopt;
    });
    const BackgroundWait first = waitOnBothSides(context);
    host.pcsc().removeCard(kHostReader);
    ASSERT_TRUE(gate.waitUntilReached());
    const BackgroundWait second(context, INFINITE, {unchangedRemote()});
    waitForRemoteWait(2);
    gate.open();
    EXPECT_THAT(first.result(), Gives(SCARD_S_SUCCESS));
    EXPECT_FALSE(second.isOver(std::chrono::milliseconds(200)));
    remote.removeCard(kRemoteReader);
    EXPECT_THAT(second.result(), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(second.state(0).dwEventState, kFirstCardPulled | kChanged);
}

TEST_F(SharedWaits, AHalfThatBeginsAgainHasTheTimeThatRemains) {
    constexpr DWORD kTimeout = 5000;
    const SCARDCONTEXT context = establishAndList();
    remote.addReader("Remote Reader 1");
    listReaders(context);
    std::atomic<DWORD> lastTimeout = 0;
    ON_CALL(host, SCardGetStatusChangeA)
        .WillByDefault(
            [&](SCARDCONTEXT system, DWORD timeout, LPSCARD_READERSTATEA states, DWORD count) {
                if (timeout != INFINITE) {
                    lastTimeout = timeout;
                }
                return host.service().SCardGetStatusChangeA(system, timeout, states, count);
            });
    const BackgroundWait bounded(context, kTimeout, {unchangedHost(), unchangedRemote()});
    const BackgroundWait unbounded(
        context, INFINITE, {unchangedHost(), readerState("Remote Reader 1", SCARD_STATE_EMPTY)});
    waitForRemoteWait(2);
    waitForHostWait(2);
    EXPECT_FALSE(bounded.isOver(std::chrono::milliseconds(300)));
    remote.insertCard("Remote Reader 1", makeDemoCard(kRemoteCardHolder));
    EXPECT_THAT(unbounded.result(), Gives(SCARD_S_SUCCESS)) << "cancels the host's half of both";
    EXPECT_THAT(bounded.result(), Gives(SCARD_E_TIMEOUT));
    EXPECT_GE(bounded.duration(), kTimeout - 100);
    EXPECT_LE(lastTimeout, kTimeout - 275) << "the whole time once more";
}

TEST_F(SharedWaits, ACancelThatNobodyHereCausedIsTheSidesOwnAnswer) {
    const SCARDCONTEXT context = establishAndList();
    EXPECT_CALL(host, SCardGetStatusChangeA).Times(1);
    const BackgroundWait wait = waitOnBothSides(context);
    host.pcsc().cancel(kFirstHostContext);
    ASSERT_TRUE(eventually([this] {
        return std::ranges::any_of(log().messages(kLocalStatusChange), [](const std::string& line) {
            return line.starts_with("NEW LOCAL READER STATE");
        });
    })) << "the host's half is over";
    remote.cancel(kFirstRemoteContext);
    EXPECT_THAT(wait.result(), Gives(SCARD_E_CANCELLED));
}

TEST_F(SharedWaits, AnInterruptionIsNotLostBetweenTheStartOfAWaitAndTheSystemsCall) {
    const SCARDCONTEXT context = establishAndList();
    const Gate gate = holdHostWaits();
    const BackgroundWait wait(context, INFINITE, {unchangedHost(), unchangedRemote()});
    waitForRemoteWait();
    ASSERT_TRUE(gate.waitUntilReached());
    ASSERT_TRUE(daemon.closeConnection(kWatch));
    ASSERT_TRUE(transport().waitForWatches(2));
    gate.open();
    EXPECT_THAT(wait.result(), Gives(SCARD_E_TIMEOUT));
}

TEST_F(SharedWaits, ADaemonThatComesBackInterruptsThemEvenWhenItsLossWasNotSeen) {
    const SCARDCONTEXT context = establishAndList();
    const std::size_t opens = transport().monitorOpens();
    const Gate gate;  // in front of the monitor's next pass, the only one to open a pipe
    {
        const ImportPatch<decltype(::CreateFileA)> open(
            libraryModule(), "KERNEL32.dll", "CreateFileA",
            [&open, gate](LPCSTR name, DWORD access, DWORD share, LPSECURITY_ATTRIBUTES security,
                          DWORD creation, DWORD flags, HANDLE file) {
                gate.pass();
                return open.original()(name, access, share, security, creation, flags, file);
            });
        // What is sent there ends the monitor's watch, as if nothing had changed.
        ASSERT_TRUE(daemon.send(kWatch, {{0}}));
        ASSERT_TRUE(gate.waitUntilReached());
        daemon.stop();
        gate.open();
    }
    ASSERT_TRUE(transport().waitForMonitorOpens(opens + 1));
    const BackgroundWait wait(context, INFINITE, {unchangedHost(), unchangedRemote()});
    waitForHostWait();
    ASSERT_TRUE(eventually(
        [this] { return log().count(kStatusChange, "intermediate rv: 0x8010001D") == 1; }));
    startDaemon();
    EXPECT_THAT(wait.result(), Gives(SCARD_E_NO_SERVICE)) << "the lost half's code stands";
}

TEST_F(SharedWaits, OneThatHasLostTheDaemonIsInterruptedByTheMonitorsFirstPassToo) {
    const Gate gate = holdFirstPass();
    startDaemon();
    const SCARDCONTEXT context = establish();
    ASSERT_TRUE(gate.waitUntilReached());
    const BackgroundWait wait = waitOnBothSides(context);
    ASSERT_TRUE(
        daemon.closeConnection(daemon.requests(Command::kGetStatusChange).at(0).connection));
    ASSERT_TRUE(eventually(
        [this] { return log().count(kStatusChange, "intermediate rv: 0x8010001D") == 1; }));
    EXPECT_FALSE(wait.isOver());
    gate.open();
    EXPECT_THAT(wait.result(), Gives(SCARD_E_NO_SERVICE));
}

TEST_F(SharedWaits, OneThatHearsTheDaemonIsLeftAloneByTheMonitorsFirstPass) {
    countHostCancels();
    const Gate gate = holdFirstPass();
    startDaemon();
    const SCARDCONTEXT context = establish();
    ASSERT_TRUE(gate.waitUntilReached());
    const BackgroundWait wait = waitOnBothSides(context);
    gate.open();
    waitForWatch();
    EXPECT_EQ(hostCancels(), 0U);
    EXPECT_FALSE(wait.isOver());
    remote.removeCard(kRemoteReader);
    EXPECT_THAT(wait.result(), Gives(SCARD_S_SUCCESS));
    EXPECT_NE(wait.state(1).dwEventState & SCARD_STATE_EMPTY, 0U);
}

TEST_F(SharedWaits, ReleasingTheContextEndsAWaitOnBothSides) {
    const SCARDCONTEXT context = establishAndList();
    daemon.on(Command::kReleaseContext,
              [](const Request& request) { return Reply::of({request.body}); });
    const BackgroundWait wait = waitOnBothSides(context);
    EXPECT_THAT(SCardReleaseContext(context), Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(wait.result(), Gives(SCARD_E_CANCELLED));
    EXPECT_LT(wait.duration(), 5000U);
}

TEST_F(SharedWaits, ReleasingTheContextEndsAWaitOnTheHostAlone) {
    const SCARDCONTEXT context = establish();
    listReaders(context);
    ON_CALL(host, SCardReleaseContext).WillByDefault(testing::Return(SCARD_S_SUCCESS));
    const BackgroundWait wait(context, INFINITE, {unchangedHost()});
    waitForHostWait();
    EXPECT_THAT(SCardReleaseContext(context), Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(wait.result(), Gives(SCARD_E_CANCELLED));
}

TEST_F(SharedWaits, ReleasingTheContextEndsAWaitOnADaemonThatDoesNotEndItItself) {
    const SCARDCONTEXT context = establishAndList();
    for (const Command command : {Command::kReleaseContext, Command::kCancel}) {
        daemon.on(command, [](const Request& request) { return Reply::of({request.body}); });
    }
    const BackgroundWait wait(context, INFINITE, {unchangedRemote()});
    waitForRemoteWait();
    EXPECT_THAT(SCardReleaseContext(context), Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(wait.result(), Gives(SCARD_E_CANCELLED));
    EXPECT_LT(wait.duration(), 5000U);
}

// It is told once; nothing wakes it again before its patience is over.
TEST_F(SharedWaits, ReleasingTheContextEndsAWaitBegunMeanwhileOnADaemonThatAnswersNoCancel) {
    const SCARDCONTEXT context = establishAndList();
    daemon.on(Command::kReleaseContext,
              [](const Request& request) { return Reply::of({request.body}); });
    daemon.on(Command::kCancel, [](const Request&) { return Reply::silence(); });
    EXPECT_THAT(beginWaitInRelease(context).result(), Gives(SCARD_E_CANCELLED));
}

// The monitor ends what would be deaf to the host; a wait on the daemon alone goes on behind it,
// and another wait's end still means nothing to it.
TEST_F(SharedWaits, OneOnTheDaemonThatTheMonitorLeftAloneIsNotEndedByAnothersEnd) {
    const SCARDCONTEXT context = establishAndList();
    const BackgroundWait alone(context, INFINITE, {unchangedRemote()});
    waitForRemoteWait();
    ASSERT_TRUE(daemon.send(kWatch, {{0}}));
    ASSERT_TRUE(transport().waitForWatches(2));
    const BackgroundWait both(context, INFINITE, {unchangedHost(), unchangedRemote()});
    waitForRemoteWait(2);
    waitForHostWait();
    host.pcsc().removeCard(kHostReader);
    EXPECT_THAT(both.result(), Gives(SCARD_S_SUCCESS));
    ASSERT_TRUE(daemon.waitForRequest(Command::kGetStatusChange, 3, kPatience));
    EXPECT_FALSE(alone.isOver());
    remote.removeCard(kRemoteReader);
    EXPECT_THAT(alone.result(), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(alone.state(0).dwEventState, kFirstCardPulled | kChanged);
}

TEST_F(SharedWaits, ThatBindTheContextAtOnceAreCancelledEachUnderItsOwn) {
    constexpr std::size_t kWaits = 3;
    establishAndList();
    const SCARDCONTEXT context = establish();  // has no counterpart at the daemon yet
    const Gate gate;
    daemon.on(Command::kEstablishContext, [gate](const Request&) -> std::optional<Reply> {
        gate.pass();
        return std::nullopt;
    });
    std::vector<BackgroundWait> waits;
    for (std::size_t i = 0; i < kWaits; ++i) {
        waits.emplace_back(context, INFINITE, std::vector{unchangedHost(), unchangedRemote()});
    }
    ASSERT_TRUE(daemon.waitForRequest(Command::kEstablishContext, kWaits, kPatience));
    gate.open();
    waitForRemoteWait(kWaits);
    waitForHostWait(kWaits);
    const ULONGLONG cancelled = GetTickCount64();
    EXPECT_THAT(SCardCancel(context), Gives(SCARD_S_SUCCESS));
    for (const BackgroundWait& wait : waits) {
        EXPECT_THAT(wait.result(), Gives(SCARD_E_CANCELLED));
    }
    EXPECT_LT(GetTickCount64() - cancelled, kInTime);
}

TEST_F(SharedWaits, ADaemonThatDoesNotAnswerACancelKeepsNoHalfFromEnding) {
    const SCARDCONTEXT context = establishAndList();
    leaveCancelsUnanswered();
    const BackgroundWait wait = waitOnBothSides(context);
    std::thread cancelling([context] { SCardCancel(context); });
    EXPECT_THAT(wait.result(), Gives(SCARD_E_CANCELLED));
    daemon.closeAllConnections();
    cancelling.join();
}

TEST_F(SharedWaits, AHostChangeReturnsThoughTheCancelOfTheDaemonIsNotAnswered) {
    const SCARDCONTEXT context = establishAndList();
    leaveCancelsUnanswered();
    const BackgroundWait wait = waitOnBothSides(context);
    host.pcsc().removeCard(kHostReader);
    EXPECT_THAT(wait.result(), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(wait.state(0).dwEventState, kFirstCardPulled | kChanged);
    // The connection whose answer is still to come is not used again.
    daemon.restore(Command::kCancel);
    const BackgroundWait next(context, 10, {unchangedRemote()});
    EXPECT_THAT(next.result(), Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(listReaders(context), SizeIs(2));
}

TEST_F(SharedWaits, ACancelIsSeenAtOnceWhileTheDaemonIsNotReady) {
    daemon.on(Command::kEstablishContext, refusing<EstablishLayout>(SCARD_E_NO_SERVICE));
    const SCARDCONTEXT context = establishWithDaemon();
    listReaders(context);
    std::vector<ULONGLONG> delays;
    for (int round = 0; round < 5; ++round) {
        daemon.clearRecords();
        const BackgroundWait wait(context, INFINITE,
                                  {readerState(kPnpReader, 1U << 16U), unchangedHost()});
        waitForHostWait();
        ASSERT_TRUE(daemon.waitForRequest(Command::kEstablishContext, 1, kPatience));
        const ULONGLONG cancelled = GetTickCount64();
        EXPECT_THAT(SCardCancel(context), Gives(SCARD_S_SUCCESS));
        EXPECT_THAT(wait.result(), Gives(SCARD_E_CANCELLED));
        delays.push_back(GetTickCount64() - cancelled);
    }
    EXPECT_LT(median(delays), 500U) << "the daemon is asked again every second";
}

/// Counts the threads that the library starts.
class ThreadCounter {
    using Start = std::uintptr_t(void*, unsigned, unsigned (*)(void*), void*, unsigned, unsigned*);

  public:
    std::size_t started() const { return started_; }

  private:
    std::atomic<std::size_t> started_ = 0;
    ImportPatch<Start> start_{libraryModule(), "msvcrt.dll", "_beginthreadex",
                              [this](void* security, unsigned stack, unsigned (*body)(void*),
                                     void* argument, unsigned flags, unsigned* id) {
                                  ++started_;
                                  return start_.original()(security, stack, body, argument, flags,
                                                           id);
                              }};
};

TEST_F(SharedWaits, OnTheHostAloneStartNoThread) {
    const SCARDCONTEXT context = establish();
    listReaders(context);
    const ThreadCounter threads;
    SCARD_READERSTATEA state = unchangedHost();
    for (const DWORD timeout : {0U, 20U}) {
        EXPECT_THAT(SCardGetStatusChangeA(context, timeout, &state, 1), Gives(SCARD_E_TIMEOUT));
    }
    EXPECT_EQ(threads.started(), 0U);
}

TEST_F(SharedWaits, OnTheHostAloneStartNoThreadWhileTheDaemonIsThere) {
    const SCARDCONTEXT context = establishAndList();
    const ThreadCounter threads;
    SCARD_READERSTATEA state = unchangedHost();
    for (const DWORD timeout : {0U, 20U}) {
        EXPECT_THAT(SCardGetStatusChangeA(context, timeout, &state, 1), Gives(SCARD_S_SUCCESS));
    }
    EXPECT_EQ(threads.started(), 0U);
}

TEST_F(SharedWaits, OnBothSidesKeepTheirThread) {
    const SCARDCONTEXT context = establishAndList();
    const ThreadCounter threads;
    std::vector states{unchangedHost(), unchangedRemote()};
    for (int i = 0; i < 20; ++i) {
        EXPECT_THAT(SCardGetStatusChangeA(context, 5, states.data(), 2), Gives(SCARD_E_TIMEOUT));
    }
    // A wait may begin before the last one's thread is idle again, and has one more started, which
    // serves all that follow, too.
    EXPECT_THAT(threads.started(), testing::AllOf(testing::Ge(1U), testing::Le(4U)));
}

TEST_F(SharedWaits, ThatOnlyAskStartNoThread) {
    const SCARDCONTEXT context = establishAndList();
    const ThreadCounter threads;
    std::vector states{unchangedHost(), readerState(kRemoteReader, SCARD_STATE_UNAWARE)};
    EXPECT_THAT(SCardGetStatusChangeA(context, 0, states.data(), 2), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(states[1].dwEventState, kFirstCard | kChanged);
    EXPECT_EQ(threads.started(), 0U);
}

TEST_F(SharedWaits, AskAHostWithoutReadersAndTheDaemonOnceForTheirLists) {
    host.pcsc().removeReader(kHostReader);
    const SCARDCONTEXT context = establishWithDaemon();
    EXPECT_CALL(host, SCardListReadersA).Times(1);
    SCARD_READERSTATEA state = readerState(kRemoteReader, SCARD_STATE_UNAWARE);
    EXPECT_THAT(SCardGetStatusChangeA(context, 0, &state, 1), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(state.dwEventState, kFirstCard | kChanged);
    EXPECT_THAT(daemon.requests(Command::kListReaders), SizeIs(1));
}

TEST_F(SharedWaits, UseNoDaemonContextThatWasMadeBeforeTheDaemonWent) {
    establishAndList();
    const SCARDCONTEXT context = establish();
    std::atomic<bool> isFirst = true;
    daemon.on(Command::kEstablishContext, [&](const Request&) -> std::optional<Reply> {
        if (isFirst.exchange(false)) {
            // The monitor sees the daemon go while the answer is still on its way.
            const std::size_t opens = transport().monitorOpens();
            daemon.closeConnection(kWatch);
            transport().waitForMonitorOpens(opens + 1);
        }
        return std::nullopt;
    });
    SCARD_READERSTATEA state = readerState(kRemoteReader, SCARD_STATE_UNAWARE);
    EXPECT_THAT(SCardGetStatusChangeA(context, 5000, &state, 1), Gives(SCARD_S_SUCCESS));
    const std::vector<Request> waits = daemon.requests(Command::kGetStatusChange);
    ASSERT_THAT(waits, SizeIs(1));
    EXPECT_THAT(daemon.requests(Command::kEstablishContext), SizeIs(2));
    EXPECT_EQ(u64At(waits[0].body, 0), kFirstRemoteContext + 2);
}

}  // namespace
}  // namespace tez::test
