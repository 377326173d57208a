// The pseudo-reader of SCardGetStatusChangeA: both sides wait on it, each with the count of its own
// readers, and the application gets the sum.
#include "daemon_records.h"
#include "status_waits.h"

namespace tez::test {
namespace {

using testing::_;
using testing::Contains;

constexpr const char* kSecondHostReader = "Host Reader 1";
/// What a count is to leave alone.
constexpr DWORD kOtherBits = SCARD_STATE_IGNORE | SCARD_STATE_UNKNOWN;

class PseudoReader : public StatusChangeTest {
  protected:
    /// The event state after a wait in which each side reports what the test says.
    DWORD merged(DWORD given, DWORD remoteEvent, DWORD hostEvent) {
        const SCARDCONTEXT context = establishAndList();
        answerRemotely(remoteEvent);
        answerOnHost(hostEvent);
        SCARD_READERSTATEA state = readerState(kPnpReader, count(7), given);
        SCardGetStatusChangeA(context, 0, &state, 1);
        return state.dwEventState;
    }

    void answerRemotely(DWORD event) {
        daemon.on(Command::kGetStatusChange, [event](const Request& request) {
            Bytes readers = bytesAt(request.body, StatusChangeLayout::kSize,
                                    request.body.size() - StatusChangeLayout::kSize);
            putU32(readers, ReaderStateLayout::kEvent, static_cast<std::uint32_t>(event));
            return Reply::of({bytesAt(request.body, 0, StatusChangeLayout::kSize), readers});
        });
    }

    void answerOnHost(DWORD event) {
        ON_CALL(host, SCardGetStatusChangeA)
            .WillByDefault(
                [event](SCARDCONTEXT, DWORD, LPSCARD_READERSTATEA states, DWORD) -> LONG {
                    states->dwEventState = event;
                    return SCARD_S_SUCCESS;
                });
    }

    /// The counts that daemon and host are given for the application's, with two host readers and
    /// one remote reader in the call besides.
    std::pair<DWORD, DWORD> countsGiven(DWORD applicationCount) {
        host.pcsc().addReader(kSecondHostReader);
        const SCARDCONTEXT context = establishAndList();
        DWORD given = 0;
        EXPECT_CALL(host, SCardGetStatusChangeA(_, _, _, 3))
            .WillOnce([&](SCARDCONTEXT, DWORD, LPSCARD_READERSTATEA states, DWORD) -> LONG {
                given = states[0].dwCurrentState;
                return SCARD_E_TIMEOUT;
            });
        std::vector states{readerState(kPnpReader, count(applicationCount) | kOtherBits),
                           unchangedHost(), readerState(kSecondHostReader, SCARD_STATE_EMPTY),
                           unchangedRemote()};
        SCardGetStatusChangeA(context, 0, states.data(), 4);
        const std::vector<Request> requests = daemon.requests(Command::kGetStatusChange);
        EXPECT_EQ(requests.size(), 1U);
        EXPECT_EQ(u32At(requests.at(0).body, StatusChangeLayout::kReaders), 2U);
        EXPECT_EQ(
            textAt(requests.at(0).body, StatusChangeLayout::kSize, ReaderStateLayout::kCurrent),
            kPnpReader);
        EXPECT_EQ(states[0].dwCurrentState, count(applicationCount) | kOtherBits);
        return {u32At(requests.at(0).body, StatusChangeLayout::kSize + ReaderStateLayout::kCurrent),
                given};
    }
};

TEST_F(PseudoReader, HasEachSidesCountWithoutTheOthersReaders) {
    EXPECT_EQ(countsGiven(5), std::make_pair(count(3) | kOtherBits, count(4) | kOtherBits));
}

TEST_F(PseudoReader, KeepsACountThatIsNotAboveTheReduction) {
    EXPECT_EQ(countsGiven(1), std::make_pair(count(1) | kOtherBits, count(1) | kOtherBits));
}

TEST_F(PseudoReader, KeepsACountThatEqualsTheReductionOfOneSide) {
    EXPECT_EQ(countsGiven(2), std::make_pair(count(2) | kOtherBits, count(1) | kOtherBits));
}

TEST_F(PseudoReader, SumsTheCountsOfAnUnchangedSystem) {
    const SCARDCONTEXT context = establishAndList();
    std::vector states{readerState(kPnpReader, count(2)), unchangedHost(), unchangedRemote()};
    EXPECT_THAT(SCardGetStatusChangeA(context, 0, states.data(), 3), Gives(SCARD_E_TIMEOUT));
    EXPECT_EQ(states[0].dwEventState, count(2));
}

TEST_F(PseudoReader, EndsAWaitWhenARemoteReaderComes) {
    const SCARDCONTEXT context = establishAndList();
    const BackgroundWait wait(
        context, INFINITE, {readerState(kPnpReader, count(2)), unchangedHost(), unchangedRemote()});
    waitForRemoteWait();
    waitForHostWait();
    remote.addReader("Remote Reader 1");
    EXPECT_THAT(wait.result(), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(wait.state(0).dwEventState, count(3) | SCARD_STATE_CHANGED);
}

TEST_F(PseudoReader, EndsAWaitWhenAHostReaderGoes) {
    host.pcsc().addReader(kSecondHostReader);
    const SCARDCONTEXT context = establishAndList();
    const BackgroundWait wait(
        context, INFINITE,
        {readerState(kPnpReader, count(3)), unchangedHost(),
         readerState(kSecondHostReader, SCARD_STATE_EMPTY), unchangedRemote()});
    waitForRemoteWait();
    waitForHostWait();
    host.pcsc().removeReader(kSecondHostReader);
    EXPECT_THAT(wait.result(), Gives(SCARD_S_SUCCESS));
    // Both sides answer with their one reader; the host's change is flagged.
    EXPECT_EQ(wait.state(0).dwEventState, count(2) | SCARD_STATE_CHANGED);
    EXPECT_GE(remoteCancels(), 1U);  // on a busy machine it may be repeated
}

TEST_F(PseudoReader, HasTheFlagsOfBothSidesAndTheSumOfTheirCounts) {
    EXPECT_EQ(merged(0xFFFFFFFF, count(2) | SCARD_STATE_UNKNOWN | kChanged, count(3) | kChanged),
              count(5) | SCARD_STATE_UNKNOWN | kChanged);
}

TEST_F(PseudoReader, CountsTheStateGivenToTheHostWhenTheHostReportsNothing) {
    EXPECT_EQ(merged(0, count(1) | kChanged, 0), count(8) | kChanged);
}

TEST_F(PseudoReader, CountsTheStateGivenToTheHostWhenTheHostReportsThatOne) {
    EXPECT_EQ(merged(0, count(1) | kChanged, count(7)), count(8) | kChanged);
}

TEST_F(PseudoReader, TakesTheCurrentStateFromARemoteAnswerWithoutAnEvent) {
    EXPECT_EQ(merged(0xFFFFFFFF, 0, count(1) | kChanged), count(8) | kChanged);
}

TEST_F(PseudoReader, IsAddedToWhatTheApplicationPassedWhileTheDaemonIsAway) {
    const SCARDCONTEXT context = establish();
    answerOnHost(count(2) | kChanged);
    SCARD_READERSTATEA state = readerState(kPnpReader, count(1), count(5) | SCARD_STATE_UNKNOWN);
    EXPECT_THAT(SCardGetStatusChangeA(context, 0, &state, 1), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(state.dwEventState, count(7) | SCARD_STATE_UNKNOWN | kChanged);
}

TEST_F(PseudoReader, IsAddedToWhatTheApplicationPassedWhenTheDaemonFails) {
    const SCARDCONTEXT context = establishAndList();
    daemon.on(Command::kGetStatusChange, closing());
    answerOnHost(count(2) | kChanged);
    SCARD_READERSTATEA state = readerState(kPnpReader, count(1), count(5) | SCARD_STATE_UNKNOWN);
    EXPECT_THAT(SCardGetStatusChangeA(context, 0, &state, 1), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(state.dwEventState, count(7) | SCARD_STATE_UNKNOWN | kChanged);
}

TEST_F(PseudoReader, KeepsItsAtrFieldsAsTheDaemonLeftThem) {
    const SCARDCONTEXT context = establishAndList();
    ON_CALL(host, SCardGetStatusChangeA)
        .WillByDefault([](SCARDCONTEXT, DWORD, LPSCARD_READERSTATEA states, DWORD) -> LONG {
            states->cbAtr = 3;
            states->rgbAtr[0] = 0xAB;
            return SCARD_S_SUCCESS;
        });
    SCARD_READERSTATEA state = readerState(kPnpReader, SCARD_STATE_UNAWARE);
    EXPECT_THAT(SCardGetStatusChangeA(context, 0, &state, 1), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(state.cbAtr, 0U);
    EXPECT_EQ(state.rgbAtr[0], 0);
}

TEST_F(PseudoReader, CostsOneExchangeForEachPollWithAZeroStateAndTimeout) {
    const SCARDCONTEXT context = establishAndList();
    EXPECT_CALL(host, SCardGetStatusChangeA(_, 0, _, 1)).Times(10);
    const std::uint64_t connections = daemon.acceptedConnections();
    for (int call = 0; call < 10; ++call) {
        SCARD_READERSTATEA state = readerState(kPnpReader, SCARD_STATE_UNAWARE);
        EXPECT_THAT(SCardGetStatusChangeA(context, 0, &state, 1), Gives(SCARD_S_SUCCESS));
        EXPECT_EQ(state.dwEventState, count(2) | SCARD_STATE_CHANGED);
    }
    EXPECT_EQ(daemon.requests().size(), 10U);
    EXPECT_EQ(daemon.requests(Command::kGetStatusChange).size(), 10U);
    EXPECT_EQ(daemon.acceptedConnections(), connections);
}

}  // namespace
}  // namespace tez::test
