#pragma once

#include <cstdint>
#include <memory>

#include "common/heap.h"
#include "common/scard_api.h"

namespace tez {

/// What stands behind a card handle. None of it ever changes.
struct CardHandleEntry {
    std::uint64_t target = 0;  ///< the card handle of the side that serves it
    SCARDCONTEXT context = 0;  ///< the application's context that the card was connected under
    HeapPtr<char> readerName;  ///< a copy of the name given to SCardConnect; null when none was
    bool isLocal = false;      ///< whether the system library serves it, or else the daemon
    std::uint64_t daemon = 0;  ///< that was there before a remote card was connected: currentDaemon
};

// The process-wide CardHandleRegistry: what stands behind the card handles that applications hold.
// Numbered apart from the contexts. Any thread may call; each operation holds the registry's own
// lock for one table operation.

/// Issues a card handle for an entry of these values; the reader's name is copied, and may be null.
/// Throws std::bad_alloc; the target then still is the caller's to disconnect.
SCARDHANDLE registerCardHandle(std::uint64_t target, SCARDCONTEXT context, const char* readerName,
                               bool isLocal, std::uint64_t daemon = 0);

/// What stands behind a card handle; null for an unknown one. It stays valid for a caller who holds
/// it, though the handle be forgotten meanwhile. The look-up of a call on a card: there may be very
/// many handles to search, as those of the host stay known when they have been disconnected.
std::shared_ptr<const CardHandleEntry> findCardHandle(SCARDHANDLE card) noexcept;

/// Forgets a card handle; an unknown one is ignored.
void unregisterCardHandle(SCARDHANDLE card) noexcept;

}  // namespace tez
