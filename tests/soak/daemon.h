#pragma once

#include "board.h"

namespace tez::soak {

/// The daemon, in a process of its own: serves the pipe with three readers, moves the card of one
/// in and out, and does what the lines of its standard input say, each of which it acknowledges on
/// the board, as it does its start:
///
///     drop          closes one connection on which something was asked
///     hang MS       takes nothing from any pipe for that long
///     restart MS    stops serving, and starts again after that time
///
/// Its events go on where those of the daemon before it ended. Ends with its standard input.
int runDaemon(Board& board);

}  // namespace tez::soak
