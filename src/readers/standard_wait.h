#pragma once

#include "common/scard_api.h"
#include "readers/wait_halves.h"

namespace tez {

/// A status-change call that answers as one PC/SC system does: see docs/standard-calls.md. Throws
/// std::bad_alloc.
LONG waitAsOneSystem(const StatusChange& call);

}  // namespace tez
