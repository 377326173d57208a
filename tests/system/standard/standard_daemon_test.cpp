// With standard answers the daemon's coming and going is no error of a wait, and neither is a lost
// connection.
#include <atomic>
#include <future>
#include <optional>
#include <thread>

#include "heap_spy.h"
#include "latch.h"
#include "pipes_closed.h"
#include "remote_card_test.h"
#include "standard_calls.h"

namespace tez::test {
namespace {

using testing::_;
using testing::AnyOf;
using testing::Contains;
using testing::Return;
using testing::SizeIs;

class DaemonAndWait : public StandardTest {
  protected:
    /// Of a wait on whose every request the daemon hangs up.
    void expectGrowingPausesUntilACancel(SCARDCONTEXT context) {
        daemon.on(Command::kGetStatusChange, closing());
        const BackgroundWait wait(context, INFINITE, {unchangedHost(), unchangedRemote()});
        ASSERT_TRUE(daemon.waitForRequest(Command::kGetStatusChange, 3, kPatience));
        EXPECT_FALSE(wait.isOver(std::chrono::milliseconds(1000)));
        EXPECT_LT(remoteAsks(), 30U);
        EXPECT_THAT(SCardCancel(context), Gives(SCARD_S_SUCCESS));
        EXPECT_THAT(wait.result(), Gives(SCARD_E_CANCELLED));
    }
};

TEST_F(DaemonAndWait, ComingIsTwoReadersInsteadOfOne) {
    const SCARDCONTEXT context = establish();
    listReaders(context);
    const BackgroundWait wait(context, INFINITE,
                              {readerState(kPnpReader, count(1)), unchangedHost()});
    waitForHostWait();
    startDaemon();
    EXPECT_THAT(wait.result(), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(wait.state(0).dwEventState, count(2) | kChanged);
    EXPECT_EQ(wait.state(1).dwEventState, kFirstCard);
}

TEST_F(DaemonAndWait, ComingWithoutReadersIsNothing) {
    constexpr DWORD kTimeout = 5000;
    remote.removeReader(kRemoteReader);
    const SCARDCONTEXT context = establish();
    listReaders(context);
    const BackgroundWait wait(context, kTimeout,
                              {readerState(kPnpReader, count(1)), unchangedHost()});
    waitForHostWait();
    EXPECT_FALSE(wait.isOver(std::chrono::milliseconds(300)));
    startDaemon();
    EXPECT_THAT(wait.result(), Gives(SCARD_E_TIMEOUT));
    EXPECT_GE(wait.duration(), kTimeout - 25) << "the time-out is not cut";
    ASSERT_GE(remoteAsks(), 1U);
    EXPECT_LE(askedTimeout(remoteAsks() - 1), kTimeout - 275) << "nor begun anew";
    EXPECT_EQ(wait.state(0).dwEventState, count(1));
}

TEST_F(DaemonAndWait, GoingIsOneReaderInsteadOfTwo) {
    const SCARDCONTEXT context = establishAndList();
    const BackgroundWait wait(context, INFINITE, {readerState(kPnpReader, count(2))});
    waitForRemoteWait();
    waitForHostWait();
    stopDaemon();
    EXPECT_THAT(wait.result(), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(wait.state(0).dwEventState, count(1) | kChanged);
}

TEST_F(DaemonAndWait, GoingTakesItsReadersAway) {
    const SCARDCONTEXT context = establishAndList();
    const BackgroundWait wait(context, INFINITE, {unchangedRemote(), unchangedHost()});
    waitForRemoteWait();
    waitForHostWait();
    stopDaemon();
    EXPECT_THAT(wait.result(), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(wait.state(0).dwEventState, kGone);
    EXPECT_EQ(wait.state(0).cbAtr, 0U);
    EXPECT_EQ(wait.state(1).dwEventState, kFirstCard);
}

/// Between two passes of the monitor, which a byte from the daemon ends.
TEST_F(DaemonAndWait, GoingUnwatchedTakesItsReadersAwayToo) {
    const SCARDCONTEXT context = establishAndList();
    const BackgroundWait wait(context, INFINITE, {unchangedRemote(), unchangedHost()});
    waitForRemoteWait();
    waitForHostWait();
    const PipesClosed gone(ERROR_FILE_NOT_FOUND);
    ASSERT_TRUE(daemon.send(kWatch, {{0}}));
    closeWait();
    EXPECT_THAT(wait.result(), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(wait.state(0).dwEventState, kGone);
    EXPECT_EQ(wait.state(1).dwEventState, kFirstCard);
}

TEST_F(DaemonAndWait, ABusyPipeTakesNothingAway) {
    const SCARDCONTEXT context = establishAndList();
    const ConnectedCard card = connect(context, kRemoteReader);
    {
        const PipesClosed busy(ERROR_PIPE_BUSY);
        ASSERT_TRUE(daemon.send(kWatch, {{0}}));
        ASSERT_TRUE(eventually([&] { return busy.attempts() >= 2; }));
    }
    EXPECT_THAT(transmit(card, getChallenge()), SizeIs(10));
}

// Where a call has the only connection, and there is no other one for a moment.
TEST_F(DaemonAndWait, ABusyPipeDoesNotLeaveTheWaitToTheHost) {
    const SCARDCONTEXT context = establishAndList();
    const ConnectedCard card = connect(context, kRemoteReader);
    const Gate gate;
    daemon.on(Command::kTransmit, [gate](const Request& /*request*/) {
        gate.pass();
        return std::nullopt;
    });
    auto transmitted =
        std::async(std::launch::async, [&] { return transmit(card, getChallenge()); });
    ASSERT_TRUE(gate.waitUntilReached());
    std::optional<PipesClosed> busy(ERROR_PIPE_BUSY);
    const BackgroundWait wait(context, INFINITE, {unchangedHost(), unchangedRemote()});
    ASSERT_TRUE(eventually([&] { return busy->attempts() != 0; }));
    waitForHostWait();
    busy.reset();
    ASSERT_TRUE(daemon.waitForRequest(Command::kGetStatusChange, 1, kPatience));
    gate.open();
    EXPECT_THAT(transmitted.get(), SizeIs(10));
    EXPECT_THAT(wait.result(), Gives(SCARD_S_SUCCESS)) << "as the card is in use";
    EXPECT_NE(wait.state(1).dwEventState & SCARD_STATE_INUSE, 0U);
}

TEST_F(DaemonAndWait, AListThatIsLostDoesNotLeaveTheWaitToTheHost) {
    const SCARDCONTEXT context = establishWithDaemon();
    std::atomic<int> lists = 0;
    daemon.on(Command::kListReaders, [&](const Request& /*request*/) -> std::optional<Reply> {
        return lists++ == 0 ? std::optional(Reply::closePipe()) : std::nullopt;
    });
    const BackgroundWait wait(context, INFINITE, {unchangedHost(), unchangedRemote()});
    waitForRemoteWait();
    EXPECT_GE(lists, 2);
    remote.removeCard(kRemoteReader);
    EXPECT_THAT(wait.result(), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(wait.state(1).dwEventState, kFirstCardPulled | kChanged);
}

TEST_F(DaemonAndWait, AHostThatFailsLeavesTheWaitToTheDaemon) {
    const SCARDCONTEXT context = establishAndList();
    EXPECT_CALL(host, SCardGetStatusChangeA).WillOnce(Return(SCARD_F_COMM_ERROR));
    const BackgroundWait wait(context, INFINITE, {unchangedHost(), unchangedRemote()});
    ASSERT_TRUE(daemon.waitForRequest(Command::kGetStatusChange, 2, kPatience))
        << "once more without the host";
    EXPECT_FALSE(wait.isOver(std::chrono::milliseconds(300)));
    remote.removeCard(kRemoteReader);
    EXPECT_THAT(wait.result(), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(wait.state(1).dwEventState, kFirstCardPulled | kChanged);
    EXPECT_EQ(remoteAsks(), 2U);
}

TEST_F(DaemonAndWait, ComingAndGoingDoesNotDisturbTheHostsReadersAlone) {
    const SCARDCONTEXT context = establish();
    listReaders(context);
    EXPECT_CALL(host, SCardCancel).Times(0);
    const BackgroundWait wait(context, INFINITE, {unchangedHost()});
    waitForHostWait();
    startDaemon();
    waitForWatch();
    stopDaemon();
    EXPECT_FALSE(wait.isOver());
    host.pcsc().removeCard(kHostReader);
    EXPECT_THAT(wait.result(), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(wait.state(0).dwEventState, kFirstCardPulled | kChanged);
}

TEST_F(DaemonAndWait, ALostConnectionIsReplacedAndTheWaitGoesOn) {
    const SCARDCONTEXT context = establishAndList();
    const BackgroundWait wait(context, 60000, {unchangedHost(), unchangedRemote()});
    waitForRemoteWait();
    closeWait();
    ASSERT_TRUE(daemon.waitForRequest(Command::kGetStatusChange, 2, kPatience));
    EXPECT_FALSE(wait.isOver());
    remote.removeCard(kRemoteReader);
    EXPECT_THAT(wait.result(), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(wait.state(1).dwEventState, kFirstCardPulled | kChanged);
    EXPECT_EQ(wait.state(0).dwEventState, kFirstCard);
}

TEST_F(DaemonAndWait, ADaemonThatHangsUpOnEveryWaitIsTriedAtGrowingPausesUntilACancel) {
    expectGrowingPausesUntilACancel(establishAndList());
}

TEST_F(DaemonAndWait, AHostThatAnswersAtOnceDoesNotCutThePausesShort) {
    const SCARDCONTEXT context = establishAndList();
    ON_CALL(host, SCardGetStatusChangeA).WillByDefault(Return(SCARD_E_TIMEOUT));
    expectGrowingPausesUntilACancel(context);
}

TEST_F(DaemonAndWait, TheDaemonsRefusalOfAContextIsTheCodeOfASideThatIsAlone) {
    establishAndList();
    daemon.on(Command::kEstablishContext, refusing<EstablishLayout>(SCARD_E_NO_MEMORY));
    const BackgroundWait wait(establish(), INFINITE, {unchangedRemote()});
    EXPECT_THAT(wait.result(), Gives(SCARD_E_NO_MEMORY));
}

TEST_F(DaemonAndWait, EndsThoughTheDaemonAnswersItsFirstQuestionNot) {
    const SCARDCONTEXT context = establishWithDaemon();
    daemon.on(Command::kGetStatusChange, [](const Request&) { return Reply::silence(); });
    daemon.on(Command::kReleaseContext,
              [](const Request& request) { return Reply::of({request.body}); });
    const BackgroundWait wait(context, INFINITE, {readerState(kPnpReader, SCARD_STATE_UNAWARE)});
    ASSERT_TRUE(daemon.waitForRequest(Command::kGetStatusChange, 1, kPatience));
    EXPECT_THAT(SCardReleaseContext(context), Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(wait.result(), Gives(SCARD_E_CANCELLED));
}

TEST_F(DaemonAndWait, MakesNoNewsOfAShortageOfMemory) {
    const SCARDCONTEXT context = establishAndList();
    HeapSpy heap;
    for (std::size_t refused = 1;; ++refused) {
        std::vector states{readerState(kPnpReader, count(2)),
                           readerState(kRemoteReader, SCARD_STATE_UNAWARE)};
        heap.refuseNth(refused);
        const LONG rv = SCardGetStatusChangeA(context, 60000, states.data(), 2);
        if (!heap.stopRefusing()) {
            EXPECT_GT(refused, 10U);
            break;
        }
        EXPECT_THAT(rv, AnyOf(Gives(SCARD_S_SUCCESS), Gives(SCARD_E_NO_MEMORY))) << refused;
        if (rv == SCARD_S_SUCCESS) {
            EXPECT_EQ(states[0].dwEventState >> 16U, 2U) << refused;
            EXPECT_EQ(states[1].dwEventState, kFirstCard | kChanged) << refused;
        }
    }
}

TEST_F(DaemonAndWait, AReaderThatTheHostRefusesIsGoneThoughTheDaemonWentUnheard) {
    const SCARDCONTEXT context = establishAndList();
    const Gate gate;
    ON_CALL(host, SCardGetStatusChangeA)
        .WillByDefault([gate](SCARDCONTEXT, DWORD, LPSCARD_READERSTATEA, DWORD) {
            gate.pass();
            return SCARD_E_UNKNOWN_READER;
        });
    const BackgroundWait wait(context, INFINITE, {unchangedHost()});
    ASSERT_TRUE(gate.waitUntilReached());
    stopDaemon();
    host.pcsc().removeReader(kHostReader);
    gate.open();
    EXPECT_THAT(wait.result(), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(wait.state(0).dwEventState, kGone);
}

TEST_F(DaemonAndWait, EndsThoughItBeganWhileItsContextWasBeingReleased) {
    const SCARDCONTEXT context = establishAndList();
    EXPECT_THAT(beginWaitInRelease(context).result(), Gives(SCARD_E_CANCELLED));
}

TEST_F(DaemonAndWait, AContextKeepsTheHostsPartThatItGetsWhileTheDaemonMakesIts) {
    ON_CALL(host, SCardEstablishContext).WillByDefault(Return(SCARD_E_NO_SERVICE));
    const SCARDCONTEXT context = establishWithDaemon();
    Latch hostIsThere(1);
    daemon.on(Command::kEstablishContext, [&](const Request&) -> std::optional<Reply> {
        hostIsThere.wait();
        return std::nullopt;
    });
    std::thread listing([&] { listReaders(context); });
    ASSERT_TRUE(daemon.waitForRequest(Command::kEstablishContext, 1, kPatience));
    ON_CALL(host, SCardEstablishContext)
        .WillByDefault([this](DWORD scope, LPCVOID first, LPCVOID second, LPSCARDCONTEXT made) {
            return host.service().SCardEstablishContext(scope, first, second, made);
        });
    EXPECT_TRUE(daemon.send(kWatch, {{0}}));
    EXPECT_TRUE(transport().waitForWatches(2));
    hostIsThere.countDown();
    listing.join();
    EXPECT_THAT(listReaders(context), Contains(kHostReader));
}

TEST_F(DaemonAndWait, TheHostIsHeardWhileTheDaemonHangsUpOnEveryWait) {
    const SCARDCONTEXT context = establishAndList();
    std::atomic<bool> isHostAskedInPauses = false;
    ON_CALL(host, SCardGetStatusChangeA)
        .WillByDefault(
            [&](SCARDCONTEXT system, DWORD timeout, LPSCARD_READERSTATEA states, DWORD number) {
                isHostAskedInPauses = isHostAskedInPauses || (timeout != 0 && timeout != INFINITE);
                return host.service().SCardGetStatusChangeA(system, timeout, states, number);
            });
    daemon.on(Command::kGetStatusChange, closing());
    std::vector<ULONGLONG> delays;
    for (int round = 0; round < 3; ++round) {
        daemon.clearRecords();
        const BackgroundWait wait(context, INFINITE, {unchangedHost(), unchangedRemote()});
        ASSERT_TRUE(daemon.waitForRequest(Command::kGetStatusChange, 7, kPatience));
        EXPECT_FALSE(wait.isOver(std::chrono::milliseconds(100)))
            << "the pause is of 1280 ms by now";
        const ULONGLONG begin = GetTickCount64();
        host.pcsc().removeCard(kHostReader);
        EXPECT_THAT(wait.result(), Gives(SCARD_S_SUCCESS));
        delays.push_back(GetTickCount64() - begin);
        EXPECT_EQ(wait.state(0).dwEventState & 0xFFFF, SCARD_STATE_EMPTY | kChanged);
        EXPECT_EQ(wait.state(1).dwEventState, DWORD{SCARD_STATE_PRESENT});
        host.pcsc().insertCard(kHostReader, makeDemoCard(kHostCardHolder));
    }
    EXPECT_LT(median(delays), kSoon);
    EXPECT_TRUE(isHostAskedInPauses);
}

}  // namespace
}  // namespace tez::test
