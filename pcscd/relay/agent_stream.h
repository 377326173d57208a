#pragma once

#include <winsock2.h>

#include <cstdint>
#include <span>
#include <utility>

#include "link/hello.h"
#include "pipe/transfer.h"
#include "relay/agent_address.h"

namespace tez::relay {

/// Winsock for as long as it lives. Throws std::system_error without.
class Winsock {
  public:
    Winsock();
    ~Winsock();
    Winsock(const Winsock&) = delete;
    Winsock& operator=(const Winsock&) = delete;
};

/// Owns a socket.
class Socket {
  public:
    explicit Socket(SOCKET socket = INVALID_SOCKET) : socket_(socket) {}
    Socket(Socket&& other) noexcept : socket_(std::exchange(other.socket_, INVALID_SOCKET)) {}
    Socket& operator=(Socket&& other) noexcept {
        std::swap(socket_, other.socket_);
        return *this;
    }
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;
    ~Socket() {
        if (socket_ != INVALID_SOCKET) {
            closesocket(socket_);
        }
    }

    SOCKET get() const { return socket_; }
    explicit operator bool() const { return socket_ != INVALID_SOCKET; }
    /// As the functions for overlapped operations take it.
    HANDLE handle() const { return reinterpret_cast<HANDLE>(socket_); }

  private:
    SOCKET socket_;
};

/// A stream of the link, over TCP. One thread may read while another one writes.
class AgentStream {
  public:
    struct Peer {
        AgentAddress address;
        link::Token token;
        pcscd::Limit helloLimit =
            link::kHelloLimit;  ///< for the connection, and again for the hello
    };

    /// Connects to the agent and exchanges hellos. Throws std::runtime_error, whose text tells an
    /// operator what to look at, when the agent cannot be reached, does not answer in time, or is
    /// not the one with the token; also when `interrupt` is set.
    AgentStream(const Peer& peer, const link::Origin& origin, HANDLE interrupt);

    /// Reads what there is, at least a byte; a count of 0 without an error is the stream's end.
    pcscd::Outcome read(std::span<std::uint8_t> buffer, pcscd::Interrupts interrupts,
                        pcscd::Limit limit = pcscd::kNoLimit);
    /// Reads until the buffer is full. False at the stream's end, and when the limit for all of it
    /// is over.
    bool readAll(std::span<std::uint8_t> buffer, HANDLE interrupt, pcscd::Limit limit);
    /// False when the stream broke or the write was interrupted.
    bool write(std::span<const std::uint8_t> bytes, pcscd::Interrupts interrupts);
    /// Tells the agent that nothing more comes; its own bytes can still be read.
    void finishWriting();

  private:
    pcscd::Transfer reading_;
    pcscd::Transfer writing_;
    Socket socket_;
};

}  // namespace tez::relay
