#pragma once

#include "doctor/finding.h"

namespace tez::client {

/// Whether the daemon's pipe is there, lets this user in and answers within 3 seconds; its version
/// and what it lacks; its readers. Asks the daemon itself, past the library.
Findings checkDaemon();

}  // namespace tez::client
