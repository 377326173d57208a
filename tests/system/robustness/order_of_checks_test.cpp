// Calls with two faults at once: the library looks for them in a fixed order, and the one that it
// finds first decides the code. Each row has two faults, the one that must win in front. Calls that
// can have one fault only are not here.
#include <functional>
#include <memory>

#include "card_database_test.h"
#include "failing_writes.h"

namespace tez::test {
namespace {

using testing::Return;

constexpr std::uint64_t kUnknown = 4711;
constexpr SCARD_IO_REQUEST kTwoProtocols = {SCARD_PROTOCOL_Tx, sizeof(SCARD_IO_REQUEST)};
constexpr BYTE kMalformedAtr[] = {0x3B, 0x80, 0x80, 0x01, 0x02};  // its check byte is wrong
constexpr LONG kHostsRefusal = SCARD_E_COMM_DATA_LOST;
constexpr LONG kDaemonsRefusal = SCARD_E_SERVER_TOO_BUSY;
constexpr DWORD kMoreThanAnOldDaemonTakes = kOldDaemonsLimit + 1;
constexpr DWORD kMoreThanTheFixedFormTakes = 265;

const std::string kUnfittingReader(128, 'R');
const std::string kUnfittingCard = kTooLongCardName;

// The calls, each with arguments that nobody objects to but for those that a row names.

/// As long as any length of a row says.
BYTE* bytes() {
    static std::vector<BYTE> bytes(kMoreThanAnOldDaemonTakes);
    return bytes.data();
}

/// A place for a number that a call stores.
DWORD* place(DWORD value = 0) {
    static DWORD number;
    number = value;
    return &number;
}

struct Connect {
    SCARDCONTEXT context = 0;
    LPCSTR reader = kRemoteReader;
    bool hasCard = true;
    LPDWORD protocol = place();
};

LONG connectTo(const Connect& a) {
    SCARDHANDLE card = 0;
    return SCardConnectA(a.context, a.reader, SCARD_SHARE_SHARED, SCARD_PROTOCOL_Tx,
                         a.hasCard ? &card : nullptr, a.protocol);
}

LONG reconnect(SCARDHANDLE card, LPDWORD protocol) {
    return SCardReconnect(card, SCARD_SHARE_SHARED, SCARD_PROTOCOL_Tx, SCARD_LEAVE_CARD, protocol);
}

LONG status(SCARDHANDLE card, DWORD nameRoom) {
    char name[64];
    return SCardStatusA(card, name, &nameRoom, nullptr, nullptr, nullptr, nullptr);
}

struct Transmit {
    SCARDHANDLE card = 0;
    LPCBYTE send = bytes();
    DWORD sendLength = 5;
    LPCSCARD_IO_REQUEST sendPci = SCARD_PCI_T1;
    SCARD_IO_REQUEST receivePci = *SCARD_PCI_T1;
    DWORD receiveLength = 258;
};

LONG transmitTo(Transmit a) {
    return SCardTransmit(a.card, a.sendPci, a.send, a.sendLength, &a.receivePci, bytes(),
                         &a.receiveLength);
}

struct Control {
    SCARDHANDLE card = 0;
    LPCVOID in = bytes();
    DWORD inLength = 5;
    DWORD outLength = 5;
};

LONG control(const Control& a) {
    return SCardControl(a.card, SCARD_CTL_CODE(kControlEcho), a.in, a.inLength, bytes(),
                        a.outLength, nullptr);
}

LONG getAttribute(SCARDHANDLE card, LPBYTE value, LPDWORD length) {
    return SCardGetAttrib(card, SCARD_ATTR_VENDOR_NAME, value, length);
}

LONG setAttribute(SCARDHANDLE card, LPCBYTE value, DWORD length) {
    return SCardSetAttrib(card, SCARD_ATTR_SUPRESS_T1_IFS_REQUEST, value, length);
}

LONG listReadersOf(SCARDCONTEXT context, LPDWORD length) {
    return SCardListReadersA(context, nullptr, reinterpret_cast<LPSTR>(bytes()), length);
}

LONG listGroupsOf(SCARDCONTEXT context, LPDWORD length) {
    return SCardListReaderGroupsA(context, reinterpret_cast<LPSTR>(bytes()), length);
}

/// The entries of a status change, which are all alike.
struct Entries {
    const char* reader = kHostReader;
    DWORD state = SCARD_STATE_UNAWARE;
    DWORD count = 1;
};

LONG statusChange(SCARDCONTEXT context, const Entries& a) {
    SCARD_READERSTATEA entry = {};
    entry.szReader = a.reader;
    entry.dwCurrentState = a.state;
    std::vector<SCARD_READERSTATEA> entries(a.count, entry);
    return SCardGetStatusChangeA(context, 0, entries.data(), a.count);
}

LONG wideStatusChange(SCARDCONTEXT context, const wchar_t* reader, DWORD count) {
    SCARD_READERSTATEW entry = {};
    entry.szReader = reader;
    std::vector<SCARD_READERSTATEW> entries(count, entry);
    return SCardGetStatusChangeW(context, 0, entries.data(), count);
}

LONG listCards(SCARDCONTEXT context, LPCBYTE atr, LPDWORD length) {
    return SCardListCardsA(context, atr, nullptr, 0, reinterpret_cast<LPSTR>(bytes()), length);
}

LONG deviceType(SCARDCONTEXT context, LPCSTR reader = kRemoteReader, LPDWORD type = place()) {
    return SCardGetDeviceTypeIdA(context, reader, type);
}

LONG getProvider(SCARDCONTEXT context, LPCSTR card = kRemoteCardType, LPDWORD length = place(99)) {
    return SCardGetCardTypeProviderNameA(context, card, SCARD_PROVIDER_CSP,
                                         reinterpret_cast<LPSTR>(bytes()), length);
}

LONG setProvider(SCARDCONTEXT context, LPCSTR card) {
    return SCardSetCardTypeProviderNameA(context, card, SCARD_PROVIDER_CSP, "A Provider");
}

LONG introduce(SCARDCONTEXT context, LPCSTR card, DWORD atrLength = 4) {
    return SCardIntroduceCardTypeA(context, card, nullptr, nullptr, 0, bytes(), nullptr, atrLength);
}

/// What the two calls of the cache take in common.
struct CacheItem {
    UUID identifier = {};
    bool hasIdentifier = true;
    bool hasName = true;
};

template <class Call>
LONG withItem(CacheItem item, Call call) {
    char name[] = "an item";
    return call(item.hasIdentifier ? &item.identifier : nullptr, item.hasName ? name : nullptr);
}

LONG readCache(SCARDCONTEXT context, const CacheItem& item = {}, LPDWORD length = place(99)) {
    return withItem(item, [&](UUID* identifier, LPSTR name) {
        return SCardReadCacheA(context, identifier, 1, name, bytes(), length);
    });
}

LONG writeCache(SCARDCONTEXT context, const CacheItem& item = {}, LPBYTE data = bytes(),
                DWORD length = 5) {
    return withItem(item, [&](UUID* identifier, LPSTR name) {
        return SCardWriteCacheA(context, identifier, 1, name, data, length);
    });
}

LONG icon(SCARDCONTEXT context, LPDWORD length = place(99)) {
    return SCardGetReaderIconA(context, kRemoteReader, bytes(), length);
}

/// The handles that a row may use besides kUnknown.
struct Handles {
    SCARDCONTEXT context;
    SCARDHANDLE card;    ///< the daemon's
    SCARDHANDLE orphan;  ///< another one of the daemon's, whose context has been released
};

struct Row {
    const char* faults;
    LONG wins;
    std::function<LONG(const Handles&)> make;
};

/// Each of its tests is a situation that is a fault of its own to the calls that it concerns.
/// Without redirection the calls of the card database would not go to the daemon.
class OrderOfChecksTest : public CardDatabaseTest {
  protected:
    /// A daemon that is too old for whatever depends on its version, and a host that knows none of
    /// what it is asked for.
    void serveWithAnOldDaemon() {
        refuseOnTheHost();
        establishRedirected(kFixedForm);
        const SCARDCONTEXT released = establish();
        const SCARDHANDLE orphan = connect(released, kRemoteReader).handle;
        ASSERT_THAT(SCardReleaseContext(released), Gives(SCARD_S_SUCCESS));
        handles_ = {context, connect(context, kRemoteReader).handle, orphan};
    }

    void refuseOnTheHost() {
        ON_CALL(host, SCardListCardsA).WillByDefault(Return(kHostsRefusal));
        ON_CALL(host, SCardGetDeviceTypeIdA).WillByDefault(Return(kHostsRefusal));
        ON_CALL(host, SCardGetCardTypeProviderNameA).WillByDefault(Return(kHostsRefusal));
        ON_CALL(host, SCardSetCardTypeProviderNameA).WillByDefault(Return(kHostsRefusal));
        ON_CALL(host, SCardReadCacheA).WillByDefault(Return(kHostsRefusal));
        ON_CALL(host, SCardWriteCacheA).WillByDefault(Return(kHostsRefusal));
        ON_CALL(host, SCardGetReaderIconA).WillByDefault(Return(kHostsRefusal));
        ON_CALL(host, SCardCancel).WillByDefault(Return(kHostsRefusal));
    }

    /// The idle connection breaks, and none can be opened in its place; the monitor's stays.
    [[nodiscard]] std::unique_ptr<FailingWrites> breakConnections() {
        daemon.on(Command::kBeginTransaction, closing());
        EXPECT_THAT(SCardBeginTransaction(handles_.card), Gives(SCARD_E_NO_SERVICE));
        return std::make_unique<FailingWrites>([](DWORD /*size*/) { return true; });
    }

    void expectWinners(const std::vector<Row>& rows) {
        for (const Row& row : rows) {
            SCOPED_TRACE(row.faults);
            EXPECT_THAT(row.make(handles_), Gives(row.wins));
        }
    }

    /// Over whatever keeps the daemon from being asked.
    void expectArgumentsOfConnectToWin() {
        expectWinners({
            {"Connect: no place for the protocol", SCARD_E_INVALID_PARAMETER,
             [](auto& given) {
                 return connectTo({.context = given.context, .protocol = nullptr});
             }},
            {"Connect: no reader", SCARD_E_UNKNOWN_READER,
             [](auto& given) { return connectTo({.context = given.context, .reader = nullptr}); }},
            {"Connect: an unfitting reader", SCARD_E_INVALID_VALUE,
             [](auto& given) {
                 return connectTo({.context = given.context, .reader = kUnfittingReader.c_str()});
             }},
        });
    }

    Handles handles_ = {};
};

TEST_F(OrderOfChecksTest, OfACardsCallsWithAnOldDaemon) {
    serveWithAnOldDaemon();
    expectWinners({
        {"Reconnect: an unknown handle, no place for the protocol", SCARD_E_INVALID_HANDLE,
         [](auto&) { return reconnect(kUnknown, nullptr); }},
        {"Reconnect: no place for the protocol, a released context", SCARD_E_INVALID_PARAMETER,
         [](auto& given) { return reconnect(given.orphan, nullptr); }},
        {"Status: an unknown handle, a short buffer", SCARD_E_INVALID_HANDLE,
         [](auto&) { return status(kUnknown, 1); }},

        {"Transmit: an unknown handle, no command", SCARD_E_INVALID_HANDLE,
         [](auto&) { return transmitTo({.card = kUnknown, .send = nullptr}); }},
        {"Transmit: no command, a long one", SCARD_E_INVALID_PARAMETER,
         [](auto& given) {
             return transmitTo(
                 {.card = given.card, .send = nullptr, .sendLength = kMoreThanAnOldDaemonTakes});
         }},
        {"Transmit: no send PCI, a long command", SCARD_E_INVALID_PARAMETER,
         [](auto& given) {
             return transmitTo(
                 {.card = given.card, .sendLength = kMoreThanAnOldDaemonTakes, .sendPci = nullptr});
         }},
        {"Transmit: no command, a released context", SCARD_E_INVALID_PARAMETER,
         [](auto& given) { return transmitTo({.card = given.orphan, .send = nullptr}); }},
        {"Transmit: a long command, two protocols to send by", SCARD_E_INSUFFICIENT_BUFFER,
         [](auto& given) {
             return transmitTo({.card = given.card,
                                .sendLength = kMoreThanAnOldDaemonTakes,
                                .sendPci = &kTwoProtocols});
         }},
        {"Transmit: a large room, two protocols to receive by", SCARD_E_INSUFFICIENT_BUFFER,
         [](auto& given) {
             return transmitTo({.card = given.card,
                                .receivePci = kTwoProtocols,
                                .receiveLength = kMoreThanAnOldDaemonTakes});
         }},
        {"Transmit: a large room, which is also to be allocated", SCARD_E_INSUFFICIENT_BUFFER,
         [](auto& given) {
             return transmitTo({.card = given.card, .receiveLength = SCARD_AUTOALLOCATE});
         }},
        {"Transmit: a long command, a released context", SCARD_E_INSUFFICIENT_BUFFER,
         [](auto& given) {
             return transmitTo({.card = given.orphan, .sendLength = kMoreThanAnOldDaemonTakes});
         }},
        {"Transmit: two protocols to send by, a released context", SCARD_E_INVALID_PARAMETER,
         [](auto& given) { return transmitTo({.card = given.orphan, .sendPci = &kTwoProtocols}); }},
        {"Transmit: two protocols to receive by, a released context", SCARD_E_INVALID_PARAMETER,
         [](auto& given) {
             return transmitTo({.card = given.orphan, .receivePci = kTwoProtocols});
         }},

        {"Control: an unknown handle, no input", SCARD_E_INVALID_HANDLE,
         [](auto&) { return control({.card = kUnknown, .in = nullptr}); }},
        {"Control: no input, a long one", SCARD_E_INVALID_PARAMETER,
         [](auto& given) {
             return control(
                 {.card = given.card, .in = nullptr, .inLength = kMoreThanAnOldDaemonTakes});
         }},
        {"Control: no input, a released context", SCARD_E_INVALID_PARAMETER,
         [](auto& given) { return control({.card = given.orphan, .in = nullptr}); }},
        {"Control: a long input, a released context", SCARD_E_INSUFFICIENT_BUFFER,
         [](auto& given) {
             return control({.card = given.orphan, .inLength = kMoreThanAnOldDaemonTakes});
         }},
        {"Control: a large room, a released context", SCARD_E_INSUFFICIENT_BUFFER,
         [](auto& given) {
             return control({.card = given.orphan, .outLength = kMoreThanAnOldDaemonTakes});
         }},

        {"GetAttrib: an unknown handle, no length", SCARD_E_INVALID_HANDLE,
         [](auto&) { return getAttribute(kUnknown, bytes(), nullptr); }},
        {"GetAttrib: no length, a released context", SCARD_E_INVALID_PARAMETER,
         [](auto& given) { return getAttribute(given.orphan, bytes(), nullptr); }},
        {"GetAttrib: a released context, a large room", SCARD_E_INVALID_HANDLE,
         [](auto& given) {
             return getAttribute(given.orphan, bytes(), place(kMoreThanTheFixedFormTakes));
         }},
        {"GetAttrib: a released context, no place for an allocated value", SCARD_E_INVALID_HANDLE,
         [](auto& given) {
             return getAttribute(given.orphan, nullptr, place(SCARD_AUTOALLOCATE));
         }},

        {"SetAttrib: an unknown handle, no value", SCARD_E_INVALID_HANDLE,
         [](auto&) { return setAttribute(kUnknown, nullptr, 5); }},
        {"SetAttrib: no value, a long one", SCARD_E_INVALID_PARAMETER,
         [](auto& given) { return setAttribute(given.card, nullptr, kMoreThanTheFixedFormTakes); }},
        {"SetAttrib: no value, a released context", SCARD_E_INVALID_PARAMETER,
         [](auto& given) { return setAttribute(given.orphan, nullptr, 5); }},
        {"SetAttrib: a long value, a released context", kNotSupported,
         [](auto& given) {
             return setAttribute(given.orphan, bytes(), kMoreThanTheFixedFormTakes);
         }},

        {"GetTransmitCount: an unknown handle, no place for the count", SCARD_E_INVALID_HANDLE,
         [](auto&) { return SCardGetTransmitCount(kUnknown, nullptr); }},
        {"GetTransmitCount: no place for the count, an old daemon", SCARD_E_INVALID_PARAMETER,
         [](auto& given) { return SCardGetTransmitCount(given.card, nullptr); }},
        {"GetTransmitCount: no place for the count, a released context", SCARD_E_INVALID_PARAMETER,
         [](auto& given) { return SCardGetTransmitCount(given.orphan, nullptr); }},
        {"GetTransmitCount: a released context, an old daemon", SCARD_E_INVALID_HANDLE,
         [](auto& given) { return SCardGetTransmitCount(given.orphan, place()); }},
    });
}

TEST_F(OrderOfChecksTest, OfAContextsCallsWithAnOldDaemon) {
    serveWithAnOldDaemon();
    expectWinners({
        {"Connect: no place for the card, an unknown context", SCARD_E_INVALID_PARAMETER,
         [](auto&) { return connectTo({.context = kUnknown, .hasCard = false}); }},
        {"Connect: an unknown context, no place for the protocol", SCARD_E_INVALID_HANDLE,
         [](auto&) { return connectTo({.context = kUnknown, .protocol = nullptr}); }},
        {"Connect: an unknown context, no reader", SCARD_E_INVALID_HANDLE,
         [](auto&) { return connectTo({.context = kUnknown, .reader = nullptr}); }},
        {"Connect: no place for the protocol, no reader", SCARD_E_INVALID_PARAMETER,
         [](auto& given) {
             return connectTo({.context = given.context, .reader = nullptr, .protocol = nullptr});
         }},
        {"Connect: no place for the protocol, an unfitting reader", SCARD_E_INVALID_PARAMETER,
         [](auto& given) {
             return connectTo({.context = given.context,
                               .reader = kUnfittingReader.c_str(),
                               .protocol = nullptr});
         }},

        {"ListReaders: no length, an unknown context", SCARD_E_INVALID_PARAMETER,
         [](auto&) { return listReadersOf(kUnknown, nullptr); }},
        {"ListReaders: an unknown context, a short buffer", SCARD_E_INVALID_HANDLE,
         [](auto&) { return listReadersOf(kUnknown, place(1)); }},
        {"ListReaderGroups: an unknown context, no length", SCARD_E_INVALID_HANDLE,
         [](auto&) { return listGroupsOf(kUnknown, nullptr); }},
        {"ListReaderGroups: an unknown context, a short buffer", SCARD_E_INVALID_HANDLE,
         [](auto&) { return listGroupsOf(kUnknown, place(1)); }},

        {"GetStatusChange: an unknown context, no entries", SCARD_E_INVALID_HANDLE,
         [](auto&) { return SCardGetStatusChangeA(kUnknown, 0, nullptr, 1); }},
        {"GetStatusChange: an unknown context, an empty list", SCARD_E_INVALID_HANDLE,
         [](auto&) { return statusChange(kUnknown, {.count = 0}); }},
        {"GetStatusChange: an unknown context, no name", SCARD_E_INVALID_HANDLE,
         [](auto&) { return statusChange(kUnknown, {.reader = nullptr}); }},
        {"GetStatusChange: too many entries, no name", SCARD_E_INVALID_PARAMETER,
         [](auto& given) { return statusChange(given.context, {.reader = nullptr, .count = 17}); }},
        {"GetStatusChange: no name, all ignored", SCARD_E_INVALID_VALUE,
         [](auto& given) {
             return statusChange(given.context, {.reader = nullptr, .state = SCARD_STATE_IGNORE});
         }},

        {"ListCards: no length, an unknown context", SCARD_E_INVALID_PARAMETER,
         [](auto&) { return listCards(kUnknown, nullptr, nullptr); }},
        {"ListCards: an unknown context, an old daemon", SCARD_E_INVALID_HANDLE,
         [](auto&) { return listCards(kUnknown, nullptr, place()); }},
        // An old daemon leaves the call to the host; a malformed ATR alone is an empty list.
        {"ListCards: an old daemon, a malformed ATR", kHostsRefusal,
         [](auto& given) { return listCards(given.context, kMalformedAtr, place(99)); }},

        {"GetDeviceTypeId: no reader, an unknown context", SCARD_E_INVALID_PARAMETER,
         [](auto&) { return deviceType(kUnknown, nullptr); }},
        {"GetDeviceTypeId: no place for the type, an unknown context", SCARD_E_INVALID_PARAMETER,
         [](auto&) { return deviceType(kUnknown, kRemoteReader, nullptr); }},
        {"GetDeviceTypeId: no place for the type, an unfitting reader", SCARD_E_INVALID_PARAMETER,
         [](auto& given) { return deviceType(given.context, kUnfittingReader.c_str(), nullptr); }},
        {"GetDeviceTypeId: an unknown context, an unfitting reader", SCARD_E_INVALID_HANDLE,
         [](auto&) { return deviceType(kUnknown, kUnfittingReader.c_str()); }},
        {"GetDeviceTypeId: an unknown context, an old daemon", SCARD_E_INVALID_HANDLE,
         [](auto&) { return deviceType(kUnknown); }},
        {"GetDeviceTypeId: no reader, an old daemon", SCARD_E_INVALID_PARAMETER,
         [](auto& given) { return deviceType(given.context, nullptr); }},
        {"GetDeviceTypeId: an unfitting reader, an old daemon", SCARD_E_INVALID_VALUE,
         [](auto& given) { return deviceType(given.context, kUnfittingReader.c_str()); }},

        {"ReadCache: no identifier, an unknown context", SCARD_E_INVALID_PARAMETER,
         [](auto&) { return readCache(kUnknown, {.hasIdentifier = false}); }},
        {"ReadCache: no name, an unknown context", SCARD_E_INVALID_PARAMETER,
         [](auto&) { return readCache(kUnknown, {.hasName = false}); }},
        {"ReadCache: no length, an unknown context", SCARD_E_INVALID_PARAMETER,
         [](auto&) { return readCache(kUnknown, {}, nullptr); }},
        {"ReadCache: no length, an old daemon", SCARD_E_INVALID_PARAMETER,
         [](auto& given) { return readCache(given.context, {}, nullptr); }},
        {"ReadCache: an unknown context, an old daemon", SCARD_E_INVALID_HANDLE,
         [](auto&) { return readCache(kUnknown); }},

        {"WriteCache: no identifier, an unknown context", SCARD_E_INVALID_PARAMETER,
         [](auto&) { return writeCache(kUnknown, {.hasIdentifier = false}); }},
        {"WriteCache: no name, an unknown context", SCARD_E_INVALID_PARAMETER,
         [](auto&) { return writeCache(kUnknown, {.hasName = false}); }},
        {"WriteCache: no data, an unknown context", SCARD_E_INVALID_PARAMETER,
         [](auto&) { return writeCache(kUnknown, {}, nullptr); }},
        {"WriteCache: data of no length, an unknown context", SCARD_E_INVALID_PARAMETER,
         [](auto&) { return writeCache(kUnknown, {}, bytes(), 0); }},
        {"WriteCache: data of no length, an old daemon", SCARD_E_INVALID_PARAMETER,
         [](auto& given) { return writeCache(given.context, {}, bytes(), 0); }},
        {"WriteCache: an unknown context, an old daemon", SCARD_E_INVALID_HANDLE,
         [](auto&) { return writeCache(kUnknown); }},

        {"GetReaderIcon: no length, an unknown context", SCARD_E_INVALID_PARAMETER,
         [](auto&) { return icon(kUnknown, nullptr); }},
        {"GetReaderIcon: no length, an old daemon", SCARD_E_INVALID_PARAMETER,
         [](auto& given) { return icon(given.context, nullptr); }},
        {"GetReaderIcon: an unknown context, an old daemon", SCARD_E_INVALID_HANDLE,
         [](auto&) { return icon(kUnknown); }},
    });
}

// A missing argument leaves the call to the host, which has no counterpart of the context; an
// unknown context ends it as a bad parameter.
TEST_F(OrderOfChecksTest, OfAProvidersName) {
    serveWithAnOldDaemon();
    expectWinners({
        {"no length, an unknown context", SCARD_E_INVALID_HANDLE,
         [](auto&) { return getProvider(kUnknown, kRemoteCardType, nullptr); }},
        {"no card, an unknown context", SCARD_E_INVALID_HANDLE,
         [](auto&) { return getProvider(kUnknown, nullptr); }},
        {"an unknown context, an unfitting card", SCARD_E_INVALID_PARAMETER,
         [](auto&) { return getProvider(kUnknown, kUnfittingCard.c_str()); }},
        {"an unknown context, an old daemon", SCARD_E_INVALID_PARAMETER,
         [](auto&) { return getProvider(kUnknown); }},
    });
}

// At the daemon's side updates are for contexts that the library does not know.
TEST_F(OrderOfChecksTest, OfUpdates) {
    serveWithAnOldDaemon();
    expectWinners({
        {"SetCardTypeProviderName: a known context, no card", SCARD_E_INVALID_HANDLE,
         [](auto& given) { return setProvider(given.context, nullptr); }},
        {"SetCardTypeProviderName: a known context, an unfitting card", SCARD_E_INVALID_HANDLE,
         [](auto& given) { return setProvider(given.context, kUnfittingCard.c_str()); }},
        {"IntroduceCardType: a known context, no card", SCARD_E_INVALID_HANDLE,
         [](auto& given) { return introduce(given.context, nullptr); }},
        {"IntroduceCardType: a known context, an unfitting card", SCARD_E_INVALID_HANDLE,
         [](auto& given) { return introduce(given.context, kUnfittingCard.c_str()); }},
        {"IntroduceCardType: a known context, a long ATR", SCARD_E_INVALID_HANDLE,
         [](auto& given) { return introduce(given.context, "A Card", 34); }},
        {"IntroduceCardType: an unfitting card, a long ATR", SCARD_E_INVALID_VALUE,
         [](auto&) { return introduce(0, kUnfittingCard.c_str(), 34); }},
        {"IntroduceCardType: a long ATR, an unknown context", SCARD_E_INVALID_PARAMETER,
         [](auto&) { return introduce(kUnknown, "A Card", 34); }},
        {"Audit: a known context, an old daemon", SCARD_E_INVALID_HANDLE,
         [](auto& given) { return SCardAudit(given.context, 1); }},
        {"Audit: an unknown context, an old daemon", SCARD_E_INVALID_HANDLE,
         [](auto&) { return SCardAudit(kUnknown, 1); }},
    });
}

// The wide forms look at what they have to convert, or to convert into, before all else.
TEST_F(OrderOfChecksTest, OfWideForms) {
    serveWithAnOldDaemon();
    expectWinners({
        {"ListReaders: no length, an unknown context", SCARD_E_INVALID_PARAMETER,
         [](auto&) { return SCardListReadersW(kUnknown, nullptr, nullptr, nullptr); }},
        {"ListReaderGroups: no length, an unknown context", SCARD_E_INVALID_PARAMETER,
         [](auto&) { return SCardListReaderGroupsW(kUnknown, nullptr, nullptr); }},
        {"GetStatusChange: no entries, an unknown context", SCARD_E_INVALID_PARAMETER,
         [](auto&) { return SCardGetStatusChangeW(kUnknown, 0, nullptr, 1); }},
        {"GetStatusChange: too many entries, no name", SCARD_E_INVALID_PARAMETER,
         [](auto& given) { return wideStatusChange(given.context, nullptr, 17); }},
        {"GetStatusChange: no name, an unknown context", SCARD_E_INVALID_VALUE,
         [](auto&) { return wideStatusChange(kUnknown, nullptr, 1); }},
        {"GetStatusChange: an empty list, an unknown context", SCARD_S_SUCCESS,
         [](auto&) { return wideStatusChange(kUnknown, nullptr, 0); }},
        {"ListCards: no length, an unknown context", SCARD_E_INVALID_PARAMETER,
         [](auto&) { return SCardListCardsW(kUnknown, nullptr, nullptr, 0, nullptr, nullptr); }},
        {"GetDeviceTypeId: no reader, an unknown context", SCARD_E_INVALID_PARAMETER,
         [](auto&) { return SCardGetDeviceTypeIdW(kUnknown, nullptr, place()); }},
        // These the narrow form would leave to the host, which refuses the context.
        {"GetCardTypeProviderName: no length, an unknown context", SCARD_E_INVALID_PARAMETER,
         [](auto&) {
             return SCardGetCardTypeProviderNameW(kUnknown, L"A Card", SCARD_PROVIDER_CSP, nullptr,
                                                  nullptr);
         }},
        {"GetCardTypeProviderName: no card, an unknown context", SCARD_E_INVALID_PARAMETER,
         [](auto&) {
             return SCardGetCardTypeProviderNameW(kUnknown, nullptr, SCARD_PROVIDER_CSP, nullptr,
                                                  place());
         }},
        {"GetReaderIcon: no reader, no length", SCARD_E_UNKNOWN_READER,
         [](auto& given) { return SCardGetReaderIconW(given.context, nullptr, nullptr, nullptr); }},
        {"GetReaderIcon: no reader, an unknown context", SCARD_E_UNKNOWN_READER,
         [](auto&) { return SCardGetReaderIconW(kUnknown, nullptr, nullptr, place()); }},
    });
}

TEST_F(OrderOfChecksTest, OfCallsWithoutAConnection) {
    serveWithAnOldDaemon();
    const auto broken = breakConnections();
    expectArgumentsOfConnectToWin();
    expectWinners({
        {"Reconnect: no place for the protocol", SCARD_E_INVALID_PARAMETER,
         [](auto& given) { return reconnect(given.card, nullptr); }},
        {"Reconnect: a released context", SCARD_E_INVALID_HANDLE,
         [](auto& given) { return reconnect(given.orphan, place()); }},
        {"Disconnect: a released context", SCARD_E_INVALID_HANDLE,
         [](auto& given) { return SCardDisconnect(given.orphan, SCARD_LEAVE_CARD); }},
        {"BeginTransaction: a released context", SCARD_E_INVALID_HANDLE,
         [](auto& given) { return SCardBeginTransaction(given.orphan); }},
        {"EndTransaction: a released context", SCARD_E_INVALID_HANDLE,
         [](auto& given) { return SCardEndTransaction(given.orphan, SCARD_LEAVE_CARD); }},
        {"Status: no connection, a short buffer", SCARD_E_NO_SERVICE,
         [](auto& given) { return status(given.card, 1); }},

        {"Transmit: no command", SCARD_E_INVALID_PARAMETER,
         [](auto& given) { return transmitTo({.card = given.card, .send = nullptr}); }},
        {"Transmit: a long command", SCARD_E_INSUFFICIENT_BUFFER,
         [](auto& given) {
             return transmitTo({.card = given.card, .sendLength = kMoreThanAnOldDaemonTakes});
         }},
        {"Transmit: two protocols to send by", SCARD_E_INVALID_PARAMETER,
         [](auto& given) { return transmitTo({.card = given.card, .sendPci = &kTwoProtocols}); }},
        {"Transmit: a released context", SCARD_E_INVALID_HANDLE,
         [](auto& given) { return transmitTo({.card = given.orphan}); }},
        {"Control: no input", SCARD_E_INVALID_PARAMETER,
         [](auto& given) { return control({.card = given.card, .in = nullptr}); }},
        {"Control: a long input", SCARD_E_INSUFFICIENT_BUFFER,
         [](auto& given) {
             return control({.card = given.card, .inLength = kMoreThanAnOldDaemonTakes});
         }},
        {"Control: a released context", SCARD_E_INVALID_HANDLE,
         [](auto& given) { return control({.card = given.orphan}); }},

        {"GetAttrib: no length", SCARD_E_INVALID_PARAMETER,
         [](auto& given) { return getAttribute(given.card, bytes(), nullptr); }},
        {"GetAttrib: a released context", SCARD_E_INVALID_HANDLE,
         [](auto& given) { return getAttribute(given.orphan, bytes(), place(99)); }},
        {"GetAttrib: a large room", SCARD_E_INSUFFICIENT_BUFFER,
         [](auto& given) {
             return getAttribute(given.card, bytes(), place(kMoreThanTheFixedFormTakes));
         }},
        {"SetAttrib: no value", SCARD_E_INVALID_PARAMETER,
         [](auto& given) { return setAttribute(given.card, nullptr, 5); }},
        {"SetAttrib: no connection, a long value", SCARD_E_NO_SERVICE,
         [](auto& given) { return setAttribute(given.card, bytes(), kMoreThanTheFixedFormTakes); }},
        {"SetAttrib: no connection, a released context", SCARD_E_NO_SERVICE,
         [](auto& given) { return setAttribute(given.orphan, bytes(), 5); }},
        {"GetTransmitCount: no place for the count", SCARD_E_INVALID_PARAMETER,
         [](auto& given) { return SCardGetTransmitCount(given.card, nullptr); }},
        {"GetTransmitCount: a released context", SCARD_E_INVALID_HANDLE,
         [](auto& given) { return SCardGetTransmitCount(given.orphan, place()); }},
        {"GetTransmitCount: no connection, an old daemon", SCARD_E_NO_SERVICE,
         [](auto& given) { return SCardGetTransmitCount(given.card, place()); }},

        {"ListCards: no connection, a malformed ATR", kHostsRefusal,
         [](auto& given) { return listCards(given.context, kMalformedAtr, place(99)); }},
        {"GetDeviceTypeId: an unfitting reader", SCARD_E_INVALID_VALUE,
         [](auto& given) { return deviceType(given.context, kUnfittingReader.c_str()); }},
        {"GetDeviceTypeId: no connection, an old daemon", SCARD_E_NO_SERVICE,
         [](auto& given) { return deviceType(given.context); }},
        {"ReadCache: no connection, an old daemon", SCARD_E_NO_SERVICE,
         [](auto& given) { return readCache(given.context); }},
        {"WriteCache: no connection, an old daemon", SCARD_E_NO_SERVICE,
         [](auto& given) { return writeCache(given.context); }},
        {"GetReaderIcon: no connection, an old daemon", SCARD_E_NO_SERVICE,
         [](auto& given) { return icon(given.context); }},
        {"IntroduceCardType: an unfitting card", SCARD_E_INVALID_VALUE,
         [](auto&) { return introduce(0, kUnfittingCard.c_str()); }},
        {"IntroduceCardType: a long ATR", SCARD_E_INVALID_PARAMETER,
         [](auto&) { return introduce(0, "A Card", 34); }},
        {"Audit: no connection, an old daemon", SCARD_E_NO_SERVICE,
         [](auto&) { return SCardAudit(0, 1); }},
    });
}

TEST_F(OrderOfChecksTest, OfCallsWhoseContextTheDaemonRefuses) {
    refuseOnTheHost();
    daemon.on(Command::kEstablishContext,
              answering(16, {{12, static_cast<std::uint32_t>(kDaemonsRefusal)}}));
    establishRedirected(kFixedForm);
    handles_ = {context, 0, 0};
    expectArgumentsOfConnectToWin();
    expectWinners({
        {"Cancel: the daemon's refusal, the host's", kDaemonsRefusal,
         [](auto& given) { return SCardCancel(given.context); }},
        {"ListCards: a refused context, a malformed ATR", kHostsRefusal,
         [](auto& given) { return listCards(given.context, kMalformedAtr, place(99)); }},
        {"GetDeviceTypeId: no reader", SCARD_E_INVALID_PARAMETER,
         [](auto& given) { return deviceType(given.context, nullptr); }},
        {"GetDeviceTypeId: an unfitting reader", SCARD_E_INVALID_VALUE,
         [](auto& given) { return deviceType(given.context, kUnfittingReader.c_str()); }},
        {"GetDeviceTypeId: a refused context, an old daemon", kDaemonsRefusal,
         [](auto& given) { return deviceType(given.context); }},
        {"ReadCache: no length", SCARD_E_INVALID_PARAMETER,
         [](auto& given) { return readCache(given.context, {}, nullptr); }},
        {"ReadCache: a refused context, an old daemon", kDaemonsRefusal,
         [](auto& given) { return readCache(given.context); }},
        {"WriteCache: data of no length", SCARD_E_INVALID_PARAMETER,
         [](auto& given) { return writeCache(given.context, {}, bytes(), 0); }},
        {"WriteCache: a refused context, an old daemon", kDaemonsRefusal,
         [](auto& given) { return writeCache(given.context); }},
        {"GetReaderIcon: no length", SCARD_E_INVALID_PARAMETER,
         [](auto& given) { return icon(given.context, nullptr); }},
        {"GetReaderIcon: a refused context, an old daemon", kDaemonsRefusal,
         [](auto& given) { return icon(given.context); }},
    });
}

TEST_F(OrderOfChecksTest, OfCallsWhileTheDaemonIsAway) {
    serveWithAnOldDaemon();
    stopDaemon();
    expectWinners({
        {"Reconnect: a card that is gone, no place for the protocol", SCARD_E_INVALID_HANDLE,
         [](auto& given) { return reconnect(given.card, nullptr); }},
        {"Status: a card that is gone, a short buffer", SCARD_E_INVALID_HANDLE,
         [](auto& given) { return status(given.card, 1); }},
        {"Transmit: a card that is gone, no command", SCARD_E_INVALID_HANDLE,
         [](auto& given) { return transmitTo({.card = given.card, .send = nullptr}); }},
        {"Control: a card that is gone, no input", SCARD_E_INVALID_HANDLE,
         [](auto& given) { return control({.card = given.card, .in = nullptr}); }},
        {"GetAttrib: a card that is gone, no length", SCARD_E_INVALID_HANDLE,
         [](auto& given) { return getAttribute(given.card, bytes(), nullptr); }},
        {"SetAttrib: a card that is gone, no value", SCARD_E_INVALID_HANDLE,
         [](auto& given) { return setAttribute(given.card, nullptr, 5); }},
        {"GetTransmitCount: a card that is gone, no place for the count", SCARD_E_INVALID_HANDLE,
         [](auto& given) { return SCardGetTransmitCount(given.card, nullptr); }},
        {"ListReaders: no length, an unknown context", SCARD_E_INVALID_PARAMETER,
         [](auto&) { return listReadersOf(kUnknown, nullptr); }},
        // The checks of arguments are the daemon's side's; the host judges its own.
        {"ListCards: an unknown context, no length", SCARD_E_INVALID_HANDLE,
         [](auto&) { return listCards(kUnknown, nullptr, nullptr); }},
        {"GetDeviceTypeId: an unknown context, no reader", SCARD_E_INVALID_HANDLE,
         [](auto&) { return deviceType(kUnknown, nullptr); }},
        {"GetCardTypeProviderName: an unknown context, no length", SCARD_E_INVALID_HANDLE,
         [](auto&) { return getProvider(kUnknown, kRemoteCardType, nullptr); }},
        {"ReadCache: an unknown context, no length", SCARD_E_INVALID_HANDLE,
         [](auto&) { return readCache(kUnknown, {}, nullptr); }},
        {"WriteCache: an unknown context, no data", SCARD_E_INVALID_HANDLE,
         [](auto&) { return writeCache(kUnknown, {}, nullptr); }},
        {"GetReaderIcon: an unknown context, no length", SCARD_E_INVALID_HANDLE,
         [](auto&) { return icon(kUnknown, nullptr); }},
        {"IntroduceCardType: an unknown context, a long ATR", SCARD_E_INVALID_HANDLE,
         [](auto&) { return introduce(kUnknown, "A Card", 34); }},
    });
}

TEST_F(OrderOfChecksTest, OfCallsWithoutTheHostsLibrary) {
    const ImportPatch<decltype(::LoadLibraryA)> load(
        libraryModule(), "KERNEL32.dll", "LoadLibraryA", [](LPCSTR) -> HMODULE { return nullptr; });
    expectWinners({
        {"EstablishContext: no place for it", SCARD_E_INVALID_PARAMETER,
         [](auto&) { return SCardEstablishContext(SCARD_SCOPE_USER, nullptr, nullptr, nullptr); }},
        {"ReleaseContext: an unknown one", SCARD_E_INVALID_HANDLE,
         [](auto&) { return SCardReleaseContext(kUnknown); }},
        {"IsValidContext: an unknown one", SCARD_E_INVALID_HANDLE,
         [](auto&) { return SCardIsValidContext(kUnknown); }},
        {"Cancel: an unknown context", SCARD_E_INVALID_HANDLE,
         [](auto&) { return SCardCancel(kUnknown); }},
        {"Connect: an unknown context", SCARD_E_INVALID_HANDLE,
         [](auto&) { return connectTo({.context = kUnknown}); }},
        {"ListReaders: no length", SCARD_E_INVALID_PARAMETER,
         [](auto&) { return listReadersOf(0, nullptr); }},
        {"ListReaders: an unknown context", SCARD_E_INVALID_HANDLE,
         [](auto&) { return listReadersOf(kUnknown, place(99)); }},
        {"ListReaderGroups: an unknown context", SCARD_E_INVALID_HANDLE,
         [](auto&) { return listGroupsOf(kUnknown, place(99)); }},
        {"ListCards: an unknown context", SCARD_E_INVALID_HANDLE,
         [](auto&) { return listCards(kUnknown, nullptr, place(99)); }},
        {"GetDeviceTypeId: an unknown context", SCARD_E_INVALID_HANDLE,
         [](auto&) { return deviceType(kUnknown); }},
        {"GetCardTypeProviderName: an unknown context", SCARD_E_INVALID_HANDLE,
         [](auto&) { return getProvider(kUnknown); }},
        {"SetCardTypeProviderName: an unknown context", SCARD_E_INVALID_HANDLE,
         [](auto&) { return setProvider(kUnknown, "A Card"); }},
        {"IntroduceCardType: an unknown context", SCARD_E_INVALID_HANDLE,
         [](auto&) { return introduce(kUnknown, "A Card"); }},
        {"ForgetCardType: an unknown context", SCARD_E_INVALID_HANDLE,
         [](auto&) { return SCardForgetCardTypeA(kUnknown, "A Card"); }},
        {"Audit: an unknown context", SCARD_E_INVALID_HANDLE,
         [](auto&) { return SCardAudit(kUnknown, 1); }},
        {"ReadCache: an unknown context", SCARD_E_INVALID_HANDLE,
         [](auto&) { return readCache(kUnknown); }},
        {"WriteCache: an unknown context", SCARD_E_INVALID_HANDLE,
         [](auto&) { return writeCache(kUnknown); }},
        {"GetReaderIcon: an unknown context", SCARD_E_INVALID_HANDLE,
         [](auto&) { return icon(kUnknown); }},
    });
}

}  // namespace
}  // namespace tez::test
