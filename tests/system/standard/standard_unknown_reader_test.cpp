// With standard answers a reader that no side has is told at once, or waited for by who knows that.
#include "standard_calls.h"

namespace tez::test {
namespace {

using testing::Return;

constexpr const char* kNewReader = "New Reader";

class UnknownReader : public StandardTest {
  protected:
    void refuseRemoteWaits() {
        daemon.on(Command::kGetStatusChange, [](const Request& request) {
            Bytes record = bytesAt(request.body, 0, StatusChangeLayout::kSize);
            putU32(record, StatusChangeLayout::kReaders, 0);
            putU32(record, StatusChangeLayout::kResult,
                   static_cast<std::uint32_t>(SCARD_E_UNKNOWN_READER));
            return Reply::of({record});
        });
    }
};

TEST_F(UnknownReader, IsToldAtOnceAsOneThatIsNoMore) {
    const SCARDCONTEXT context = establishAndList();
    std::vector states{readerState(kNewReader, SCARD_STATE_EMPTY), unchangedHost(),
                       unchangedRemote()};
    states[0].cbAtr = 5;
    EXPECT_THAT(SCardGetStatusChangeA(context, INFINITE, states.data(), 3), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(states[0].dwEventState, kGone);
    EXPECT_EQ(states[0].cbAtr, 0U);
    EXPECT_EQ(states[1].dwEventState, kFirstCard);
    EXPECT_EQ(states[2].dwEventState, kFirstCard);
    EXPECT_EQ(daemon.requests(Command::kListReaders).size(), 1U) << "one fresh list";
}

TEST_F(UnknownReader, IsFoundByTheFreshList) {
    const SCARDCONTEXT context = establishAndList();
    remote.addReader(kNewReader);
    SCARD_READERSTATEA state = readerState(kNewReader, SCARD_STATE_UNAWARE);
    EXPECT_THAT(SCardGetStatusChangeA(context, INFINITE, &state, 1), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(state.dwEventState & 0xFFFF, SCARD_STATE_EMPTY | kChanged);
}

TEST_F(UnknownReader, ThatIsKnownToBeAwayIsWaitedForAtTheDaemon) {
    const SCARDCONTEXT context = establishAndList();
    const BackgroundWait wait(context, INFINITE, {readerState(kNewReader, SCARD_STATE_UNKNOWN)});
    waitForRemoteWait();
    waitForHostWait();
    remote.addReader("Some Other Reader");
    EXPECT_FALSE(wait.isOver(std::chrono::milliseconds(100)));
    remote.addReader(kNewReader);
    EXPECT_THAT(wait.result(), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(wait.state(0).dwEventState & 0xFFFF, SCARD_STATE_EMPTY | kChanged);
}

TEST_F(UnknownReader, ThatIsKnownToBeAwayIsWaitedForAtTheHost) {
    const SCARDCONTEXT context = establishAndList();
    const BackgroundWait wait(context, 60000,
                              {readerState(kNewReader, SCARD_STATE_UNKNOWN), unchangedRemote()});
    waitForRemoteWait();
    waitForHostWait();
    host.pcsc().addReader(kNewReader);
    EXPECT_THAT(wait.result(), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(wait.state(0).dwEventState & 0xFFFF, SCARD_STATE_EMPTY | kChanged);
    EXPECT_EQ(wait.state(1).dwEventState, kFirstCard);
}

TEST_F(UnknownReader, ComesWithTheDaemon) {
    const SCARDCONTEXT context = establish();
    const BackgroundWait wait(context, INFINITE, {readerState(kRemoteReader, SCARD_STATE_UNKNOWN)});
    waitForHostWait();
    startDaemon();
    EXPECT_THAT(wait.result(), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(wait.state(0).dwEventState, kFirstCard | kChanged);
}

TEST_F(UnknownReader, ThatIsIgnoredIsNotWaitedFor) {
    const SCARDCONTEXT context = establishAndList();
    std::vector states{readerState(kNewReader, SCARD_STATE_UNKNOWN | SCARD_STATE_IGNORE)};
    EXPECT_THAT(SCardGetStatusChangeA(context, 50, states.data(), 1), Gives(SCARD_E_TIMEOUT));
    EXPECT_EQ(states[0].dwEventState, DWORD{SCARD_STATE_IGNORE});
    EXPECT_EQ(daemon.requests().size(), 0U);
}

TEST_F(UnknownReader, ThatItsSideRefusesIsLookedForOnceMore) {
    const SCARDCONTEXT context = establishAndList();
    remote.removeReader(kRemoteReader);
    refuseRemoteWaits();
    SCARD_READERSTATEA state = unchangedRemote();
    EXPECT_THAT(SCardGetStatusChangeA(context, 0, &state, 1), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(state.dwEventState, kGone);
}

TEST_F(UnknownReader, ThatTheHostRefusesIsToldThoughTheDaemonWaits) {
    const SCARDCONTEXT context = establishAndList();
    host.pcsc().removeReader(kHostReader);
    ON_CALL(host, SCardGetStatusChangeA).WillByDefault(Return(SCARD_E_UNKNOWN_READER));
    const BackgroundWait wait(context, INFINITE, {unchangedHost(), unchangedRemote()});
    EXPECT_THAT(wait.result(), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(wait.state(0).dwEventState, kGone);
    EXPECT_EQ(wait.state(1).dwEventState, kFirstCard);
}

TEST_F(UnknownReader, ThatTheDaemonRefusesIsToldThoughTheHostWaits) {
    const SCARDCONTEXT context = establishAndList();
    remote.removeReader(kRemoteReader);
    refuseRemoteWaits();
    const BackgroundWait wait(context, INFINITE, {unchangedHost(), unchangedRemote()});
    EXPECT_THAT(wait.result(), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(wait.state(0).dwEventState, kFirstCard);
    EXPECT_EQ(wait.state(1).dwEventState, kGone);
}

TEST_F(UnknownReader, ThatItsSideRefusesForeverIsTheCodeOfTheCall) {
    const SCARDCONTEXT context = establishAndList();
    refuseRemoteWaits();
    SCARD_READERSTATEA state = unchangedRemote();
    EXPECT_THAT(SCardGetStatusChangeA(context, INFINITE, &state, 1), Gives(SCARD_E_UNKNOWN_READER));
    EXPECT_EQ(remoteAsks(), 3U);
}

}  // namespace
}  // namespace tez::test
