// SCardCancel: both sides are cancelled, whatever becomes of the other.
#include <thread>

#include "failing_writes.h"
#include "remote_card_test.h"

namespace tez::test {
namespace {

using testing::_;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Return;
using testing::SizeIs;

class CancelTest : public RemoteCardTest {
  protected:
    static RecordBytes cancelRecord() {
        return RecordBytes(HandleLayout::kSize).u64(HandleLayout::kHandle, kDaemonContext);
    }
};

TEST_F(CancelTest, CancelsBothSides) {
    connectCard();
    EXPECT_CALL(host, SCardCancel(kHostContext));
    EXPECT_THAT(SCardCancel(context), Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(daemon.requests(), ElementsAre(IsRequest(Command::kCancel, cancelRecord())));
    EXPECT_THAT(log().messages("SCardCancel"),
                ElementsAre("CANCEL IN-PARAMS: 1", "CANCEL RV: 0x00000000"));
}

TEST_F(CancelTest, EstablishesTheDaemonsContextWhenThereIsNoneYet) {
    establishContext();
    EXPECT_THAT(SCardCancel(context), Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(daemon.requests(), ElementsAre(IsRequest(Command::kEstablishContext,
                                                         RecordBytes(EstablishLayout::kSize)),
                                               IsRequest(Command::kCancel, cancelRecord())));
}

TEST_F(CancelTest, KnowsOnlyContextsOfItsOwn) {
    establishContext();
    EXPECT_CALL(host, SCardCancel(_)).Times(0);
    for (const SCARDCONTEXT unknown : {SCARDCONTEXT{0}, context + 1, kHostContext}) {
        EXPECT_THAT(SCardCancel(unknown), Gives(SCARD_E_INVALID_HANDLE));
    }
    EXPECT_THAT(daemon.requests(), IsEmpty());
    EXPECT_THAT(log().messages("SCardCancel"),
                ElementsAre("CANCEL IN-PARAMS: 0", "CANCEL RV: 0x80100003", "CANCEL IN-PARAMS: 2",
                            "CANCEL RV: 0x80100003", "CANCEL IN-PARAMS: 7a000001",
                            "CANCEL RV: 0x80100003"));
}

TEST_F(CancelTest, ReturnsTheHostsResultWithoutADaemon) {
    context = establish();
    EXPECT_CALL(host, SCardCancel(kHostContext))
        .WillOnce(Return(SCARD_S_SUCCESS))
        .WillOnce(Return(SCARD_E_INVALID_VALUE));
    EXPECT_THAT(SCardCancel(context), Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(SCardCancel(context), Gives(SCARD_E_INVALID_VALUE));
    EXPECT_EQ(daemon.acceptedConnections(), 0U);
}

TEST_F(CancelTest, ReturnsTheHostsResultAfterTheDaemonHasGone) {
    connectCard();
    stopDaemon();
    EXPECT_CALL(host, SCardCancel(kHostContext))
        .WillOnce(Return(SCARD_S_SUCCESS))
        .WillOnce(Return(SCARD_E_INVALID_VALUE));
    EXPECT_THAT(SCardCancel(context), Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(SCardCancel(context), Gives(SCARD_E_INVALID_VALUE));
}

TEST_F(CancelTest, TakesADaemonThatHangsUpForOneThatIsAway) {
    connectCard();
    daemon.on(Command::kCancel, closing());
    EXPECT_CALL(host, SCardCancel(kHostContext));
    EXPECT_THAT(SCardCancel(context), Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(log().messages("SCardCancel", 'W'), ElementsAre("Failed to receive data"));
}

TEST_F(CancelTest, TakesADaemonThatCannotBeReachedForOneThatIsAway) {
    connectCard();
    EXPECT_CALL(host, SCardCancel(kHostContext)).WillOnce(Return(SCARD_E_INVALID_VALUE));
    const FailingWrites broken([](DWORD /*size*/) { return true; });
    EXPECT_THAT(SCardCancel(context), Gives(SCARD_E_INVALID_VALUE));
    EXPECT_THAT(log().messages("SCardCancel", 'W'), ElementsAre("Failed to send header"));
}

TEST_F(CancelTest, TakesADaemonThatSaysNoServiceForOneThatIsAway) {
    connectCard();
    daemon.on(Command::kCancel, refusing<HandleLayout>(SCARD_E_NO_SERVICE));
    EXPECT_CALL(host, SCardCancel(kHostContext));
    EXPECT_THAT(SCardCancel(context), Gives(SCARD_S_SUCCESS));
}

TEST_F(CancelTest, KeepsTheDaemonsErrorAndCancelsTheHostAllTheSame) {
    connectCard();
    daemon.on(Command::kCancel, refusing<HandleLayout>(SCARD_E_INVALID_HANDLE));
    EXPECT_CALL(host, SCardCancel(kHostContext))
        .WillOnce(Return(SCARD_S_SUCCESS))
        .WillOnce(Return(SCARD_E_INVALID_VALUE));
    EXPECT_THAT(SCardCancel(context), Gives(SCARD_E_INVALID_HANDLE));
    EXPECT_THAT(SCardCancel(context), Gives(SCARD_E_INVALID_HANDLE));
}

TEST_F(CancelTest, ReturnsTheHostsErrorAfterTheDaemonsSuccess) {
    connectCard();
    EXPECT_CALL(host, SCardCancel(kHostContext)).WillOnce(Return(SCARD_E_INVALID_VALUE));
    EXPECT_THAT(SCardCancel(context), Gives(SCARD_E_INVALID_VALUE));
    EXPECT_THAT(daemon.requests(), SizeIs(1));
}

TEST_F(CancelTest, KeepsTheErrorOfADaemonThatGivesNoContext) {
    establishContext();
    daemon.on(Command::kEstablishContext, refusing<EstablishLayout>(SCARD_E_NO_MEMORY));
    EXPECT_CALL(host, SCardCancel(kHostContext));
    EXPECT_THAT(SCardCancel(context), Gives(SCARD_E_NO_MEMORY));
    EXPECT_THAT(daemon.requests(Command::kCancel), IsEmpty());
}

TEST_F(CancelTest, UsesAConnectionOfItsOwnWhileOtherCallsWait) {
    connectCard();
    ASSERT_TRUE(remote.holdCommands(kRemoteReader));
    std::jthread transmitting([&] { transmit(card, getChallenge()); });
    ASSERT_TRUE(remote.waitForHeldCommands(1, kPatience));
    EXPECT_THAT(SCardCancel(context), Gives(SCARD_S_SUCCESS));
    EXPECT_NE(daemon.requests(Command::kCancel).at(0).connection,
              daemon.requests(Command::kTransmit).at(0).connection);
    ASSERT_TRUE(remote.releaseCommands(kRemoteReader));
}

}  // namespace
}  // namespace tez::test
