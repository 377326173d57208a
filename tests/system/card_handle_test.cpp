// The numbers that the application gets for its connections.
#include "remote_card_test.h"

namespace tez::test {
namespace {

using testing::_;
using testing::DoAll;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Return;
using testing::SetArgPointee;
using testing::SizeIs;

using CardHandleTest = RemoteCardTest;

TEST_F(CardHandleTest, CountFromOneForBothSidesWhateverContextsThereAre) {
    establishContext();
    establish();
    const SCARDCONTEXT third = establish();
    EXPECT_EQ(third, 3U);
    EXPECT_EQ(connect(third, kHostReader).handle, 1U);
    EXPECT_EQ(connect(third, kRemoteReader).handle, 2U);
    EXPECT_EQ(connect(context, kHostReader).handle, 3U);
}

TEST_F(CardHandleTest, DifferForEveryConnectionToAReader) {
    establishContext();
    const ConnectedCard first = connect(context, kRemoteReader);
    const ConnectedCard second = connect(context, kRemoteReader);
    EXPECT_NE(first.handle, second.handle);
    daemon.clearRecords();
    EXPECT_THAT(SCardDisconnect(second.handle, SCARD_LEAVE_CARD), Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(SCardDisconnect(first.handle, SCARD_LEAVE_CARD), Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(daemon.requests(),
                ElementsAre(IsRequest(Command::kDisconnect, disconnectRecord(kDaemonCard + 1, 0)),
                            IsRequest(Command::kDisconnect, disconnectRecord(kDaemonCard, 0))));
}

TEST_F(CardHandleTest, AreNotUsedAgainAfterADisconnect) {
    connectCard();
    ASSERT_THAT(SCardDisconnect(card.handle, SCARD_LEAVE_CARD), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(connect(context, kRemoteReader).handle, 2U);
}

TEST_F(CardHandleTest, OfTheHostStayThereWhenTheDaemonComes) {
    context = establish();
    card = connect(context, kHostReader);
    startDaemon();
    waitForWatch();
    EXPECT_CALL(host, SCardBeginTransaction(kHostCard));
    EXPECT_THAT(SCardBeginTransaction(card.handle), Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(daemon.requests(), IsEmpty());
}

TEST_F(CardHandleTest, OfTheHostStayThereWhenTheDaemonGoes) {
    establishContext();
    card = connect(context, kHostReader);
    stopDaemon();
    EXPECT_CALL(host, SCardBeginTransaction(kHostCard));
    EXPECT_THAT(SCardBeginTransaction(card.handle), Gives(SCARD_S_SUCCESS));
}

TEST_F(CardHandleTest, OfTheDaemonGoToTheDaemonThoughTheHostHasTheReaderToo) {
    remote.addReader(kHostReader);
    remote.insertCard(kHostReader, makeDemoCard(kRemoteCardHolder));
    establishContext();
    EXPECT_CALL(host, SCardConnectA(_, _, _, _, _, _)).WillOnce(Return(SCARD_E_SHARING_VIOLATION));
    card = connect(context, kHostReader);
    EXPECT_CALL(host, SCardBeginTransaction(_)).Times(0);
    EXPECT_THAT(SCardBeginTransaction(card.handle), Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(daemon.requests(Command::kBeginTransaction), SizeIs(1));
}

TEST_F(CardHandleTest, StandForHandlesOfTheHostOfFullWidth) {
    establishContext();
    constexpr SCARDHANDLE kWide = 0xFEDCBA98'76543210;
    EXPECT_CALL(host, SCardConnectA(_, _, _, _, _, _))
        .WillOnce(DoAll(SetArgPointee<4>(kWide), Return(SCARD_S_SUCCESS)));
    card = connect(context, kHostReader);
    EXPECT_EQ(card.handle, 1U);
    EXPECT_CALL(host, SCardDisconnect(kWide, _)).WillOnce(Return(SCARD_S_SUCCESS));
    EXPECT_THAT(SCardDisconnect(card.handle, SCARD_LEAVE_CARD), Gives(SCARD_S_SUCCESS));
}

TEST_F(CardHandleTest, AreOfUseNoLongerThanTheirContext) {
    connectCard();
    const SCARDCONTEXT other = establish();
    const ConnectedCard kept = connect(other, kRemoteReader);
    ASSERT_THAT(SCardReleaseContext(context), Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(SCardBeginTransaction(card.handle), Gives(SCARD_E_INVALID_HANDLE));
    EXPECT_THAT(SCardBeginTransaction(kept.handle), Gives(SCARD_S_SUCCESS));
}

TEST_F(CardHandleTest, AreFoundAmongManyMore) {
    establishContext();
    // More than the registry has buckets, and of both sides.
    std::vector<ConnectedCard> cards;
    for (int i = 0; i < 150; ++i) {
        cards.push_back(connect(context, i % 2 == 0 ? kHostReader : kRemoteReader));
        ASSERT_EQ(cards.back().handle, static_cast<SCARDHANDLE>(i) + 1);
    }
    daemon.clearRecords();
    EXPECT_CALL(host, SCardBeginTransaction(kHostCard)).WillOnce(Return(SCARD_E_NOT_TRANSACTED));
    EXPECT_THAT(SCardBeginTransaction(cards[0].handle), Gives(SCARD_E_NOT_TRANSACTED));
    EXPECT_CALL(host, SCardBeginTransaction(kHostCard + 74))
        .WillOnce(Return(SCARD_E_NOT_TRANSACTED));
    EXPECT_THAT(SCardBeginTransaction(cards[148].handle), Gives(SCARD_E_NOT_TRANSACTED));
    EXPECT_THAT(SCardDisconnect(cards[149].handle, SCARD_LEAVE_CARD), Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(SCardDisconnect(cards[1].handle, SCARD_LEAVE_CARD), Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(daemon.requests(),
                ElementsAre(IsRequest(Command::kDisconnect, disconnectRecord(kDaemonCard + 74, 0)),
                            IsRequest(Command::kDisconnect, disconnectRecord(kDaemonCard, 0))));
}

}  // namespace
}  // namespace tez::test
