// The calls on cards.
#include <array>

#include "catalogue_arguments.h"

namespace tez::test {
namespace {

// SELECT by name, with an answer that is always the same.
constexpr BYTE kSelect[] = {0x00, 0xA4, 0x04, 0x0C, 0x08, 0xF0, 0x54,
                            0x45, 0x5A, 0x44, 0x45, 0x4D, 0x4F};
constexpr DWORD kResponseRoom = 258;
constexpr std::uint32_t kAtrField = StatusLayout::kAtrLength - StatusLayout::kAtr;

LONG transmit(const Target& on, void* response, DWORD* length) {
    return SCardTransmit(on.handle, SCARD_PCI_T1, kSelect, sizeof kSelect, nullptr,
                         static_cast<BYTE*>(response), length);
}

LONG control(const Target& on, void* out, DWORD* length) {
    return SCardControl(on.handle, SCARD_CTL_CODE(kControlEcho), kSelect, sizeof kSelect, out,
                        *length, length);
}

/// A call that fills a buffer of the caller, who can neither ask for the length nor for a block.
ExportedCall filling(const char* name, Command command, auto call) {
    return {.name = name,
            .takes = Takes::kCard,
            .answer = Answer{.command = command,
                             .recordSize = TransmitLayout::kSize,  // and ControlLayout's
                             .unit = 1,
                             .data = sampleBytes(20),
                             .mostAnnounced = kResponseRoom,
                             .beyondMost = SCARD_E_INSUFFICIENT_BUFFER},
            .outputs = {{.isAllocatable = false, .make = call}},
            .make = [call](const Target& on) {
                std::array<BYTE, kResponseRoom> response{};
                auto length = static_cast<DWORD>(response.size());
                return call(on, response.data(), &length);
            }};
}

/// Asks for all that there is, name and ATR in blocks of which a failure must leave none.
template <class Char, class Status>
LONG statusInBlocks(Status call, SCARDHANDLE card) {
    Char* reader = nullptr;
    BYTE* atr = nullptr;
    DWORD state = 0;
    DWORD protocol = 0;
    auto readerLength = SCARD_AUTOALLOCATE;
    auto atrLength = SCARD_AUTOALLOCATE;
    // NOLINTBEGIN(cppcoreguidelines-pro-type-reinterpret-cast): the platform's way to say it
    const LONG rv = call(card, reinterpret_cast<Char*>(&reader), &readerLength, &state, &protocol,
                         reinterpret_cast<BYTE*>(&atr), &atrLength);
    // NOLINTEND(cppcoreguidelines-pro-type-reinterpret-cast)
    EXPECT_TRUE(rv == SCARD_S_SUCCESS || (reader == nullptr && atr == nullptr));
    SCardFreeMemory(0, reader);
    SCardFreeMemory(0, atr);
    return rv;
}

template <class Char, class Status>
ExportedCall status(const char* name, Status call) {
    return {.name = name,
            .takes = Takes::kCard,
            .answer = Answer{.command = Command::kStatus,
                             .recordSize = StatusLayout::kSize,
                             .fields = {{StatusLayout::kAtrLength, 20}},
                             .mostAnnounced = kAtrField,
                             .beyondMost = SCARD_F_INTERNAL_ERROR},
            .outputs = {output<Char>(
                            [call](const Target& on, Char* reader, DWORD* length) {
                                return call(on.handle, reader, length, nullptr, nullptr, nullptr,
                                            nullptr);
                            },
                            "Reader"),
                        output<BYTE>(
                            [call](const Target& on, BYTE* atr, DWORD* length) {
                                return call(on.handle, nullptr, nullptr, nullptr, nullptr, atr,
                                            length);
                            },
                            "Atr")},
            .make = [call](const Target& on) { return statusInBlocks<Char>(call, on.handle); }};
}

ExportedCall onCard(const char* name, Command command, std::size_t recordSize, auto call) {
    return {.name = name,
            .takes = Takes::kCard,
            .answer = Answer{.command = command, .recordSize = recordSize},
            .make = [call](const Target& on) { return call(on.handle); }};
}

ExportedCall getAttribute() {
    return handingOut({.name = "SCardGetAttrib",
                       .takes = Takes::kCard,
                       .answer = Answer{.command = Command::kGetAttribute,
                                        .recordSize = AttributeLayout::kSize,
                                        .unit = 1,
                                        .data = sampleBytes(20),
                                        .mostAnnounced = kLargestBlock,
                                        .beyondMost = SCARD_E_NO_MEMORY}},
                      output<BYTE>([](const Target& on, BYTE* value, DWORD* length) {
                          return SCardGetAttrib(on.handle, SCARD_ATTR_ATR_STRING, value, length);
                      }));
}

ExportedCall endTransaction() {
    ExportedCall call =
        onCard("SCardEndTransaction", Command::kEndTransaction, DispositionLayout::kSize,
               [](SCARDHANDLE card) { return SCardEndTransaction(card, SCARD_LEAVE_CARD); });
    call.prepare = [](const Target& on) { SCardBeginTransaction(on.handle); };
    return call;
}

ExportedCall disconnect() {
    ExportedCall call =
        onCard("SCardDisconnect", Command::kDisconnect, DispositionLayout::kSize,
               [](SCARDHANDLE card) { return SCardDisconnect(card, SCARD_LEAVE_CARD); });
    call.endsHandle = true;
    return call;
}

}  // namespace

std::vector<ExportedCall> cardCalls() {
    return {
        onCard("SCardReconnect", Command::kReconnect, ReconnectLayout::kSize,
               [](SCARDHANDLE card) {
                   DWORD protocol = 0;
                   return SCardReconnect(card, SCARD_SHARE_SHARED, SCARD_PROTOCOL_Tx,
                                         SCARD_LEAVE_CARD, &protocol);
               }),
        onCard("SCardBeginTransaction", Command::kBeginTransaction, HandleLayout::kSize,
               SCardBeginTransaction),
        endTransaction(),
        status<char>("SCardStatusA", SCardStatusA),
        status<wchar_t>("SCardStatusW", SCardStatusW),
        filling("SCardTransmit", Command::kTransmit, transmit),
        filling("SCardControl", Command::kControl, control),
        getAttribute(),
        onCard("SCardSetAttrib", Command::kSetAttribute, AttributeLayout::kSize,
               [](SCARDHANDLE card) {
                   return SCardSetAttrib(card, SCARD_ATTR_SUPRESS_T1_IFS_REQUEST, kSelect,
                                         sizeof kSelect);
               }),
        onCard("SCardGetTransmitCount", Command::kGetTransmitCount, TransmitCountLayout::kSize,
               [](SCARDHANDLE card) {
                   DWORD count = 0;
                   return SCardGetTransmitCount(card, &count);
               }),
        disconnect(),
    };
}

}  // namespace tez::test
