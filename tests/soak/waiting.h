#pragma once

#include "caller.h"

namespace tez::soak {

// What the threads do that wait for cards, and those that end their waits, until the run is over.

/// Waits for the cards that come and go on both sides.
/// @param which kBusyWaiter or kEventWaiter.
void waitForEvents(Caller& caller, std::size_t which);
/// Waits for readers in which nothing happens, as kQuietWaiter.
void waitForCancels(Caller& caller);
/// Cancels the waits of kBusyWaiter and kQuietWaiter, and takes their contexts away.
void cancelAndRelease(Caller& caller);

}  // namespace tez::soak
