#pragma once

#include "common/scard_api.h"
#include "log/function_log.h"

namespace tez {

// The started events that applications hold, process-wide: an event is set while a smart-card
// service can be used, be it the daemon's or the host's. Accesses that resolved to the same system
// event share one record and one event; a thread goes on with the record of its first access. Any
// thread may call; each operation holds startedEventMutex, which the mirror workers never take.

/// Gives the calling thread an event, for as long as it has releases outstanding.
/// @param log  of the exported call.
/// @return null when the daemon is away and the host has no started event, or when resources are
///         exhausted; nothing is recorded then. The event is the library's to close.
HANDLE accessStartedEvent(const FunctionLog& log);

/// Takes back what the calling thread has accessed; a thread without an access only gets a warning
/// into the log. The last release of an event closes it.
void releaseStartedEvent(const FunctionLog& log);

/// The daemon has come: every event is set, and follows the host's no more.
void setStartedEvents();

/// The daemon has gone: every event follows the host's from now on.
void mirrorStartedEvents();

/// For process detach, where the platform has stopped every other thread: ends the workers, closes
/// the events and gives the host's back. Does nothing if a stopped thread holds the lock for ever.
void closeStartedEvents();

}  // namespace tez
