#pragma once

#include <cstddef>
#include <cstdint>

#include "common/scard_api.h"
#include "daemon/service_state.h"

namespace tez {

/// A connection to the PC/SC daemon. Used by one thread at a time; the ConnectionPool sees to that.
/// Operations with a LONG result return a PC/SC code; every failure of the transport is
/// SCARD_E_NO_SERVICE and leaves the connection closed.
///
/// Another kind of connection may override any one of them. Two are called by none of the library's
/// own code, and are there for such a kind: sendHeaderForward, for headers that it passes on, and
/// checkDaemonAvailability, for a kind whose address can be missing.
class DaemonConnection {
  public:
    virtual ~DaemonConnection() = default;

    /// Opens the connection and runs the handshake. True at once, without I/O, if it is open.
    virtual bool connect() = 0;
    /// Closes the connection if it is open.
    virtual void closeSocket() = 0;

    /// Writes the whole buffer.
    [[nodiscard]] virtual LONG sendMessage(const void* data, std::uint64_t size) = 0;
    /// As sendHeader.
    [[nodiscard]] virtual LONG sendHeaderForward(std::uint32_t command, std::uint64_t size) = 0;
    /// Writes the header that announces size bytes of the command's request. A header that cannot
    /// be written is carried over to a fresh connection, as long as one can be opened.
    [[nodiscard]] virtual LONG sendHeader(std::uint32_t command, std::uint64_t size) = 0;
    /// As sendRequest; the flag is for connection kinds that distinguish redirected calls.
    [[nodiscard]] virtual LONG sendRequestFlagged(std::uint32_t command, const void* data,
                                                  std::uint64_t size, bool flag) = 0;
    /// sendHeader, then sendMessage.
    [[nodiscard]] virtual LONG sendRequest(std::uint32_t command, const void* data,
                                           std::uint64_t size) = 0;

    /// Reads exactly size bytes, waiting at most timeout milliseconds (INFINITE: without limit).
    [[nodiscard]] virtual LONG receiveMessage(void* buffer, std::uint64_t size,
                                              std::uint32_t timeout) = 0;
    /// receiveMessage without a limit.
    [[nodiscard]] virtual LONG readMessage(void* buffer, std::uint64_t size) = 0;

    /// Whether the daemon's version, as negotiated by the last handshake, is this one or newer.
    virtual bool isProtocolAtLeast(std::uint32_t major, std::uint32_t minor) const = 0;
    /// Whether there is anything to connect to; does not try to.
    virtual bool checkDaemonAvailability() = 0;
    /// The state under which this kind of connection serves; in any other it is not reused.
    virtual ServiceState serviceKind() const = 0;

    /// Starts a read of exactly size bytes, for a caller that waits for other things meanwhile.
    /// Nothing else may be done with the connection until finishReceive or closeSocket, and until
    /// one of them has returned the buffer may be written to.
    /// @param ended  out on success: an event, the connection's own, that is set when the read is
    ///               over.
    [[nodiscard]] virtual LONG startReceive(void* buffer, std::uint64_t size, HANDLE& ended) = 0;
    /// Waits for the end of that read, without a limit, and returns what readMessage would have.
    [[nodiscard]] virtual LONG finishReceive() = 0;
};

}  // namespace tez
