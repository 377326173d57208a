#pragma once

#include <windows.h>

#include <memory>
#include <string>
#include <vector>

#include "host.h"
#include "pipe/pipe_daemon.h"
#include "scard_missing.h"
#include "simulated/simulated_service.h"

namespace tez::bench {

inline constexpr const char* kRemoteReader = "Remote Reader 0";

/// The library that is measured.
HMODULE libraryModule();
/// The host's library below it, as applications without this one would call it.
HMODULE hostModule();

/// A call of the host's library itself: the limit of a local call.
template <class Function>
Function* hostFunction(const char* name) {
    return reinterpret_cast<Function*>(reinterpret_cast<void*>(GetProcAddress(hostModule(), name)));
}

/// Both sides of the library in this process: the host behind its library, and a daemon. Made once.
class Sides {
  public:
    static Sides& instance();

    Host& host() noexcept { return host_; }
    test::SimulatedService& remote() noexcept { return remote_; }
    PipeDaemon& daemon() noexcept { return daemon_; }

    /// Starts the daemon and waits until the library serves by it.
    void startDaemon();
    /// Stops it and waits until the library has noticed.
    void stopDaemon();

  private:
    Sides();

    Host host_;
    SimulatedService remote_;
    PipeDaemon daemon_;
};

/// Nanoseconds of the first call that a process makes: a context is established. With the host
/// alone, or with the daemon of another process, as it happens to be.
double firstCall();

/// A context that has listed the readers of both sides. Throws std::runtime_error.
SCARDCONTEXT establish();
/// A shared connection. Throws std::runtime_error.
SCARDHANDLE connect(SCARDCONTEXT context, const char* reader);
/// The readers of both sides, as the context lists them.
std::string listReaders(SCARDCONTEXT context);

SCARD_READERSTATEA stateOf(const char* reader, DWORD state);

}  // namespace tez::bench
