#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <variant>

#include "agent/file_descriptor.h"

namespace tez::agent {

struct UnixAddress {
    std::filesystem::path path;
};
struct TcpAddress {
    std::uint32_t host;  ///< IPv4, in the machine's byte order
    std::uint16_t port;
};
using Address = std::variant<UnixAddress, TcpAddress>;

/// "unix:PATH" or "A.B.C.D:PORT"; nullopt for anything else.
std::optional<Address> parseAddress(const std::string& text);

/// Whether only this machine can reach the address.
bool isOfThisMachine(const Address& address);

/// A socket that takes connections.
class Listener {
  public:
    /// Makes the socket; a Unix one for its owner alone (mode 0600), in place of one that nobody
    /// serves any more. Throws std::system_error when that cannot be.
    explicit Listener(const Address& address);
    /// Takes over a socket that is listening already.
    explicit Listener(FileDescriptor socket) : socket_(std::move(socket)) {}
    /// Removes the file of a Unix socket that it made.
    ~Listener();
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;

    /// Waits for a connection or for `stop` to become readable: no connection then.
    FileDescriptor accept(int stop) const;

  private:
    FileDescriptor socket_;
    std::filesystem::path path_;
};

/// The socket that the service manager passes to a program that it starts when the first connection
/// comes; none when it was started otherwise. Throws std::runtime_error when there are several.
std::optional<FileDescriptor> takeActivationSocket();

}  // namespace tez::agent
