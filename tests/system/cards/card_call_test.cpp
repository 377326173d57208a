// What all calls on a card handle have in common: which side they go to, and what becomes of them
// when that side is not there.
#include "card_calls.h"
#include "failing_writes.h"
#include "remote_card_test.h"

namespace tez::test {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

using CardCallTest = RemoteCardTest;

TEST_F(CardCallTest, EveryCallGoesThroughToTheRemoteCard) {
    connectCard();
    for (const CardCall& call : allCardCalls()) {
        SCOPED_TRACE(call.function);
        EXPECT_THAT(call.make(card.handle), Gives(SCARD_S_SUCCESS));
        EXPECT_THAT(daemon.requests(call.command), SizeIs(1));
        EXPECT_THAT(log().messages(call.function, 'D'), Contains(call.word + " RV: 0x00000000"));
        EXPECT_THAT(log().messages(call.function, 'W'), IsEmpty());
    }
}

TEST_F(CardCallTest, EveryCallUsesTheSameIdleConnection) {
    connectCard();
    const std::size_t opens = transport().opens();
    for (const CardCall& call : allCardCalls()) {
        SCOPED_TRACE(call.function);
        EXPECT_THAT(call.make(card.handle), Gives(SCARD_S_SUCCESS));
    }
    EXPECT_EQ(transport().opens(), opens);
}

TEST_F(CardCallTest, EveryCallReturnsTheDaemonsResultUnchanged) {
    connectCard();
    const std::size_t opens = transport().opens();
    for (const CardCall& call : allCardCalls()) {
        SCOPED_TRACE(call.function);
        daemon.on(call.command, answering(call.recordSize, {{call.resultOffset, 0xC0FFEE01}}));
        EXPECT_THAT(call.make(card.handle), Gives(static_cast<LONG>(0xC0FFEE01)));
        EXPECT_THAT(log().messages(call.function, 'D'), Contains(call.word + " RV: 0xC0FFEE01"));
    }
    EXPECT_EQ(transport().opens(), opens);
}

TEST_F(CardCallTest, NoCallKnowsAHandleThatWasNotIssued) {
    connectCard();
    for (const CardCall& call : allCardCalls()) {
        SCOPED_TRACE(call.function);
        for (const SCARDHANDLE unknown :
             {SCARDHANDLE{0}, SCARDHANDLE{2}, SCARDHANDLE{kDaemonCard}, SCARDHANDLE{kHostCard}}) {
            EXPECT_THAT(call.make(unknown), Gives(SCARD_E_INVALID_HANDLE));
        }
        EXPECT_THAT(log().messages(call.function, 'D'), Contains(call.word + " RV: 0x80100003"));
    }
    EXPECT_THAT(daemon.requests(), IsEmpty());
}

TEST_F(CardCallTest, NoCallReachesARemoteCardWhileTheDaemonIsAway) {
    connectCard();
    stopDaemon();
    for (const CardCall& call : allCardCalls()) {
        SCOPED_TRACE(call.function);
        EXPECT_THAT(call.make(card.handle), Gives(SCARD_E_INVALID_HANDLE));
    }
    EXPECT_THAT(daemon.requests(), IsEmpty());
}

TEST_F(CardCallTest, NoCallButStatusIsSentForAContextThatWasReleased) {
    connectCard();
    ASSERT_THAT(SCardReleaseContext(context), Gives(SCARD_S_SUCCESS));
    daemon.clearRecords();
    for (const CardCall& call : allCardCalls()) {
        SCOPED_TRACE(call.function);
        EXPECT_THAT(call.make(card.handle), Gives(SCARD_E_INVALID_HANDLE));
        EXPECT_THAT(daemon.requests(call.command),
                    SizeIs(call.command == Command::kStatus ? 1U : 0U));
    }
}

TEST_F(CardCallTest, EveryCallWarnsWhenTheDaemonHangsUpInsteadOfAnswering) {
    connectCard();
    for (const CardCall& call : allCardCalls()) {
        SCOPED_TRACE(call.function);
        daemon.on(call.command, closing());
        EXPECT_THAT(call.make(card.handle), Gives(SCARD_E_NO_SERVICE));
        EXPECT_THAT(log().messages(call.function, 'W'), ElementsAre("Failed to receive data"));
        // The pipe was closed, and the next call opens it again.
        daemon.restore(call.command);
        EXPECT_THAT(call.make(card.handle), Gives(SCARD_S_SUCCESS));
    }
}

TEST_F(CardCallTest, EveryCallWarnsWhenTheDaemonHangsUpInTheMiddleOfItsRecord) {
    connectCard();
    for (const CardCall& call : allCardCalls()) {
        SCOPED_TRACE(call.function);
        daemon.on(call.command, answeringAndClosing(call.recordSize - 1, {}));
        EXPECT_THAT(call.make(card.handle), Gives(SCARD_E_NO_SERVICE));
        EXPECT_THAT(log().messages(call.function, 'W'), ElementsAre("Failed to receive data"));
        daemon.restore(call.command);
        EXPECT_THAT(call.make(card.handle), Gives(SCARD_S_SUCCESS));
    }
}

TEST_F(CardCallTest, EveryCallWarnsWhenItsHeaderCannotBeSent) {
    connectCard();
    for (const CardCall& call : allCardCalls()) {
        SCOPED_TRACE(call.function);
        {
            const FailingWrites broken([](DWORD /*size*/) { return true; });
            EXPECT_THAT(call.make(card.handle), Gives(SCARD_E_NO_SERVICE));
        }
        EXPECT_THAT(log().messages(call.function, 'W'), ElementsAre("Failed to send header"));
        // What follows finds a connection that is open again.
        EXPECT_THAT(call.make(card.handle), Gives(SCARD_S_SUCCESS));
    }
    EXPECT_THAT(daemon.requests(Command::kDisconnect), SizeIs(1));
}

}  // namespace
}  // namespace tez::test
