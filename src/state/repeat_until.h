#pragma once

#include <windows.h>

#include <algorithm>

namespace tez {

/// Repeats what may have been forgotten, a cancel, until what it is to end is over: after a second,
/// then after twice as long each time, up to half a minute.
/// @param isOver  called with the milliseconds to wait at most; returns whether it is over.
/// @param repeat  called whenever it is not.
template <class IsOver, class Repeat>
void repeatUntil(IsOver isOver, Repeat repeat) {
    for (DWORD interval = 1000; !isOver(interval);
         interval = std::min<DWORD>(interval * 2, 32000)) {
        repeat();
    }
}

}  // namespace tez
