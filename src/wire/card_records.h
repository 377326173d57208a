#pragma once

#include <cstddef>
#include <cstdint>

namespace tez {

inline constexpr std::size_t kWireReaderNameSize = 128;  ///< the terminating NUL included
inline constexpr std::size_t kWireAtrSize = 264;

/// Bits of StatusRecord::dwState: a card's state is all that hold.
enum WireCardState : std::uint32_t {
    kWireAbsent = 0x02,
    kWirePresent = 0x04,
    kWireSwallowed = 0x08,  ///< in place, not powered
    kWirePowered = 0x10,
    kWireNegotiable = 0x20,  ///< powered, and no protocol chosen
    kWireSpecific = 0x40,    ///< a protocol is chosen
};

#pragma pack(push, 1)

/// CMD_SCARD_CONNECT
struct ConnectRecord {
    std::uint64_t hContext;
    char szReader[kWireReaderNameSize];  ///< NUL-terminated, the rest zero
    std::uint32_t dwShareMode;
    std::uint32_t dwPreferredProtocols;
    std::uint64_t hCard;             ///< out
    std::uint32_t dwActiveProtocol;  ///< out
    std::uint32_t rv;                ///< out
};

/// CMD_RECONNECT
struct ReconnectRecord {
    std::uint64_t hCard;
    std::uint32_t dwShareMode;
    std::uint32_t dwPreferredProtocols;
    std::uint32_t dwInitialization;
    std::uint32_t dwActiveProtocol;  ///< out
    std::uint32_t rv;                ///< out
};

/// CMD_DISCONNECT and CMD_END_TRANSACTION
struct DisconnectRecord {
    std::uint64_t hCard;
    std::uint32_t dwDisposition;
    std::uint32_t rv;  ///< out
};

/// CMD_BEGIN_TRANSACTION (a card) and CMD_CANCEL (a context)
struct HandleRecord {
    std::uint64_t handle;
    std::uint32_t rv;  ///< out
};

/// CMD_STATUS
struct StatusRecord {
    std::uint64_t hCard;
    std::uint32_t dwState;     ///< out: WireCardState
    std::uint32_t dwProtocol;  ///< out
    std::uint8_t pbAtr[kWireAtrSize];
    std::uint32_t cbAtrLen;  ///< in: room; out: bytes valid
    std::uint32_t rv;        ///< out
};

/// CMD_TRANSMIT, followed by the command bytes; the answer is followed by the response bytes.
struct TransmitRecord {
    std::uint64_t hCard;
    std::uint32_t ioSendPciProtocol;
    std::uint32_t cbSendLength;
    std::uint32_t ioRecvPciProtocol;  ///< out: the protocol of the answer
    std::uint32_t pcbRecvLength;      ///< in: room; out: bytes that follow
    std::uint32_t rv;                 ///< out
};

/// CMD_CONTROL, followed by the input bytes; the answer is followed by the output bytes.
struct ControlRecord {
    std::uint64_t hCard;
    std::uint32_t dwControlCode;  ///< the function number
    std::uint32_t cbInBufferSize;
    std::uint32_t cbOutBufferSize;
    std::uint32_t dwBytesReturned;  ///< out: bytes that follow
    std::uint32_t rv;               ///< out
};

#pragma pack(pop)

static_assert(sizeof(ConnectRecord) == 160);
static_assert(offsetof(ConnectRecord, szReader) == 8);
static_assert(offsetof(ConnectRecord, dwShareMode) == 136);
static_assert(offsetof(ConnectRecord, dwPreferredProtocols) == 140);
static_assert(offsetof(ConnectRecord, hCard) == 144);
static_assert(offsetof(ConnectRecord, dwActiveProtocol) == 152);
static_assert(offsetof(ConnectRecord, rv) == 156);
static_assert(sizeof(ReconnectRecord) == 28);
static_assert(offsetof(ReconnectRecord, dwShareMode) == 8);
static_assert(offsetof(ReconnectRecord, dwPreferredProtocols) == 12);
static_assert(offsetof(ReconnectRecord, dwInitialization) == 16);
static_assert(offsetof(ReconnectRecord, dwActiveProtocol) == 20);
static_assert(offsetof(ReconnectRecord, rv) == 24);
static_assert(sizeof(DisconnectRecord) == 16);
static_assert(offsetof(DisconnectRecord, dwDisposition) == 8);
static_assert(offsetof(DisconnectRecord, rv) == 12);
static_assert(sizeof(HandleRecord) == 12);
static_assert(offsetof(HandleRecord, rv) == 8);
static_assert(sizeof(StatusRecord) == 288);
static_assert(offsetof(StatusRecord, dwState) == 8);
static_assert(offsetof(StatusRecord, dwProtocol) == 12);
static_assert(offsetof(StatusRecord, pbAtr) == 16);
static_assert(offsetof(StatusRecord, cbAtrLen) == 280);
static_assert(offsetof(StatusRecord, rv) == 284);
static_assert(sizeof(TransmitRecord) == 28);
static_assert(offsetof(TransmitRecord, ioSendPciProtocol) == 8);
static_assert(offsetof(TransmitRecord, cbSendLength) == 12);
static_assert(offsetof(TransmitRecord, ioRecvPciProtocol) == 16);
static_assert(offsetof(TransmitRecord, pcbRecvLength) == 20);
static_assert(offsetof(TransmitRecord, rv) == 24);
static_assert(sizeof(ControlRecord) == 28);
static_assert(offsetof(ControlRecord, dwControlCode) == 8);
static_assert(offsetof(ControlRecord, cbInBufferSize) == 12);
static_assert(offsetof(ControlRecord, cbOutBufferSize) == 16);
static_assert(offsetof(ControlRecord, dwBytesReturned) == 20);
static_assert(offsetof(ControlRecord, rv) == 24);

}  // namespace tez
