#pragma once

#include <windows.h>

#include <functional>
#include <stdexcept>
#include <thread>

#include "byte_string.h"
#include "common/owned_handle.h"

namespace tez::test {

/// The name that the library connects to.
inline constexpr const char* kDaemonPipe = R"(\\.\pipe\tez-pcscd-0)";

/// An operation of a ServerPipe failed: the client has closed the pipe, or the test is over.
class PipeBroken : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

/// The daemon's end of one instance of the pipe. Every operation throws PipeBroken when it fails.
class ServerPipe {
  public:
    /// Makes the instance, so that a client can open it from now on.
    /// @param stop         an event that ends every wait.
    /// @param bufferSize   what the pipe takes up before a writer has to wait.
    /// @param busyTimeout  how long clients wait by default while all instances are busy, in ms.
    explicit ServerPipe(HANDLE stop, DWORD bufferSize = 4096, DWORD busyTimeout = 50);

    /// Another instance of the pipe, which a client can open from now on.
    ServerPipe makeNext() const { return ServerPipe(stop_); }

    /// Waits for a client.
    void accept();
    /// Waits for exactly so many bytes.
    Bytes read(std::size_t size);
    void write(const Bytes& bytes);
    /// Takes a whole handshake and answers it with a version. Returns what was received.
    Bytes handshake(std::uint32_t major = 1, std::uint32_t minor = 4);
    /// Waits until the client has closed its end; false if it sends something instead.
    bool waitForClose();
    /// Does nothing until the test is over.
    void stall() { WaitForSingleObject(stop_, INFINITE); }
    /// Closes the instance, with whatever the client has not read.
    void close() noexcept { pipe_.close(); }

  private:
    template <class Start>
    std::size_t transfer(Start start);

    HANDLE stop_;
    OwnedFile pipe_;
};

/// A daemon that does, on a thread of its own, what a test tells it to:
///
///     PipeServer daemon([](ServerPipe& pipe) {
///         pipe.accept();
///         pipe.handshake();
///     });
///
/// The first instance of the pipe stands when the object does. The script may make more of them.
/// PipeBroken ends the script silently, any other exception fails the test; all instances are
/// closed at its end.
class PipeServer {
  public:
    explicit PipeServer(std::function<void(ServerPipe&)> script, DWORD bufferSize = 4096,
                        DWORD busyTimeout = 50);
    PipeServer(const PipeServer&) = delete;
    PipeServer& operator=(const PipeServer&) = delete;
    /// Ends the script wherever it is.
    ~PipeServer();

    /// Waits until the script has come to its end by itself.
    void finish();

  private:
    OwnedHandle stop_;
    ServerPipe first_;
    std::thread thread_;
};

}  // namespace tez::test
