#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>

#include "pipe/transfer.h"

namespace tez::test {

/// A mark that rises by this for each handle that the process keeps.
inline constexpr std::uintptr_t kHandleStep = 4;

/// The highest number of many handles that are taken at once. They are given out from the lowest
/// number that is free, and what comes and goes leaves low ones free: a single handle would get one
/// of those, however many were kept behind them.
inline std::uintptr_t handleMark() {
    constexpr std::size_t kHandles = 60;
    std::array<pcscd::UniqueHandle, kHandles> events;
    std::uintptr_t highest = 0;
    for (pcscd::UniqueHandle& event : events) {
        event = pcscd::makeEvent();
        highest = std::max(highest, reinterpret_cast<std::uintptr_t>(event.get()));
    }
    return highest;
}

}  // namespace tez::test
