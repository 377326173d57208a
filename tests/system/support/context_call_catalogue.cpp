// The calls on contexts and on readers.
#include <vector>

#include "catalogue_arguments.h"

namespace tez::test {
namespace {

constexpr std::uint32_t kMostReaderNames = 2048;

/// Opens a connection and closes it again.
template <class Char, class Connect>
LONG connectAndDisconnect(Connect connect, const Target& on) {
    SCARDHANDLE card = 0;
    DWORD protocol = 0;
    const LONG rv = connect(on.handle, text<Char>(readerOf(on.side)).c_str(), SCARD_SHARE_SHARED,
                            SCARD_PROTOCOL_Tx, &card, &protocol);
    return rv == SCARD_S_SUCCESS ? SCardDisconnect(card, SCARD_LEAVE_CARD) : rv;
}

/// At the daemon the context is one from its first use on.
LONG establishAndRelease(const Target& on) {
    SCARDCONTEXT context = 0;
    LONG rv = SCardEstablishContext(SCARD_SCOPE_USER, nullptr, nullptr, &context);
    if (rv == SCARD_S_SUCCESS) {
        rv = on.side == Side::kHost
                 ? rv
                 : connectAndDisconnect<char>(SCardConnectA, {context, Side::kDaemon});
        SCardReleaseContext(context);
    }
    return rv;
}

template <class Char, class Connect>
ExportedCall connect(const char* name, Connect call) {
    return {.name = name,
            .takes = Takes::kContext,
            .answer = Answer{.command = Command::kConnect,
                             .recordSize = ConnectLayout::kSize,
                             .fields = {{ConnectLayout::kCard, 0x0ABC},
                                        {ConnectLayout::kActiveProtocol, SCARD_PROTOCOL_T1}}},
            .make = [call](const Target& on) { return connectAndDisconnect<Char>(call, on); }};
}

template <class Char, class ListReaders>
ExportedCall listReaders(const char* name, ListReaders call) {
    using namespace std::string_literals;
    const std::string names = kRemoteReader + "\0\0"s;
    return handingOut({.name = name,
                       .takes = Takes::kAnyContext,
                       .answer = Answer{.command = Command::kListReaders,
                                        .recordSize = ListLayout::kSize,
                                        .unit = 1,
                                        .data = textBytes(names),
                                        .mostAnnounced = kMostReaderNames},
                       .withoutDaemon = SCARD_S_SUCCESS},
                      output<Char>([call](const Target& on, Char* readers, DWORD* length) {
                          return call(on.handle, nullptr, readers, length);
                      }));
}

template <class Char, class ListGroups>
ExportedCall listGroups(const char* name, ListGroups call) {
    return handingOut({.name = name, .takes = Takes::kAnyContext},
                      output<Char>([call](const Target& on, Char* groups, DWORD* length) {
                          return call(on.handle, groups, length);
                      }));
}

template <class Char, class State, class GetStatusChange>
ExportedCall statusChange(const char* name, GetStatusChange call) {
    const RecordBytes answered =
        RecordBytes(ReaderStateLayout::kSize)
            .text(ReaderStateLayout::kReader, kRemoteReader)
            .u32(ReaderStateLayout::kEvent, SCARD_STATE_PRESENT | SCARD_STATE_CHANGED);
    return {.name = name,
            .takes = Takes::kContext,
            .answer = Answer{.command = Command::kGetStatusChange,
                             .recordSize = StatusChangeLayout::kSize,
                             .unit = ReaderStateLayout::kSize,
                             .data = answered.bytes(),
                             .mostAnnounced = 1},
            .make =
                [call](const Target& on) {
                    const auto reader = text<Char>(readerOf(on.side));
                    State state = {};
                    state.szReader = reader.c_str();
                    return call(on.handle, 0, &state, 1);
                },
            .withoutDaemon = SCARD_S_SUCCESS};  // the host has nothing to tell of the reader
}

}  // namespace

std::vector<ExportedCall> contextCalls() {
    return {
        {.name = "SCardEstablishContext",
         .answer = Answer{.command = Command::kEstablishContext,
                          .recordSize = EstablishLayout::kSize,
                          .fields = {{EstablishLayout::kContext, 0x0DEF}}},
         .make = establishAndRelease},
        {.name = "SCardReleaseContext",
         .takes = Takes::kContext,
         .answer = Answer{.command = Command::kReleaseContext, .recordSize = HandleLayout::kSize},
         .make = [](const Target& on) { return SCardReleaseContext(on.handle); },
         .endsHandle = true,
         .withoutDaemon = SCARD_S_SUCCESS},
        {.name = "SCardIsValidContext",
         .takes = Takes::kContext,
         .make = [](const Target& on) { return SCardIsValidContext(on.handle); }},
        {.name = "SCardCancel",
         .takes = Takes::kContext,
         .answer = Answer{.command = Command::kCancel, .recordSize = HandleLayout::kSize},
         .make = [](const Target& on) { return SCardCancel(on.handle); },
         .needsNoDaemon = true},
        {.name = "SCardFreeMemory",
         .takes = Takes::kAnyContext,
         .make = [](const Target& on) { return SCardFreeMemory(on.handle, nullptr); },
         .asksNobody = true},
        {.name = "SCardAccessStartedEvent",
         .make = [](const Target&) -> LONG {
             if (SCardAccessStartedEvent() == nullptr) {
                 return SCARD_E_NO_MEMORY;
             }
             SCardReleaseStartedEvent();
             return SCARD_S_SUCCESS;
         }},
        {.name = "SCardReleaseStartedEvent",
         .make = [](const Target&) -> LONG {
             SCardReleaseStartedEvent();
             return SCARD_S_SUCCESS;
         }},
    };
}

std::vector<ExportedCall> readerCalls() {
    return {
        connect<char>("SCardConnectA", SCardConnectA),
        connect<wchar_t>("SCardConnectW", SCardConnectW),
        listReaders<char>("SCardListReadersA", SCardListReadersA),
        listReaders<wchar_t>("SCardListReadersW", SCardListReadersW),
        listGroups<char>("SCardListReaderGroupsA", SCardListReaderGroupsA),
        listGroups<wchar_t>("SCardListReaderGroupsW", SCardListReaderGroupsW),
        statusChange<char, SCARD_READERSTATEA>("SCardGetStatusChangeA", SCardGetStatusChangeA),
        statusChange<wchar_t, SCARD_READERSTATEW>("SCardGetStatusChangeW", SCardGetStatusChangeW),
    };
}

}  // namespace tez::test
