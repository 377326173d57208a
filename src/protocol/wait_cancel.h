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

/// Repeats, at growing intervals and on a thread of its own, a cancel that has just gone to both
/// sides of a context, for as long as a wait that was in progress there has not ended. Nothing
/// is started without such a wait, nor when memory is exhausted.
/// @param context  the application's.
void keepCancelling(SCARDCONTEXT context) noexcept;

}  // namespace tez
