#pragma once

#include <cstdint>

#include "common/scard_api.h"
#include "log/function_log.h"

namespace tez {

// Cancels of status-change waits. One that arrives before the wait it is to end has begun is
// forgotten by the system library and by the daemon alike, so it has to be repeated until the wait
// has ended.

/// Asks the daemon to end the wait on one of its contexts. A failure is logged.
void cancelRemoteWait(const FunctionLog& log, std::uint64_t remoteContext) noexcept;

/// Marks the waits in progress on a context as cancelled, and repeats, at growing intervals and on
/// a thread for each of them, the cancel that has just gone to both sides, for as long as the wait
/// has not ended. Logs a warning when that cannot be, as memory is exhausted; the next call tries
/// again.
/// @param context  the application's.
void keepCancelling(SCARDCONTEXT context) noexcept;

}  // namespace tez
