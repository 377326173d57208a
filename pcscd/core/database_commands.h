#pragma once

#include "core/traffic.h"
#include "simulated/simulated_service.h"

namespace tez::test {

/// The part of the daemon's ordinary behaviour that concerns card types, cached card data, reader
/// icons, device types and audits. A request that is malformed, or of a command that is not among
/// these, closes the pipe. The request must be complete.
///
/// Card types can be asked for and changed, and events audited, without a context (context 0); all
/// else needs one.
Reply answerDatabaseCommand(SimulatedService& service, const Request& request);

}  // namespace tez::test
