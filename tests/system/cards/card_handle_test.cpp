// The numbers that the application gets for its connections.
#include <functional>
#include <map>

#include "call_catalogue.h"
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
    // The daemon is asked, which has left the card as it was.
    daemon.clearRecords();
    EXPECT_THAT(SCardBeginTransaction(kept.handle), Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(daemon.requests(Command::kBeginTransaction), SizeIs(1));
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

/// Counts how often the library takes each of its locks, alone or shared, on the test's thread.
class LockSpy {
  public:
    /// How often a call takes each lock.
    std::map<PSRWLOCK, int> locksOf(const std::function<void()>& call) {
        counts_.clear();
        call();
        return std::move(counts_);
    }

  private:
    void note(PSRWLOCK lock) {
        if (GetCurrentThreadId() == thread_) {
            ++counts_[lock];
        }
    }

    const DWORD thread_ = GetCurrentThreadId();
    std::map<PSRWLOCK, int> counts_;
    ImportPatch<decltype(::AcquireSRWLockExclusive)> exclusive_{
        libraryModule(), "KERNEL32.dll", "AcquireSRWLockExclusive", [this](PSRWLOCK lock) {
            note(lock);
            ::AcquireSRWLockExclusive(lock);
        }};
    ImportPatch<decltype(::AcquireSRWLockShared)> shared_{
        libraryModule(), "KERNEL32.dll", "AcquireSRWLockShared", [this](PSRWLOCK lock) {
            note(lock);
            ::AcquireSRWLockShared(lock);
        }};
};

using CardHandleLookUpTest = CardHandleTest;

TEST_F(CardHandleLookUpTest, HappensOnceInACall) {
    establishContext();
    const ConnectedCard atDaemon = connect(context, kRemoteReader);
    const ConnectedCard onHost = connect(context, kHostReader);
    LockSpy spy;
    // The lock of the cards is the one that a call on an unknown card takes, but not one on an
    // unknown context.
    std::map<PSRWLOCK, int> cardLock = spy.locksOf([] { SCardBeginTransaction(kHostCard); });
    for (const auto& [lock, count] : spy.locksOf([] { SCardIsValidContext(kHostContext); })) {
        cardLock.erase(lock);
    }
    ASSERT_THAT(cardLock, SizeIs(1));
    const auto lookUps = [&](const std::function<void()>& call) {
        return spy.locksOf(call)[cardLock.begin()->first];
    };
    for (const SCARDHANDLE handle : {onHost.handle, atDaemon.handle}) {
        for (const ExportedCall& call : cardCalls()) {
            SCOPED_TRACE(call.name);
            EXPECT_TRUE(call.endsHandle || lookUps([&] { call.make({handle}); }) == 1);
        }
    }
    EXPECT_EQ(lookUps([&onHost] { SCardDisconnect(onHost.handle, SCARD_LEAVE_CARD); }), 1);
}

}  // namespace
}  // namespace tez::test
