#pragma once

#include <cstdint>

#include "common/heap.h"
#include "common/scard_api.h"

namespace tez {

// The process-wide CardHandleRegistry: what stands behind the card handles that applications hold.
// Numbered apart from the contexts. Any thread may call; each operation holds the registry's own
// lock for one table operation.

/// Issues a card handle.
/// @param target      the card handle of the side that serves it: the system library or the daemon.
/// @param context     the application's context that the card was connected under.
/// @param readerName  copied; may be null.
/// @param isLocal     whether the system library serves it. This never changes for a handle.
/// Throws std::bad_alloc; the target then still is the caller's to disconnect.
SCARDHANDLE registerCardHandle(std::uint64_t target, SCARDCONTEXT context, const char* readerName,
                               bool isLocal);

/// The serving side's card handle; 0 for an unknown handle.
std::uint64_t getCardTarget(SCARDHANDLE card) noexcept;

/// The application's context of a card handle; 0, which no context is, for an unknown handle.
SCARDCONTEXT getCardContext(SCARDHANDLE card) noexcept;

/// A copy of the reader name given to SCardConnect; null for an unknown handle or no name. Throws
/// std::bad_alloc.
HeapPtr<char> getCardReaderName(SCARDHANDLE card);

/// Whether the handle is known and the system library serves it.
bool isLocalCard(SCARDHANDLE card) noexcept;

/// Forgets a card handle; an unknown one is ignored.
void unregisterCardHandle(SCARDHANDLE card) noexcept;

}  // namespace tez
