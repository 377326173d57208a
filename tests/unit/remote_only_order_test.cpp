// Calls with two faults at once, with a service that takes all calls: what the state in which the
// host comes first does not show. Each row has two faults, the one that must win in front.
#include <functional>
#include <string>
#include <vector>

#include "guarded_buffer.h"
#include "remote_only_test.h"

using namespace tez;
using test::GuardedBuffer;

namespace {

constexpr std::uint64_t kUnknown = 4711;
constexpr SCARD_IO_REQUEST kTwoProtocols = {SCARD_PROTOCOL_Tx, sizeof(SCARD_IO_REQUEST)};
constexpr DWORD kTooLong = 65549;  // for an old daemon
constexpr BYTE kWrongCheckByte[] = {0x3B, 0x80, 0x80, 0x01, 0x02};

const std::string kLongName(1024, 'C');  // that no field holds

struct Given {
    SCARDCONTEXT context;
    SCARDHANDLE card;    ///< the daemon's
    SCARDHANDLE orphan;  ///< the daemon's, whose context has been released
    SCARDHANDLE onHost;
    const GuardedBuffer& bytes;  ///< as long as any length of a row says
    DWORD* room;                 ///< for 99 of them
};

struct Row {
    const char* faults;
    LONG wins;
    std::function<LONG(const Given&)> make;
};

LONG transmit(const Given& given, SCARDHANDLE card, DWORD length, LPCSCARD_IO_REQUEST pci) {
    return SCardTransmit(card, pci, given.bytes.data(), length, nullptr, given.bytes.data(),
                         given.room);
}

LONG control(const Given& given, SCARDHANDLE card, LPCVOID in, DWORD length) {
    return SCardControl(card, SCARD_CTL_CODE(1), in, length, given.bytes.data(), 5, nullptr);
}

LONG getAttribute(const Given& given, SCARDHANDLE card, LPDWORD length) {
    return SCardGetAttrib(card, SCARD_ATTR_VENDOR_NAME, given.bytes.data(), length);
}

LONG setAttribute(SCARDHANDLE card, LPCBYTE value) {
    return SCardSetAttrib(card, SCARD_ATTR_VENDOR_NAME, value, 5);
}

LONG reconnect(SCARDHANDLE card, LPDWORD protocol) {
    return SCardReconnect(card, SCARD_SHARE_SHARED, SCARD_PROTOCOL_Tx, SCARD_LEAVE_CARD, protocol);
}

LONG getProvider(SCARDCONTEXT context, LPCSTR card, LPDWORD length) {
    return SCardGetCardTypeProviderNameA(context, card, SCARD_PROVIDER_CSP, nullptr, length);
}

LONG setProvider(SCARDCONTEXT context, LPCSTR card) {
    return SCardSetCardTypeProviderNameA(context, card, SCARD_PROVIDER_CSP, "A Provider");
}

LONG introduce(SCARDCONTEXT context, LPCSTR card, DWORD atrLength) {
    return SCardIntroduceCardTypeA(context, card, nullptr, nullptr, 0, kWrongCheckByte, nullptr,
                                   atrLength);
}

}  // namespace

class RemoteOnlyOrder : public test::RemoteOnlyTest {
  protected:
    void expectWinners(const std::vector<Row>& rows) {
        daemon().versionMinor = 0;  // too old for what depends on the version
        const SCARDCONTEXT released = boundContext();
        const SCARDHANDLE orphan = registerCardHandle(kDaemonCard + 1, released, "Reader A", false);
        const SCARDHANDLE card = remoteCard();
        const SCARDHANDLE onHost = registerCardHandle(7, boundContext(), "Reader B", true);
        EXPECT_EQ(SCardReleaseContext(released), SCARD_S_SUCCESS);
        const GuardedBuffer bytes(kTooLong);
        if (!hasConnection_) {
            clearConnectionPool();
        }
        for (const Row& row : rows) {
            SCOPED_TRACE(row.faults);
            DWORD room = 99;
            EXPECT_EQ(row.make({boundContext_, card, orphan, onHost, bytes, &room}), row.wins);
        }
    }

    void takeConnectionAway() { hasConnection_ = false; }

  private:
    const SCARDCONTEXT boundContext_ = boundContext();
    bool hasConnection_ = true;
};

TEST_F(RemoteOnlyOrder, OfCallsWithoutAConnection) {
    takeConnectionAway();
    expectWinners({
        {"Reconnect: no place for the protocol", SCARD_E_INVALID_PARAMETER,
         [](auto& given) { return reconnect(given.card, nullptr); }},
        {"Reconnect: a released context", SCARD_E_INVALID_HANDLE,
         [](auto& given) { return reconnect(given.orphan, given.room); }},
        {"BeginTransaction: a released context", SCARD_E_INVALID_HANDLE,
         [](auto& given) { return SCardBeginTransaction(given.orphan); }},
        {"Transmit: no send PCI", SCARD_E_INVALID_PARAMETER,
         [](auto& given) { return transmit(given, given.card, 5, nullptr); }},
        {"Transmit: no connection, a long command", SCARD_E_NO_SERVICE,
         [](auto& given) { return transmit(given, given.card, kTooLong, SCARD_PCI_T1); }},
        {"Transmit: no connection, two protocols to send by", SCARD_E_NO_SERVICE,
         [](auto& given) { return transmit(given, given.card, 5, &kTwoProtocols); }},
        {"Transmit: no connection, a released context", SCARD_E_NO_SERVICE,
         [](auto& given) { return transmit(given, given.orphan, 5, SCARD_PCI_T1); }},
        {"Control: no input", SCARD_E_INVALID_PARAMETER,
         [](auto& given) { return control(given, given.card, nullptr, 5); }},
        {"Control: no connection, a long input", SCARD_E_NO_SERVICE,
         [](auto& given) { return control(given, given.card, given.bytes.data(), kTooLong); }},
        {"Control: no connection, a released context", SCARD_E_NO_SERVICE,
         [](auto& given) { return control(given, given.orphan, given.bytes.data(), 5); }},
        {"GetAttrib: no length", SCARD_E_INVALID_PARAMETER,
         [](auto& given) { return getAttribute(given, given.card, nullptr); }},
        {"GetAttrib: no connection, a released context", SCARD_E_NO_SERVICE,
         [](auto& given) { return getAttribute(given, given.orphan, given.room); }},
        {"SetAttrib: no value", SCARD_E_INVALID_PARAMETER,
         [](auto& given) { return setAttribute(given.card, nullptr); }},
        {"SetAttrib: no connection, a released context", SCARD_E_NO_SERVICE,
         [](auto& given) { return setAttribute(given.orphan, given.bytes.data()); }},
        {"GetTransmitCount: a released context", SCARD_E_INVALID_HANDLE,
         [](auto& given) { return SCardGetTransmitCount(given.orphan, given.room); }},
        {"ListCards: no connection, a malformed ATR", SCARD_E_NO_SERVICE,
         [](auto& given) {
             return SCardListCardsA(given.context, kWrongCheckByte, nullptr, 0, nullptr,
                                    given.room);
         }},
        {"GetCardTypeProviderName: an unfitting card", SCARD_E_INVALID_VALUE,
         [](auto& given) { return getProvider(given.context, kLongName.c_str(), given.room); }},
        {"ForgetCardType: an unfitting card", SCARD_E_INVALID_VALUE,
         [](auto&) { return SCardForgetCardTypeA(0, kLongName.c_str()); }},
    });
}

// Nobody else judges the arguments of these afterwards, as the host does where it comes first.
TEST_F(RemoteOnlyOrder, OfTheCardDatabase) {
    expectWinners({
        {"ListCards: no length, an unknown context", SCARD_E_INVALID_PARAMETER,
         [](auto&) { return SCardListCardsA(kUnknown, nullptr, nullptr, 0, nullptr, nullptr); }},
        {"ListCards: an unknown context, a malformed ATR", SCARD_E_INVALID_HANDLE,
         [](auto& given) {
             return SCardListCardsA(kUnknown, kWrongCheckByte, nullptr, 0, nullptr, given.room);
         }},
        {"GetCardTypeProviderName: an unknown context, an unfitting card",
         SCARD_E_INVALID_PARAMETER,
         [](auto& given) { return getProvider(kUnknown, kLongName.c_str(), given.room); }},
        {"SetCardTypeProviderName: a known context, no card", SCARD_E_INVALID_HANDLE,
         [](auto& given) { return setProvider(given.context, nullptr); }},
        {"SetCardTypeProviderName: a known context, an unfitting card", SCARD_E_INVALID_HANDLE,
         [](auto& given) { return setProvider(given.context, kLongName.c_str()); }},
        {"IntroduceCardType: a known context, no card", SCARD_E_INVALID_HANDLE,
         [](auto& given) { return introduce(given.context, nullptr, 5); }},
        {"IntroduceCardType: a known context, a long ATR", SCARD_E_INVALID_HANDLE,
         [](auto& given) { return introduce(given.context, "A Card", 34); }},
        {"ForgetCardType: a known context, no card", SCARD_E_INVALID_HANDLE,
         [](auto& given) { return SCardForgetCardTypeA(given.context, nullptr); }},
        {"ForgetCardType: a known context, an unfitting card", SCARD_E_INVALID_HANDLE,
         [](auto& given) { return SCardForgetCardTypeA(given.context, kLongName.c_str()); }},
    });
}

TEST_F(RemoteOnlyOrder, OfTheRest) {
    expectWinners({
        {"Connect: no place for the card, an unknown context", SCARD_E_INVALID_PARAMETER,
         [](auto& given) {
             return SCardConnectA(kUnknown, "Reader A", SCARD_SHARE_SHARED, SCARD_PROTOCOL_Tx,
                                  nullptr, given.room);
         }},
        {"Connect: an unfitting reader, an unknown context", SCARD_E_INVALID_VALUE,
         [](auto& given) {
             SCARDHANDLE card = 0;
             return SCardConnectA(kUnknown, kLongName.c_str(), SCARD_SHARE_SHARED,
                                  SCARD_PROTOCOL_Tx, &card, given.room);
         }},
        {"ListReaderGroups: no length, an unknown context", SCARD_E_INVALID_PARAMETER,
         [](auto&) { return SCardListReaderGroupsA(kUnknown, nullptr, nullptr); }},
        {"Reconnect: a card of the host, no place for the protocol", SCARD_E_INVALID_HANDLE,
         [](auto& given) { return reconnect(given.onHost, nullptr); }},
        {"Transmit: a card of the host, no send PCI", SCARD_E_INVALID_HANDLE,
         [](auto& given) { return transmit(given, given.onHost, 5, nullptr); }},
        {"Control: a card of the host, no input", SCARD_E_INVALID_HANDLE,
         [](auto& given) { return control(given, given.onHost, nullptr, 5); }},
        {"GetAttrib: a card of the host, no length", SCARD_E_INVALID_HANDLE,
         [](auto& given) { return getAttribute(given, given.onHost, nullptr); }},
        {"SetAttrib: a card of the host, no value", SCARD_E_INVALID_HANDLE,
         [](auto& given) { return setAttribute(given.onHost, nullptr); }},
        {"GetTransmitCount: a card of the host, no place for the count", SCARD_E_INVALID_HANDLE,
         [](auto& given) { return SCardGetTransmitCount(given.onHost, nullptr); }},
        {"Transmit: a long command, two protocols to send by", SCARD_E_INSUFFICIENT_BUFFER,
         [](auto& given) { return transmit(given, given.card, kTooLong, &kTwoProtocols); }},
        {"Transmit: a long command, a released context", SCARD_E_INSUFFICIENT_BUFFER,
         [](auto& given) { return transmit(given, given.orphan, kTooLong, SCARD_PCI_T1); }},
        {"Control: a long input, a released context", SCARD_E_INSUFFICIENT_BUFFER,
         [](auto& given) { return control(given, given.orphan, given.bytes.data(), kTooLong); }},
    });
}
