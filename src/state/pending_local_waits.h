#pragma once

#include <cstdint>

#include "common/scard_api.h"
#include "state/status_wait.h"

namespace tez {

// The local status-change waits in progress, process-wide, so that the service monitor can
// interrupt them all when the daemon comes. Any thread may call.

/// How often the monitor has interrupted waits; to be read before a call looks at the service
/// state.
std::uint64_t countInterruptions() noexcept;

/// Notes that a wait on a system context is about to begin; the StatusWait is told when the monitor
/// interrupts it.
/// @param interruptions  their count when the call began.
/// @return false, with nothing noted, when there has been one since: the wait must not begin, as it
///         was made for a state of the service that is no more. Throws std::bad_alloc.
bool addPendingLocalWait(SCARDCONTEXT systemContext, StatusWait& wait, std::uint64_t interruptions);

/// Forgets a wait that has ended. False when the monitor has interrupted it.
bool removePendingLocalWait(SCARDCONTEXT systemContext, StatusWait& wait) noexcept;

/// Ends every wait in progress: cancels each of their system contexts and forgets them. The lock is
/// held meanwhile, so that no wait can end, and its context be released, under the cancel.
void cancelPendingLocalWaits() noexcept;

}  // namespace tez
