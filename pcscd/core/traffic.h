#pragma once

#include <cstdint>
#include <utility>
#include <vector>

#include "core/bytes.h"
#include "wire/command_codes.h"

namespace tez::pcscd {

/// Commands of the protocol.
enum class Command : std::uint32_t {
    kEstablishContext = CMD_ESTABLISH_CONTEXT,
    kReleaseContext = CMD_RELEASE_CONTEXT,
    kListReaders = CMD_LIST_READERS,
    kConnect = CMD_SCARD_CONNECT,
    kReconnect = CMD_RECONNECT,
    kDisconnect = CMD_DISCONNECT,
    kBeginTransaction = CMD_BEGIN_TRANSACTION,
    kEndTransaction = CMD_END_TRANSACTION,
    kTransmit = CMD_TRANSMIT,
    kControl = CMD_CONTROL,
    kStatus = CMD_STATUS,
    kGetStatusChange = CMD_GET_STATUS_CHANGE,
    kCancel = CMD_CANCEL,
    kGetAttribute = CMD_GET_ATTRIB,
    kSetAttribute = CMD_SET_ATTRIB,
    kGetTransmitCount = CMD_GET_TRANSMIT_COUNT,
    kListCards = CMD_LIST_CARDS,
    kGetDeviceTypeId = CMD_GET_DEVICE_TYPE_ID,
    kGetCardTypeProviderName = CMD_GET_CARD_TYPE_PROVIDER_NAME,
    kReadCache = CMD_READ_CACHE,
    kWriteCache = CMD_WRITE_CACHE,
    kGetReaderIcon = CMD_GET_READER_ICON,
    kAudit = CMD_AUDIT,
    kSetCardTypeProviderName = CMD_SET_CARD_TYPE_PROVIDER_NAME,
    kIntroduceCardType = CMD_INTRODUCE_CARD_TYPE,
    kForgetCardType = CMD_FORGET_CARD_TYPE,
};

struct ProtocolVersion {
    std::uint32_t major = 1;
    std::uint32_t minor = 4;

    bool isAtLeast(const ProtocolVersion& other) const {
        return major != other.major ? major > other.major : minor >= other.minor;
    }
};

/// The opening of one connection.
struct Handshake {
    std::uint64_t connection = 0;
    Bytes token;              ///< up to and including its zero byte
    Bytes option;             ///< the four option bytes
    ProtocolVersion version;  ///< what was announced in return, or would have been
};

/// One request, byte for byte as it stood on the pipe.
struct Request {
    std::uint64_t connection = 0;
    ProtocolVersion version;  ///< what the connection's handshake announced
    Bytes header;             ///< 12 bytes
    Bytes body;               ///< what follows the header: record and data phase
    Command command{};        ///< from the header
    bool complete = true;     ///< false: the pipe broke before the announced body had arrived
};

/// What the daemon does about a request: writes the blocks, each as one piece, then goes on reading
/// or closes the pipe.
struct Reply {
    std::vector<Bytes> blocks;
    bool close = false;

    static Reply of(std::vector<Bytes> blocks) { return {std::move(blocks), false}; }
    /// Closes the pipe, after writing the blocks if there are any; the client can still read them.
    static Reply closePipe(std::vector<Bytes> blocks = {}) { return {std::move(blocks), true}; }
    /// Writes nothing.
    static Reply silence() { return {}; }
};

}  // namespace tez::pcscd
