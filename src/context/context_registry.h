#pragma once

#include <cstdint>
#include <optional>

#include "common/scard_api.h"

namespace tez {

/// "No daemon context". Not all ones in 64 bits: every test compares with exactly this value.
inline constexpr std::uint64_t NO_REMOTE_CONTEXT = 0xFFFFFFFF;

/// What stands behind an application's context handle.
struct ContextEntry {
    std::uint64_t systemHandle = 0;                 ///< the system library's context; 0: none
    std::uint64_t remote = NO_REMOTE_CONTEXT;       ///< the daemon's, for "remote" operations
    std::uint64_t remoteLocal = NO_REMOTE_CONTEXT;  ///< the same for "remote-local" ones
    std::uint32_t scope = 0;                        ///< reused for every later establishment
    bool cancelled = false;                         ///< see setContextCancelled
};

// The process-wide ContextRegistry. The handles that applications hold are numbers issued here,
// never a system or daemon handle. Any thread may call; each operation holds the registry's lock
// for one table operation and none is called with another lock of the library held.

/// Issues a handle for a system context (0: none). Neither daemon context is made yet.
/// Throws std::bad_alloc; the system context then still is the caller's.
SCARDCONTEXT registerContext(SCARDCONTEXT systemHandle, DWORD scope);

bool isContextKnown(SCARDCONTEXT context) noexcept;

/// The system context of a handle; 0 when the handle is unknown or has none.
SCARDCONTEXT getLocalContext(SCARDCONTEXT context) noexcept;

/// Removes a handle and returns what stood behind it; nothing when it is unknown.
std::optional<ContextEntry> unregisterContext(SCARDCONTEXT context) noexcept;

/// The daemon context of a handle, which is made on first use with the scope of the handle; anew
/// when the daemon goes before it could be noted.
/// @param remoteContext  out: the daemon's context, NO_REMOTE_CONTEXT on every failure.
/// @param remoteFlag     true: the "remote" binding; false: the "remote-local" one.
/// @return SCARD_E_INVALID_HANDLE when the handle is unknown, else as establishRemoteContext.
[[nodiscard]] LONG getRemoteContextVolatile(SCARDCONTEXT context, std::uint64_t& remoteContext,
                                            bool remoteFlag);

/// The daemon context that a handle stands for in "remote" operations; NO_REMOTE_CONTEXT when it
/// has none yet or is unknown.
std::uint64_t getBoundRemoteContext(SCARDCONTEXT context) noexcept;

/// Notes that the waits on the handle have been cancelled, or that one has begun; an unknown handle
/// is ignored. What ends a wait is told to the wait itself.
void setContextCancelled(SCARDCONTEXT context, bool cancelled) noexcept;

/// A number for the daemon that is there, or was there last: another one each time that it goes.
std::uint64_t currentDaemon() noexcept;

/// Forgets every daemon context, because the daemon lost them with its pipe. One that a thread is
/// just getting is not bound any more either.
void invalidateRemoteContexts() noexcept;

/// Gives a system context to every handle that lacks one, as far as the system library can.
void establishMissingLocalContexts();

}  // namespace tez
