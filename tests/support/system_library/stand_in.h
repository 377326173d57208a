// What the stand-in for the host's smart-card library exports beside the platform's functions.
#pragma once

#include <cstddef>

#include "system_library/system_calls.h"

namespace tez::test {

/// The environment variable that names a file which says whether the stand-in's own reader holds a
/// card: it does while there is such a file. It is how the reader is told from outside of the
/// process that has loaded the stand-in. Read with the first call; without it, the card stays in.
inline constexpr const char* kCardFileVariable = "TEZ_STAND_IN_CARD_FILE";

/// The environment variable that, when it is set, lets the stand-in's own service fail to release
/// contexts, as one does that has stopped meanwhile.
inline constexpr const char* kNoReleaseVariable = "TEZ_STAND_IN_NO_RELEASE";

/// Auto-allocated buffers of the stand-in's own service.
struct StandInCounters {
    std::size_t outstanding;   ///< handed out and not freed yet
    std::size_t foreignFrees;  ///< frees of what was not handed out
};

/// "StandInSetCalls": lets another object answer the calls; null restores the stand-in's own
/// service. Returns when no call is inside the previous object any more, so calls that block in it
/// must be ended first. The caller keeps the object.
using StandInSetCallsFunction = void(SystemCalls* calls);

/// "StandInGetCounters".
using StandInGetCountersFunction = StandInCounters();

}  // namespace tez::test
