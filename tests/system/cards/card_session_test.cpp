// SCardReconnect, SCardDisconnect, SCardBeginTransaction and SCardEndTransaction.
#include <future>

#include "log_text.h"
#include "remote_card_test.h"

namespace tez::test {
namespace {

using testing::_;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Return;

class CardSessionTest : public RemoteCardTest {
  protected:
    /// As connectCard, with the host's card.
    void connectHostCard() {
        establishContext();
        card = connect(context, kHostReader);
        daemon.clearRecords();
    }

    static RecordBytes reconnectRecord(std::uint32_t shareMode, std::uint32_t protocols,
                                       std::uint32_t initialization) {
        return RecordBytes(ReconnectLayout::kSize)
            .u64(ReconnectLayout::kCard, kDaemonCard)
            .u32(ReconnectLayout::kShareMode, shareMode)
            .u32(ReconnectLayout::kProtocols, protocols)
            .u32(ReconnectLayout::kInitialization, initialization);
    }

    DWORD protocol = 0xDEAD;
};

TEST_F(CardSessionTest, ReconnectSendsItsRecordAndStoresTheProtocol) {
    connectCard();
    EXPECT_THAT(SCardReconnect(card.handle, SCARD_SHARE_EXCLUSIVE, SCARD_PROTOCOL_T1,
                               SCARD_UNPOWER_CARD, &protocol),
                Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(daemon.requests(),
                ElementsAre(IsRequest(Command::kReconnect, reconnectRecord(1, 2, 2))));
    EXPECT_EQ(protocol, DWORD{SCARD_PROTOCOL_T1});
    EXPECT_THAT(log().messages("SCardReconnect"),
                ElementsAre("RECONNECT IN-PARAMS: 1, 1, 2, 2, " + logged(&protocol),
                            "RECONNECT OUT-PARAMS: 1, 2", "RECONNECT RV: 0x00000000"));
}

TEST_F(CardSessionTest, ReconnectConvertsTheRawProtocolInBothDirections) {
    connectCard();
    daemon.on(Command::kReconnect,
              answering(ReconnectLayout::kSize, {{ReconnectLayout::kActiveProtocol, 6}}));
    EXPECT_THAT(SCardReconnect(card.handle, SCARD_SHARE_DIRECT, SCARD_PROTOCOL_RAW,
                               SCARD_LEAVE_CARD, &protocol),
                Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(daemon.requests(),
                ElementsAre(IsRequest(Command::kReconnect, reconnectRecord(3, 4, 0))));
    EXPECT_EQ(protocol, DWORD{SCARD_PROTOCOL_RAW | SCARD_PROTOCOL_T1});
}

TEST_F(CardSessionTest, ReconnectNeedsAPlaceForTheProtocolOfARemoteCard) {
    connectCard();
    EXPECT_THAT(SCardReconnect(card.handle, SCARD_SHARE_SHARED, SCARD_PROTOCOL_Tx, SCARD_LEAVE_CARD,
                               nullptr),
                Gives(SCARD_E_INVALID_PARAMETER));
    EXPECT_THAT(daemon.requests(), IsEmpty());
}

TEST_F(CardSessionTest, AFailedReconnectLeavesTheCallersProtocolAlone) {
    connectCard();
    daemon.on(Command::kReconnect,
              answering(ReconnectLayout::kSize, {{ReconnectLayout::kActiveProtocol, 1},
                                                 {ReconnectLayout::kResult, 0x8010000B}}));
    EXPECT_THAT(SCardReconnect(card.handle, SCARD_SHARE_SHARED, SCARD_PROTOCOL_Tx, SCARD_LEAVE_CARD,
                               &protocol),
                Gives(SCARD_E_SHARING_VIOLATION));
    EXPECT_EQ(protocol, 0xDEADU);
    EXPECT_THAT(log().messages("SCardReconnect"), ElementsAre(_, "RECONNECT RV: 0x8010000B"));
}

TEST_F(CardSessionTest, ReconnectOfAHostCardGoesToTheHostUnchanged) {
    connectHostCard();
    EXPECT_CALL(host, SCardReconnect(kHostCard, 7, 0x10002, 5, &protocol))
        .WillOnce([](SCARDHANDLE, DWORD, DWORD, DWORD, LPDWORD active) {
            *active = SCARD_PROTOCOL_RAW;
            return SCARD_S_SUCCESS;
        });
    EXPECT_THAT(SCardReconnect(card.handle, 7, 0x10002, 5, &protocol), Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(daemon.requests(), IsEmpty());
    EXPECT_THAT(log().messages("SCardReconnect"),
                ElementsAre(_, "RECONNECT OUT-PARAMS: 1, 65536", "RECONNECT RV: 0x00000000"));
}

TEST_F(CardSessionTest, ReconnectOfAHostCardReturnsTheHostsError) {
    connectHostCard();
    EXPECT_CALL(host, SCardReconnect(kHostCard, _, _, _, nullptr))
        .WillOnce(Return(SCARD_W_UNPOWERED_CARD));
    EXPECT_THAT(SCardReconnect(card.handle, SCARD_SHARE_SHARED, SCARD_PROTOCOL_Tx, SCARD_LEAVE_CARD,
                               nullptr),
                Gives(SCARD_W_UNPOWERED_CARD));
    EXPECT_THAT(daemon.requests(), IsEmpty());
}

TEST_F(CardSessionTest, DisconnectSendsItsRecordAndForgetsTheHandle) {
    connectCard();
    EXPECT_THAT(SCardDisconnect(card.handle, SCARD_EJECT_CARD), Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(SCardDisconnect(card.handle, SCARD_EJECT_CARD), Gives(SCARD_E_INVALID_HANDLE));
    EXPECT_THAT(daemon.requests(),
                ElementsAre(IsRequest(Command::kDisconnect,
                                      disconnectRecord(kDaemonCard, SCARD_EJECT_CARD))));
    EXPECT_THAT(log().messages("SCardDisconnect"),
                ElementsAre("DISCONNECT IN-PARAMS: 1, 3", "DISCONNECT RV: 0x00000000",
                            "DISCONNECT IN-PARAMS: 1, 3", "DISCONNECT RV: 0x80100003"));
}

TEST_F(CardSessionTest, ARefusedDisconnectKeepsTheHandle) {
    connectCard();
    daemon.on(Command::kDisconnect, refusing<DispositionLayout>(SCARD_E_INVALID_VALUE));
    EXPECT_THAT(SCardDisconnect(card.handle, 99), Gives(SCARD_E_INVALID_VALUE));
    daemon.on(Command::kDisconnect, closing());
    EXPECT_THAT(SCardDisconnect(card.handle, SCARD_LEAVE_CARD), Gives(SCARD_E_NO_SERVICE));
    daemon.restore(Command::kDisconnect);
    EXPECT_THAT(SCardDisconnect(card.handle, SCARD_LEAVE_CARD), Gives(SCARD_S_SUCCESS));
}

TEST_F(CardSessionTest, DisconnectOfAHostCardLeavesTheHandleToTheHostsJudgement) {
    connectHostCard();
    EXPECT_CALL(host, SCardDisconnect(kHostCard, DWORD{SCARD_RESET_CARD})).Times(2);
    EXPECT_THAT(SCardDisconnect(card.handle, SCARD_RESET_CARD), Gives(SCARD_S_SUCCESS));
    // The host has closed the card, but the handle is still known: this is the host's answer.
    EXPECT_THAT(SCardDisconnect(card.handle, SCARD_RESET_CARD), Gives(SCARD_E_INVALID_HANDLE));
    EXPECT_CALL(host, SCardBeginTransaction(kHostCard)).WillOnce(Return(SCARD_E_NOT_TRANSACTED));
    EXPECT_THAT(SCardBeginTransaction(card.handle), Gives(SCARD_E_NOT_TRANSACTED));
    EXPECT_THAT(daemon.requests(), IsEmpty());
}

TEST_F(CardSessionTest, TransactionsBeginAndEndWithARecordEach) {
    connectCard();
    EXPECT_THAT(SCardBeginTransaction(card.handle), Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(SCardEndTransaction(card.handle, SCARD_RESET_CARD), Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(
        daemon.requests(),
        ElementsAre(
            IsRequest(Command::kBeginTransaction,
                      RecordBytes(HandleLayout::kSize).u64(HandleLayout::kHandle, kDaemonCard)),
            IsRequest(Command::kEndTransaction, disconnectRecord(kDaemonCard, SCARD_RESET_CARD))));
    EXPECT_THAT(log().messages("SCardBeginTransaction"),
                ElementsAre("BEGIN_TRANSACTION IN-PARAMS: 1", "BEGIN_TRANSACTION RV: 0x00000000"));
    EXPECT_THAT(log().messages("SCardEndTransaction"),
                ElementsAre("END_TRANSACTION IN-PARAMS: 1, 1", "END_TRANSACTION RV: 0x00000000"));
}

TEST_F(CardSessionTest, TransactionsOnAHostCardGoToTheHost) {
    connectHostCard();
    EXPECT_CALL(host, SCardBeginTransaction(kHostCard)).WillOnce(Return(SCARD_W_RESET_CARD));
    EXPECT_CALL(host, SCardEndTransaction(kHostCard, 9)).WillOnce(Return(SCARD_E_INVALID_VALUE));
    EXPECT_THAT(SCardBeginTransaction(card.handle), Gives(SCARD_W_RESET_CARD));
    EXPECT_THAT(SCardEndTransaction(card.handle, 9), Gives(SCARD_E_INVALID_VALUE));
    EXPECT_THAT(daemon.requests(), IsEmpty());
}

TEST_F(CardSessionTest, ATransactionKeepsAnotherConnectionWaiting) {
    connectCard();
    const ConnectedCard other = connect(context, kRemoteReader);
    ASSERT_THAT(SCardBeginTransaction(card.handle), Gives(SCARD_S_SUCCESS));
    auto waiting =
        std::async(std::launch::async, [&] { return SCardBeginTransaction(other.handle); });
    EXPECT_TRUE(remote.waitForTransactionWaits(1, kPatience));
    EXPECT_THAT(SCardEndTransaction(card.handle, SCARD_LEAVE_CARD), Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(waiting.get(), Gives(SCARD_S_SUCCESS));
}

}  // namespace
}  // namespace tez::test
