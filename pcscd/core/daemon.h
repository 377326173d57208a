#pragma once

#include <atomic>
#include <cstdint>
#include <optional>

#include "core/byte_stream.h"
#include "core/card_service.h"
#include "core/clients.h"
#include "core/traffic.h"

namespace tez::pcscd {

/// The daemon's end of the protocol: serves any number of clients at once from a CardService. Where
/// the connections come from is its user's business. Every member may be called from any thread.
///
/// The contexts of a program that is gone, that is of a process whose last connection has ended,
/// are released, and with them all that it held.
class Daemon {
  public:
    /// The service is borrowed.
    explicit Daemon(CardService& service, ProtocolVersion version = {})
        : service_(service), version_(version) {}
    virtual ~Daemon() = default;
    Daemon(const Daemon&) = delete;
    Daemon& operator=(const Daemon&) = delete;

    /// Serves one client until either end closes the stream, and closes it. Returns some time after
    /// that: when nothing that the client asked for is in progress any more. Throws
    /// std::system_error, having done nothing, when the system has no thread to answer on, and what
    /// went wrong in serving this client, such as std::bad_alloc, when all of the above is done.
    ///
    /// @param connection a number of the user's choice, by which the hooks below tell connections.
    /// @param process the client's process: connections of one process share their contexts.
    void serve(ByteStream& stream, std::uint64_t connection, Clients::Process process);

    /// Releases every context of the service, which ends all waits.
    void releaseAll();

    /// For handshakes that come after the call.
    void setVersion(ProtocolVersion version) { version_ = version; }

  protected:
    // Called as things happen, on a connection's own threads, so blocking in one blocks that
    // connection only. What greet and answer throw ends that connection only; the others throw
    // nothing.

    virtual void opened(std::uint64_t /*connection*/) {}
    /// The stream is closed; what was asked for on it may still be in progress.
    virtual void closed(std::uint64_t /*connection*/) {}
    /// A client has opened a connection. @return what it is told: the version of the handshake.
    virtual Reply greet(const Handshake& handshake);
    /// A client asks for something. @return the answer.
    virtual Reply answer(const Request& request, Clients::Process process);

  private:
    std::optional<ProtocolVersion> shakeHands(ByteStream& stream, std::uint64_t connection);
    void release(const Contexts& contexts);

    CardService& service_;
    Clients clients_;
    std::atomic<ProtocolVersion> version_;
};

}  // namespace tez::pcscd
