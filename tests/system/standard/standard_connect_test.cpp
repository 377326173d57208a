// With standard answers the side that has the reader tells why a connect fails.
#include "daemon_records.h"
#include "remote_card_test.h"

namespace tez::test {
namespace {

using testing::_;
using testing::Contains;
using testing::HasSubstr;
using testing::Not;
using testing::Return;
using testing::StrEq;

class ConnectReason : public RemoteCardTest {
  protected:
    ConnectReason() { setEnvironment("TEZ_PCSC_STANDARD_CALLS", "1"); }

    LONG connectTo(const char* reader) {
        DWORD protocol = 0;
        SCARDHANDLE handle = 0;
        return SCardConnectA(context, reader, SCARD_SHARE_SHARED, SCARD_PROTOCOL_Tx, &handle,
                             &protocol);
    }
    std::size_t connects() const { return daemon.requests(Command::kConnect).size(); }
};

TEST_F(ConnectReason, IsTheHostsForAReaderThatTheHostListed) {
    establishContext();
    listReaders(context);
    host.pcsc().removeCard(kHostReader);
    EXPECT_THAT(connectTo(kHostReader), Gives(SCARD_E_NO_SMARTCARD));
    EXPECT_EQ(connects(), 0U);
}

TEST_F(ConnectReason, IsTheDaemonsForAReaderThatTheDaemonListed) {
    establishContext();
    listReaders(context);
    remote.removeCard(kRemoteReader);
    EXPECT_THAT(connectTo(kRemoteReader), Gives(SCARD_E_NO_SMARTCARD));
    EXPECT_EQ(connects(), 1U);
}

TEST_F(ConnectReason, IsTheHostsForANameThatBothHave) {
    remote.addReader(kHostReader);
    establishContext();
    listReaders(context);
    host.pcsc().removeCard(kHostReader);
    EXPECT_CALL(host, SCardConnectA).WillOnce(Return(SCARD_E_SHARING_VIOLATION));
    EXPECT_THAT(connectTo(kHostReader), Gives(SCARD_E_SHARING_VIOLATION));
    EXPECT_THAT(log().messages("SCardConnectA", 'D'), Not(Contains(HasSubstr("falling back"))));
    EXPECT_EQ(connects(), 0U);
}

TEST_F(ConnectReason, IsTheDaemonsWhenTheHostKnowsItsReaderNoMore) {
    establishContext();
    listReaders(context);
    host.pcsc().removeReader(kHostReader);
    remote.addReader(kHostReader);
    EXPECT_THAT(connectTo(kHostReader), Gives(SCARD_E_NO_SMARTCARD));
    EXPECT_EQ(connects(), 1U);
}

TEST_F(ConnectReason, IsTheHostsForAReaderThatNobodyListedUnlessTheDaemonKnowsIt) {
    establishContext();
    EXPECT_CALL(host, SCardConnectA).WillRepeatedly(Return(SCARD_E_SHARING_VIOLATION));
    EXPECT_THAT(connectTo("No Reader"), Gives(SCARD_E_SHARING_VIOLATION));
    EXPECT_EQ(connects(), 1U);
    remote.removeCard(kRemoteReader);
    EXPECT_THAT(connectTo(kRemoteReader), Gives(SCARD_E_NO_SMARTCARD));
}

TEST_F(ConnectReason, IsTheHostsWhenTheDaemonsSaysNothingOfTheReader) {
    establishContext();
    EXPECT_CALL(host, SCardConnectA).WillRepeatedly(Return(SCARD_E_NO_SMARTCARD));
    for (const LONG code : {SCARD_E_NO_SERVICE, SCARD_E_SERVICE_STOPPED,
                            SCARD_E_NO_READERS_AVAILABLE, SCARD_E_INVALID_HANDLE}) {
        daemon.on(Command::kConnect, refusing<ConnectLayout>(code));
        EXPECT_THAT(connectTo(kHostReader), Gives(SCARD_E_NO_SMARTCARD)) << code;
    }
}

TEST_F(ConnectReason, IsNeverThatTheHostHasNoService) {
    establishContext();
    listReaders(context);
    for (const LONG code : {SCARD_E_NO_SERVICE, SCARD_E_SERVICE_STOPPED, SCARD_F_INTERNAL_ERROR}) {
        EXPECT_CALL(host, SCardConnectA).WillOnce(Return(code));
        EXPECT_THAT(connectTo("No Reader"), Gives(SCARD_E_UNKNOWN_READER));
    }
}

TEST_F(ConnectReason, IsTheHostsWhenTheDaemonIsLostMeanwhile) {
    establishContext();
    daemon.on(Command::kConnect, closing());
    EXPECT_CALL(host, SCardConnectA).WillOnce(Return(SCARD_E_SHARING_VIOLATION));
    EXPECT_THAT(connectTo("No Reader"), Gives(SCARD_E_SHARING_VIOLATION));
}

/// The card of a daemon that has gone.
class CardOfADaemonThatHasGone : public RemoteCardTest {
  protected:
    CardOfADaemonThatHasGone() { setEnvironment("TEZ_PCSC_STANDARD_CALLS", "1"); }

    void expectUnavailable() {
        DWORD value = 0;
        Bytes buffer(258);
        auto length = static_cast<DWORD>(buffer.size());
        const auto unavailable = Gives(SCARD_E_READER_UNAVAILABLE);
        EXPECT_THAT(SCardTransmit(card.handle, card.pci(), getChallenge().data(), 5, nullptr,
                                  buffer.data(), &length),
                    unavailable);
        EXPECT_THAT(SCardStatusA(card.handle, nullptr, nullptr, &value, &value, nullptr, nullptr),
                    unavailable);
        EXPECT_THAT(SCardReconnect(card.handle, SCARD_SHARE_SHARED, SCARD_PROTOCOL_Tx,
                                   SCARD_LEAVE_CARD, &value),
                    unavailable);
        EXPECT_THAT(SCardBeginTransaction(card.handle), unavailable);
        EXPECT_THAT(SCardEndTransaction(card.handle, SCARD_LEAVE_CARD), unavailable);
        EXPECT_THAT(SCardControl(card.handle, 1, nullptr, 0, buffer.data(), 258, &value),
                    unavailable);
        EXPECT_THAT(SCardGetAttrib(card.handle, SCARD_ATTR_ATR_STRING, buffer.data(), &length),
                    unavailable);
        EXPECT_THAT(SCardSetAttrib(card.handle, SCARD_ATTR_ATR_STRING, buffer.data(), 1),
                    unavailable);
        EXPECT_THAT(SCardGetTransmitCount(card.handle, &value), unavailable);
    }
};

TEST_F(CardOfADaemonThatHasGone, IsUnavailableAndCanBeDisconnected) {
    connectCard();
    stopDaemon();
    expectUnavailable();
    EXPECT_THAT(SCardDisconnect(card.handle, SCARD_LEAVE_CARD), Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(SCardDisconnect(card.handle, SCARD_LEAVE_CARD), Gives(SCARD_E_INVALID_HANDLE));
}

TEST_F(CardOfADaemonThatHasGone, IsNeverTakenForOneOfTheDaemonThatCameBack) {
    connectCard();
    stopDaemon();
    startDaemon();
    waitForWatch();
    daemon.clearRecords();
    expectUnavailable();
    EXPECT_THAT(SCardDisconnect(card.handle, SCARD_LEAVE_CARD), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(daemon.requests().size(), 0U) << "nothing is sent";
    const ConnectedCard again = connect(context, kRemoteReader);
    EXPECT_EQ(transmit(again, getChallenge()).size(), 10U);
}

/// A context that was made while the host had no service.
class ContextWithoutAHost : public SystemTest {
  protected:
    ContextWithoutAHost() { setEnvironment("TEZ_PCSC_STANDARD_CALLS", "1"); }

    SCARDCONTEXT establishWithoutHost() {
        ON_CALL(host, SCardEstablishContext).WillByDefault(Return(SCARD_E_NO_SERVICE));
        return establishWithDaemon();
    }
};

TEST_F(ContextWithoutAHost, ServesTheDaemonsReaders) {
    const SCARDCONTEXT context = establishWithoutHost();
    EXPECT_THAT(SCardIsValidContext(context), Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(listReaders(context), testing::ElementsAre(kRemoteReader));
    const ConnectedCard card = connect(context, kRemoteReader);
    EXPECT_EQ(transmit(card, getChallenge()).size(), 10U);
    SCARD_READERSTATEA state = {};
    state.szReader = kRemoteReader;
    EXPECT_THAT(SCardGetStatusChangeA(context, INFINITE, &state, 1), Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(SCardCancel(context), Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(SCardReleaseContext(context), Gives(SCARD_S_SUCCESS));
}

TEST_F(ContextWithoutAHost, HasNoReadersWhenTheDaemonGoes) {
    const SCARDCONTEXT context = establishWithoutHost();
    stopDaemon();
    DWORD length = 0;
    EXPECT_THAT(SCardListReadersA(context, nullptr, nullptr, &length),
                Gives(SCARD_E_NO_READERS_AVAILABLE));
}

TEST_F(ContextWithoutAHost, GetsItsHostHalfLater) {
    const SCARDCONTEXT context = establishWithoutHost();
    testing::Mock::VerifyAndClear(&host);
    ON_CALL(host, SCardEstablishContext)
        .WillByDefault([this](DWORD scope, LPCVOID one, LPCVOID two, LPSCARDCONTEXT made) {
            return host.service().SCardEstablishContext(scope, one, two, made);
        });
    ON_CALL(host, SCardListReadersA)
        .WillByDefault([this](SCARDCONTEXT system, LPCSTR groups, LPSTR readers, LPDWORD length) {
            return host.service().SCardListReadersA(system, groups, readers, length);
        });
    stopDaemon();
    EXPECT_THAT(listReaders(context), testing::ElementsAre(kHostReader));
}

TEST_F(ContextWithoutAHost, IsRefusedWithoutADaemon) {
    ON_CALL(host, SCardEstablishContext).WillByDefault(Return(SCARD_E_NO_SERVICE));
    SCARDCONTEXT context = 0;
    EXPECT_THAT(SCardEstablishContext(SCARD_SCOPE_USER, nullptr, nullptr, &context),
                Gives(SCARD_E_NO_SERVICE));
}

}  // namespace
}  // namespace tez::test
