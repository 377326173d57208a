#pragma once

#include <windows.h>

#include <functional>
#include <stdexcept>
#include <thread>

#include "daemon_pipe.h"
#include "pipe/transfer.h"
#include "record_codec.h"

namespace tez::test {

/// An operation of a ScriptedPipe failed: the client has closed the pipe, or the test is over.
class PipeBroken : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

/// The daemon's end of one instance of the pipe. Every operation throws PipeBroken when it fails.
class ScriptedPipe {
  public:
    /// Makes the instance, so that a client can open it from now on.
    /// @param stop         an event that ends every wait.
    /// @param bufferSize   what the pipe takes up before a writer has to wait.
    /// @param busyTimeout  how long clients wait by default while all instances are busy, in ms.
    explicit ScriptedPipe(HANDLE stop, DWORD bufferSize = 4096, DWORD busyTimeout = 50);

    /// Another instance of the pipe, which a client can open from now on.
    ScriptedPipe makeNext() const { return ScriptedPipe(stop_); }

    /// Waits for a client.
    void accept();
    /// Waits for exactly so many bytes.
    Bytes read(std::size_t size);
    void write(const Bytes& bytes);
    /// Takes a whole handshake and answers it with a version. Returns what was received.
    Bytes handshake(std::uint32_t major = 1, std::uint32_t minor = 4);
    /// accept and handshake.
    void greet() {
        accept();
        handshake();
    }
    /// Waits until the client has closed its end; false if it sends something instead.
    bool waitForClose();
    /// Does nothing until the test is over.
    void stall() { WaitForSingleObject(stop_, INFINITE); }
    /// Closes the instance, with whatever the client has not read.
    void close() { pipe_.reset(); }

  private:
    template <class Start>
    std::size_t transfer(Start start);

    HANDLE stop_;
    UniqueHandle pipe_;
    Transfer transfer_;
};

/// A daemon that does, on a thread of its own, what a test tells it to. Unlike DaemonSimulator it
/// knows nothing of the protocol: for what the library does with bytes, whatever they mean.
///
///     ScriptedDaemon daemon([](ScriptedPipe& pipe) {
///         pipe.accept();
///         pipe.handshake();
///     });
///
/// The first instance of the pipe stands when the object does. The script may make more of them.
/// PipeBroken ends the script silently, any other exception fails the test; all instances are
/// closed at its end.
class ScriptedDaemon {
  public:
    explicit ScriptedDaemon(std::function<void(ScriptedPipe&)> script, DWORD bufferSize = 4096,
                            DWORD busyTimeout = 50);
    ScriptedDaemon(const ScriptedDaemon&) = delete;
    ScriptedDaemon& operator=(const ScriptedDaemon&) = delete;
    /// Ends the script wherever it is.
    ~ScriptedDaemon();

    /// Waits until the script has come to its end by itself.
    void finish();

  private:
    UniqueHandle stop_ = makeEvent();
    ScriptedPipe first_;
    std::thread thread_;
};

}  // namespace tez::test
