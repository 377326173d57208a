#pragma once

#include "caller.h"

namespace tez::soak {

// What the threads do that use cards and look at readers, until the run is over. Each answer of a
// card is held against its command.

/// Shares the daemon's cards with the other clients.
void useRemoteCards(Caller& caller);
/// Shares a card of the host's, and has it for itself now and then. Keeps one connection.
void useHostCard(Caller& caller);
/// Has the daemon's card for itself, by an exclusive connection or a transaction.
void useRemoteCardAlone(Caller& caller);
/// Lists readers, looks at them with a wait that does not wait, and at the started event.
void look(Caller& caller);

}  // namespace tez::soak
