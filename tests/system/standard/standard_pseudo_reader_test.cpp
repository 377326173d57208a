// With standard answers the pseudo-reader's state is the present number of readers of both sides,
// and one that the application knows is waited on.
#include <atomic>

#include "daemon_records.h"
#include "standard_calls.h"
#include "wide_text.h"

namespace tez::test {
namespace {

using testing::Return;

constexpr const char* kSecondHostReader = "Host Reader 1";
constexpr const char* kSecondRemoteReader = "Remote Reader 1";

class StandardPseudoReader : public StandardTest {
  protected:
    /// Waits on the pseudo-reader alone, with both sides inside of it.
    BackgroundWait waitOnPseudoReader(SCARDCONTEXT context, DWORD told) {
        BackgroundWait wait(context, INFINITE, {readerState(kPnpReader, told)});
        waitForRemoteWait();
        waitForHostWait();
        return wait;
    }
};

TEST_F(StandardPseudoReader, TellsAContextThatWasToldNothingAtOnce) {
    const SCARDCONTEXT context = establishWithDaemon();
    EXPECT_EQ(pseudoReader(context, 0, SCARD_S_SUCCESS), count(2) | kChanged);
    EXPECT_EQ(pseudoReader(context, 0, SCARD_E_TIMEOUT), count(2)) << "nothing is told twice";
}

TEST_F(StandardPseudoReader, TellsThatThereAreNoReaders) {
    remote.removeReader(kRemoteReader);
    host.pcsc().removeReader(kHostReader);
    const SCARDCONTEXT context = establishWithDaemon();
    EXPECT_EQ(pseudoReader(context, 0, SCARD_S_SUCCESS), 0U);
    EXPECT_EQ(pseudoReader(context, 0, SCARD_E_TIMEOUT), 0U);
    remote.addReader(kRemoteReader);
    EXPECT_EQ(pseudoReader(context, 0, SCARD_S_SUCCESS), count(1) | kChanged);
}

TEST_F(StandardPseudoReader, BlocksWithTheCountThatItToldAndDoesNotAddItUp) {
    const SCARDCONTEXT context = establishAndList();
    DWORD told = pseudoReader(context, count(1), SCARD_S_SUCCESS);
    EXPECT_EQ(told, count(2) | kChanged);
    daemon.clearRecords();
    const BackgroundWait wait = waitOnPseudoReader(context, told);
    EXPECT_FALSE(wait.isOver(std::chrono::milliseconds(50)));
    ASSERT_EQ(remoteAsks(), 1U) << "the count is known";
    EXPECT_EQ(u32At(daemon.requests(Command::kGetStatusChange).front().body,
                    StatusChangeLayout::kSize + ReaderStateLayout::kCurrent),
              count(1))
        << "each side is told its own";
    remote.addReader(kSecondRemoteReader);
    EXPECT_THAT(wait.result(), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(wait.state(0).dwEventState, count(3) | kChanged);
    EXPECT_EQ(wait.state(0).cbAtr, 0U);
}

TEST_F(StandardPseudoReader, TellsTheSumOfTheMomentToAnApplicationThatKnowsAnotherOne) {
    const SCARDCONTEXT context = establishAndList();
    EXPECT_EQ(pseudoReader(context, count(7), SCARD_S_SUCCESS), count(2) | kChanged);
    EXPECT_EQ(pseudoReader(context, count(2) | 0x6, SCARD_E_TIMEOUT), count(2));
}

TEST_F(StandardPseudoReader, BelievesAnApplicationThatKnowsTheSumOfTheMoment) {
    const SCARDCONTEXT context = establishAndList();
    remote.addReader(kSecondRemoteReader);
    EXPECT_EQ(pseudoReader(context, count(3), SCARD_E_TIMEOUT), count(3));
}

TEST_F(StandardPseudoReader, MakesNoCountUpWhenASideEndsBeforeItHasTold) {
    const SCARDCONTEXT context = establishWithDaemon();
    EXPECT_CALL(host, SCardGetStatusChangeA)
        .WillOnce(Return(SCARD_E_CANCELLED))
        .WillOnce(Return(SCARD_E_CANCELLED))
        .WillOnce(Return(SCARD_E_CANCELLED))
        .WillRepeatedly(
            [this](SCARDCONTEXT system, DWORD timeout, LPSCARD_READERSTATEA states, DWORD number) {
                return host.service().SCardGetStatusChangeA(system, timeout, states, number);
            });
    const BackgroundWait wait(context, 60000, {readerState(kPnpReader, SCARD_STATE_UNAWARE)});
    EXPECT_THAT(wait.result(), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(wait.state(0).dwEventState, count(2) | kChanged);
}

TEST_F(StandardPseudoReader, MakesNoCountUpWhenAnotherReaderEndsTheCall) {
    establishAndList();
    const SCARDCONTEXT context = establish();  // was told of no readers yet
    daemon.on(Command::kGetStatusChange, closing());
    std::vector states{readerState(kPnpReader, count(2)),
                       readerState(kHostReader, SCARD_STATE_UNAWARE)};
    EXPECT_THAT(SCardGetStatusChangeA(context, 0, states.data(), 2), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(states[0].dwEventState, count(2)) << "the daemon has not told its own";
    EXPECT_EQ(states[1].dwEventState, kFirstCard | kChanged);
}

TEST_F(StandardPseudoReader, TellsAtOnceThatTheHostsReadersWentWithItsService) {
    const SCARDCONTEXT context = establishAndList();
    EXPECT_EQ(pseudoReader(context, count(2), SCARD_E_TIMEOUT), count(2));
    daemon.clearRecords();
    const Gate gate;
    ON_CALL(host, SCardGetStatusChangeA)
        .WillByDefault([gate](SCARDCONTEXT, DWORD, LPSCARD_READERSTATEA, DWORD) {
            gate.pass();
            return SCARD_E_SERVICE_STOPPED;
        });
    const BackgroundWait wait(context, INFINITE, {readerState(kPnpReader, count(2))});
    waitForRemoteWait();
    gate.open();
    EXPECT_THAT(wait.result(), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(wait.state(0).dwEventState, count(1) | kChanged);
}

TEST_F(StandardPseudoReader, ComparesTheNamesThoughTheDaemonIsLostAtFirst) {
    const SCARDCONTEXT context = establishAndList();
    remote.removeReader(kRemoteReader);
    remote.addReader(kSecondRemoteReader);
    std::atomic<bool> isFirst = true;
    daemon.on(Command::kListReaders, [&isFirst](const Request& request) {
        if (isFirst.exchange(false)) {
            return Reply::closePipe();
        }
        const std::string names = std::string(kSecondRemoteReader) + std::string(2, '\0');
        Bytes record = request.body;
        putU32(record, ListLayout::kLength, static_cast<std::uint32_t>(names.size()));
        return Reply::of({record, Bytes(names.begin(), names.end())});
    });
    const BackgroundWait wait(context, 60000, {readerState(kPnpReader, SCARD_STATE_UNAWARE)});
    EXPECT_THAT(wait.result(), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(wait.state(0).dwEventState, count(2) | kChanged);
}

TEST_F(StandardPseudoReader, ComparesAStateOfZeroWithTheListThatWasHandedOut) {
    const SCARDCONTEXT context = establishAndList();
    EXPECT_EQ(pseudoReader(context, SCARD_STATE_UNAWARE, SCARD_E_TIMEOUT), count(2));
    listReaders(context);
    remote.addReader(kSecondRemoteReader);
    EXPECT_EQ(pseudoReader(context, 0x2, SCARD_S_SUCCESS), count(3) | kChanged);
}

TEST_F(StandardPseudoReader, SeesBehindAListThatOneReaderCameForAnother) {
    const SCARDCONTEXT context = establishAndList();
    remote.removeReader(kRemoteReader);
    remote.addReader(kSecondRemoteReader);
    EXPECT_EQ(pseudoReader(context, 0, SCARD_S_SUCCESS), count(2) | kChanged);
    EXPECT_EQ(pseudoReader(context, 0, SCARD_E_TIMEOUT), count(2));
}

TEST_F(StandardPseudoReader, IsToldNothingByTheLengthOfAList) {
    const SCARDCONTEXT context = establishWithDaemon();
    DWORD length = 0;
    EXPECT_THAT(SCardListReadersA(context, nullptr, nullptr, &length), Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(SCardListReadersW(context, nullptr, nullptr, &length), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(pseudoReader(context, 0, SCARD_S_SUCCESS), count(2) | kChanged);
}

TEST_F(StandardPseudoReader, IsToldTheReadersByAWideList) {
    const SCARDCONTEXT context = establishWithDaemon();
    wchar_t readers[256];
    DWORD length = 256;
    EXPECT_THAT(SCardListReadersW(context, nullptr, readers, &length), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(pseudoReader(context, 0, SCARD_E_TIMEOUT), count(2));
}

TEST_F(StandardPseudoReader, IsToldThatThereAreNoReadersByTheList) {
    remote.removeReader(kRemoteReader);
    host.pcsc().removeReader(kHostReader);
    const SCARDCONTEXT context = establishWithDaemon();
    auto length = SCARD_AUTOALLOCATE;
    LPSTR readers = nullptr;
    EXPECT_THAT(SCardListReadersA(context, nullptr, reinterpret_cast<LPSTR>(&readers), &length),
                Gives(SCARD_E_NO_READERS_AVAILABLE));
    EXPECT_EQ(pseudoReader(context, 0, SCARD_E_TIMEOUT), 0U);
    host.pcsc().addReader(kHostReader);
    EXPECT_EQ(pseudoReader(context, 0, SCARD_S_SUCCESS), count(1) | kChanged);
}

TEST_F(StandardPseudoReader, KeepsApartWhatItsContextsWereTold) {
    const SCARDCONTEXT first = establishAndList();
    const SCARDCONTEXT second = establish();
    EXPECT_EQ(pseudoReader(first, 0, SCARD_E_TIMEOUT), count(2));
    EXPECT_EQ(pseudoReader(second, 0, SCARD_S_SUCCESS), count(2) | kChanged);
}

TEST_F(StandardPseudoReader, TakesASidesCountFromItsPseudoReaderAndNotFromItsList) {
    // A host that counts a reader which it does not list.
    ON_CALL(host, SCardListReadersA)
        .WillByDefault([this](SCARDCONTEXT, LPCSTR, LPSTR readers, LPDWORD length) {
            return host.heap().deliver(multiString({kHostReader}), readers, length);
        });
    host.pcsc().addReader(kSecondHostReader);
    const SCARDCONTEXT context = establishAndList();
    EXPECT_EQ(pseudoReader(context, 0, SCARD_E_TIMEOUT), count(3));
    const BackgroundWait wait = waitOnPseudoReader(context, count(3));
    EXPECT_FALSE(wait.isOver(std::chrono::milliseconds(50)));
    host.pcsc().removeReader(kSecondHostReader);
    EXPECT_THAT(wait.result(), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(wait.state(0).dwEventState, count(2) | kChanged);
}

TEST_F(StandardPseudoReader, CostsOneRequestForEachPollOfAnUnchangedSystem) {
    const SCARDCONTEXT context = establishAndList();
    pseudoReader(context, 0, SCARD_E_TIMEOUT);
    daemon.clearRecords();
    for (int poll = 0; poll < 10; ++poll) {
        EXPECT_EQ(pseudoReader(context, 0, SCARD_E_TIMEOUT), count(2));
    }
    EXPECT_EQ(daemon.requests().size(), 10U);
}

}  // namespace
}  // namespace tez::test
