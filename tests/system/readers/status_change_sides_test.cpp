// SCardGetStatusChangeA over both sides at once: which change ends it, and what it returns.
#include <ostream>

#include "status_waits.h"

namespace tez::test {
namespace {

using testing::_;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Return;

using StatusChangeSides = StatusChangeTest;

TEST_F(StatusChangeSides, EndAnUnboundedWaitWhenARemoteCardGoes) {
    const SCARDCONTEXT context = establishAndList();
    EXPECT_CALL(host, SCardCancel(kFirstHostContext)).Times(testing::AtLeast(1));
    const BackgroundWait wait = waitOnBothSides(context);
    EXPECT_FALSE(wait.isOver());
    remote.removeCard(kRemoteReader);
    EXPECT_THAT(wait.result(), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(wait.state(0).dwEventState, kFirstCard);
    EXPECT_EQ(wait.state(1).dwEventState, kFirstCardPulled | kChanged);
    EXPECT_EQ(wait.state(1).cbAtr, 0U);
    EXPECT_EQ(log().count(kStatusChange, kCancelLocal), 1U);
    EXPECT_THAT(log().entries(), Contains(LogLine('D', kStatusChange, kCancelLocal)));
    EXPECT_THAT(log().messages(kStatusChange), Contains("localRv: 0x80100002"));
    EXPECT_EQ(remoteCancels(), 0U);
}

TEST_F(StatusChangeSides, EndAnUnboundedWaitWhenARemoteCardComes) {
    remote.removeCard(kRemoteReader);
    const SCARDCONTEXT context = establishAndList();
    const BackgroundWait wait(context, INFINITE,
                              {unchangedHost(), readerState(kRemoteReader, SCARD_STATE_EMPTY)});
    waitForRemoteWait();
    waitForHostWait();
    const VirtualCard card = makeDemoCard(kRemoteCardHolder);
    remote.insertCard(kRemoteReader, card);
    EXPECT_THAT(wait.result(), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(wait.state(1).dwEventState, kSecondCard | kChanged);
    EXPECT_EQ(wait.state(1).cbAtr, card.atr().size());
    EXPECT_EQ(Bytes(wait.state(1).rgbAtr, wait.state(1).rgbAtr + card.atr().size()), card.atr());
}

TEST_F(StatusChangeSides, EndAnUnboundedWaitWhenAHostCardGoes) {
    const SCARDCONTEXT context = establishAndList();
    EXPECT_CALL(host, SCardCancel).Times(0);
    const BackgroundWait wait = waitOnBothSides(context);
    host.pcsc().removeCard(kHostReader);
    EXPECT_THAT(wait.result(), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(wait.state(0).dwEventState, kFirstCardPulled | kChanged);
    EXPECT_EQ(wait.state(1).dwEventState, kFirstCard);
    EXPECT_EQ(log().count(kLocalStatusChange, kCancelRemote), 1U);
    EXPECT_THAT(log().entries(), Contains(LogLine('D', kLocalStatusChange, kCancelRemote)));
    EXPECT_THAT(log().messages("setContextCancelled"),
                Contains("Setting ContextCancelled 7a000001 to 1"));
    EXPECT_THAT(log().messages(kStatusChange), Contains("intermediate rv: 0x80100002"));
}

TEST_F(StatusChangeSides, SendACancelToTheDaemonWhenAHostCardGoes) {
    const SCARDCONTEXT context = establishAndList();
    const BackgroundWait wait = waitOnBothSides(context);
    host.pcsc().removeCard(kHostReader);
    EXPECT_THAT(wait.result(), Gives(SCARD_S_SUCCESS));
    const std::vector<Request> cancels = daemon.requests(Command::kCancel);
    ASSERT_GE(cancels.size(), 1U);  // on a busy machine it may be repeated
    EXPECT_THAT(cancels[0].header, ElementsAre(12, 0, 0, 0, 13, 0, 0, 0, 0, 0, 0, 0));
    EXPECT_THAT(cancels[0].body, ElementsAre(1, 0, 0, 0, 5, 0, 0, 0, 0, 0, 0, 0));
    // Not on the connection that carries the wait, and that one stays open for the next call.
    EXPECT_NE(cancels[0].connection, daemon.requests(Command::kGetStatusChange)[0].connection);
}

TEST_F(StatusChangeSides, EndAnUnboundedWaitWhenAHostCardComes) {
    host.pcsc().removeCard(kHostReader);
    const SCARDCONTEXT context = establishAndList();
    const BackgroundWait wait(context, INFINITE,
                              {readerState(kHostReader, SCARD_STATE_EMPTY), unchangedRemote()});
    waitForRemoteWait();
    waitForHostWait();
    const VirtualCard card = makeDemoCard(kHostCardHolder);
    host.pcsc().insertCard(kHostReader, card);
    EXPECT_THAT(wait.result(), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(wait.state(0).dwEventState, kSecondCard | kChanged);
    EXPECT_EQ(Bytes(wait.state(0).rgbAtr, wait.state(0).rgbAtr + wait.state(0).cbAtr), card.atr());
}

TEST_F(StatusChangeSides, CancelEachOtherAtMostOnceWhenBothHaveAChange) {
    const SCARDCONTEXT context = establishAndList();
    const BackgroundWait wait = waitOnBothSides(context);
    host.pcsc().removeCard(kHostReader);
    remote.removeCard(kRemoteReader);
    EXPECT_THAT(wait.result(), Gives(SCARD_S_SUCCESS));
    EXPECT_LE(
        log().count(kStatusChange, kCancelLocal) + log().count(kLocalStatusChange, kCancelRemote),
        1U);
    EXPECT_NE((wait.state(0).dwEventState | wait.state(1).dwEventState) & SCARD_STATE_CHANGED, 0U);
}

TEST_F(StatusChangeSides, LetABoundedWaitReturnWhenBothHave) {
    const SCARDCONTEXT context = establishAndList();
    EXPECT_CALL(host, SCardCancel).Times(0);
    std::vector states{unchangedHost(), readerState(kRemoteReader, SCARD_STATE_UNAWARE)};
    const ULONGLONG start = GetTickCount64();
    EXPECT_THAT(SCardGetStatusChangeA(context, 200, states.data(), 2), Gives(SCARD_S_SUCCESS));
    EXPECT_GE(GetTickCount64() - start, 190U);
    EXPECT_EQ(states[1].dwEventState, kFirstCard | kChanged);
    EXPECT_THAT(log().messages(kStatusChange), Contains("localRv: 0x8010000A"));
}

TEST_F(StatusChangeSides, LetABoundedWaitWithAHostChangeReturnWhenBothHave) {
    const SCARDCONTEXT context = establishAndList();
    std::vector states{readerState(kHostReader, SCARD_STATE_UNAWARE), unchangedRemote()};
    const ULONGLONG start = GetTickCount64();
    EXPECT_THAT(SCardGetStatusChangeA(context, 200, states.data(), 2), Gives(SCARD_S_SUCCESS));
    EXPECT_GE(GetTickCount64() - start, 190U);
    EXPECT_EQ(states[0].dwEventState, kFirstCard | kChanged);
    EXPECT_EQ(remoteCancels(), 0U);
    EXPECT_THAT(log().messages(kStatusChange), Contains("intermediate rv: 0x8010000A"));
}

TEST_F(StatusChangeSides, AreAskedOneBehindTheOtherByACallThatDoesNotWait) {
    const SCARDCONTEXT context = establishAndList();
    std::size_t askedBefore = kUntouched;
    EXPECT_CALL(host, SCardGetStatusChangeA)
        .WillOnce(
            [&](SCARDCONTEXT system, DWORD timeout, LPSCARD_READERSTATEA states, DWORD count) {
                askedBefore = daemon.requests(Command::kGetStatusChange).size();
                return host.service().SCardGetStatusChangeA(system, timeout, states, count);
            });
    const BackgroundWait wait(context, 0, {unchangedHost(), unchangedRemote()});
    EXPECT_THAT(wait.result(), Gives(SCARD_E_TIMEOUT));
    EXPECT_EQ(askedBefore, 0U) << "the host first";
    EXPECT_EQ(daemon.requests(Command::kGetStatusChange).size(), 1U);
}

TEST_F(StatusChangeSides, TimeOutTogether) {
    const SCARDCONTEXT context = establishAndList();
    std::vector states{unchangedHost(), unchangedRemote()};
    EXPECT_THAT(SCardGetStatusChangeA(context, 50, states.data(), 2), Gives(SCARD_E_TIMEOUT));
    EXPECT_EQ(states[0].dwEventState, kFirstCard);
    EXPECT_EQ(states[1].dwEventState, kFirstCard);
    EXPECT_THAT(log().messages(kStatusChange), Contains("GET_STATUS_CHANGE RV: 0x8010000A"));
}

TEST_F(StatusChangeSides, LetARemoteTimeoutBeASuccessWhenNoHostReaderIsInTheCall) {
    const SCARDCONTEXT context = establishAndList();
    EXPECT_CALL(host, SCardGetStatusChangeA).Times(0);
    SCARD_READERSTATEA state = unchangedRemote();
    EXPECT_THAT(SCardGetStatusChangeA(context, 20, &state, 1), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(state.dwEventState, kFirstCard);
    EXPECT_THAT(log().messages(kStatusChange), Contains("intermediate rv: 0x8010000A"));
}

TEST_F(StatusChangeSides, AskTheDaemonNothingForHostReadersAlone) {
    const SCARDCONTEXT context = establishAndList();
    const BackgroundWait wait(context, INFINITE, {unchangedHost()});
    waitForHostWait();
    ASSERT_TRUE(eventually([this] {
        return log().count(kStatusChange, "intermediate rv: 0x00000000") == 1;
    })) << "the daemon's half, which nothing is asked for";
    host.pcsc().removeCard(kHostReader);
    EXPECT_THAT(wait.result(), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(wait.state(0).dwEventState, kFirstCardPulled | kChanged);
    EXPECT_THAT(daemon.requests(), IsEmpty());
    EXPECT_EQ(log().count(kLocalStatusChange, kCancelRemote), 0U);
}

TEST_F(StatusChangeSides, CopyWhatTheHostReportsWhateverItsResult) {
    const SCARDCONTEXT context = establishAndList();
    EXPECT_CALL(host, SCardGetStatusChangeA(kFirstHostContext, 77, _, 1))
        .WillOnce([](SCARDCONTEXT, DWORD, LPSCARD_READERSTATEA states, DWORD) -> LONG {
            states->dwEventState = 0x1234;
            states->cbAtr = 36;
            std::fill(std::begin(states->rgbAtr), std::end(states->rgbAtr), BYTE{0xE7});
            return SCARD_E_READER_UNAVAILABLE;
        });
    SCARD_READERSTATEA state = unchangedHost();
    state.dwEventState = 0xFFFF;
    EXPECT_THAT(SCardGetStatusChangeA(context, 77, &state, 1), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(state.dwEventState, 0x1234U);
    EXPECT_EQ(state.cbAtr, 36U);
    EXPECT_EQ(Bytes(std::begin(state.rgbAtr), std::end(state.rgbAtr)), Bytes(36, 0xE7));
}

TEST_F(StatusChangeSides, HandTheHostWholeCopiesOfItsEntriesOnly) {
    const SCARDCONTEXT context = establishAndList();
    SCARD_READERSTATEA given = unchangedHost();
    given.pvUserData = &given;
    given.dwEventState = 0x4242;
    given.cbAtr = 5;
    given.rgbAtr[35] = 0x99;
    std::vector states{unchangedRemote(), given};
    EXPECT_CALL(host, SCardGetStatusChangeA(_, _, _, 1))
        .WillOnce([&](SCARDCONTEXT, DWORD, LPSCARD_READERSTATEA copies, DWORD) -> LONG {
            EXPECT_NE(copies, &states[1]);
            EXPECT_STREQ(copies->szReader, kHostReader);
            EXPECT_EQ(copies->pvUserData, &given);
            EXPECT_EQ(copies->dwCurrentState, static_cast<DWORD>(SCARD_STATE_PRESENT));
            EXPECT_EQ(copies->dwEventState, 0x4242U);
            EXPECT_EQ(copies->cbAtr, 5U);
            EXPECT_EQ(copies->rgbAtr[35], 0x99);
            return SCARD_E_TIMEOUT;
        });
    SCardGetStatusChangeA(context, 0, states.data(), 2);
}

struct Codes {
    LONG local;
    LONG remote;
    LONG expected;
};

void PrintTo(const Codes& codes, std::ostream* stream) {
    *stream << std::hex << static_cast<DWORD>(codes.local) << " and "
            << static_cast<DWORD>(codes.remote) << std::dec;
}

class StatusChangeCodes : public StatusChangeTest, public testing::WithParamInterface<Codes> {};

TEST_P(StatusChangeCodes, OfBothSidesMakeTheResult) {
    const SCARDCONTEXT context = establishAndList();
    EXPECT_CALL(host, SCardGetStatusChangeA).WillOnce(Return(GetParam().local));
    daemon.on(Command::kGetStatusChange, [](const Request& request) {
        Bytes record = bytesAt(request.body, 0, StatusChangeLayout::kSize);
        putU32(record, StatusChangeLayout::kReaders, 0);
        putU32(record, StatusChangeLayout::kResult, static_cast<std::uint32_t>(GetParam().remote));
        return Reply::of({record});
    });
    std::vector states{unchangedHost(), unchangedRemote()};
    EXPECT_THAT(SCardGetStatusChangeA(context, 0, states.data(), 2), Gives(GetParam().expected));
}

INSTANTIATE_TEST_SUITE_P(
    While, StatusChangeCodes,
    testing::Values(Codes{SCARD_S_SUCCESS, SCARD_S_SUCCESS, SCARD_S_SUCCESS},
                    Codes{SCARD_S_SUCCESS, SCARD_E_TIMEOUT, SCARD_S_SUCCESS},
                    Codes{SCARD_S_SUCCESS, SCARD_E_CANCELLED, SCARD_S_SUCCESS},
                    Codes{SCARD_S_SUCCESS, SCARD_E_INVALID_HANDLE, SCARD_S_SUCCESS},
                    Codes{SCARD_E_TIMEOUT, SCARD_S_SUCCESS, SCARD_S_SUCCESS},
                    Codes{SCARD_E_CANCELLED, SCARD_S_SUCCESS, SCARD_S_SUCCESS},
                    Codes{SCARD_E_TIMEOUT, SCARD_E_UNKNOWN_READER, SCARD_E_UNKNOWN_READER},
                    Codes{SCARD_E_UNKNOWN_READER, SCARD_E_TIMEOUT, SCARD_E_TIMEOUT},
                    Codes{SCARD_E_INVALID_HANDLE, SCARD_E_CANCELLED, SCARD_E_CANCELLED}),
    [](const auto& test) { return "Pair" + std::to_string(test.index); });

class StatusChangeHostCode : public StatusChangeTest, public testing::WithParamInterface<LONG> {};

TEST_P(StatusChangeHostCode, IsTheResultWhileTheDaemonIsAway) {
    const SCARDCONTEXT context = establish();
    listReaders(context);
    EXPECT_CALL(host, SCardGetStatusChangeA).WillOnce(Return(GetParam()));
    SCARD_READERSTATEA state = unchangedHost();
    EXPECT_THAT(SCardGetStatusChangeA(context, 0, &state, 1), Gives(GetParam()));
}

INSTANTIATE_TEST_SUITE_P(Each, StatusChangeHostCode,
                         testing::Values(SCARD_S_SUCCESS, SCARD_E_TIMEOUT, SCARD_E_CANCELLED,
                                         SCARD_E_UNKNOWN_READER),
                         [](const auto& test) { return "Code" + std::to_string(test.index); });

}  // namespace
}  // namespace tez::test
