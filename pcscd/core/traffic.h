#pragma once

#include <cstdint>
#include <utility>
#include <vector>

#include "simulated/virtual_card.h"

namespace tez::test {

/// Commands of the daemon's protocol.
enum class Command : std::uint32_t {
    kEstablishContext = 1,
    kReleaseContext = 2,
    kListReaders = 3,
    kConnect = 4,
    kReconnect = 5,
    kDisconnect = 6,
    kBeginTransaction = 7,
    kEndTransaction = 8,
    kTransmit = 9,
    kControl = 10,
    kStatus = 11,
    kGetStatusChange = 12,
    kCancel = 13,
    kGetAttribute = 15,
    kSetAttribute = 16,
    kGetTransmitCount = 0x801,
    kListCards = 0x802,
    kGetDeviceTypeId = 0x803,
    kGetCardTypeProviderName = 0x804,
    kReadCache = 0x805,
    kWriteCache = 0x806,
    kGetReaderIcon = 0x807,
    kAudit = 0x808,
    kSetCardTypeProviderName = 0x809,
    kIntroduceCardType = 0x80A,
    kForgetCardType = 0x80B,
};

struct ProtocolVersion {
    std::uint32_t major = 1;
    std::uint32_t minor = 4;

    bool isAtLeast(const ProtocolVersion& other) const {
        return major != other.major ? major > other.major : minor >= other.minor;
    }
};

/// The opening of one connection. Connections are numbered from 1 in the order of their acceptance.
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

/// What the daemon does about a request: writes the blocks, each with one WriteFile, then goes on
/// reading or closes the pipe.
struct Reply {
    std::vector<Bytes> blocks;
    bool close = false;

    static Reply of(std::vector<Bytes> blocks) { return {std::move(blocks), false}; }
    /// Closes the pipe, after writing the blocks if there are any; the client can still read them.
    static Reply closePipe(std::vector<Bytes> blocks = {}) { return {std::move(blocks), true}; }
    /// Writes nothing. DaemonSimulator::send can answer later.
    static Reply silence() { return {}; }
};

}  // namespace tez::test
