#pragma once

#include "board.h"

namespace tez::soak {

inline constexpr UINT kEndedInTheMiddle = 17;  ///< the exit code of one that was told to end so

/// A client, in a process of its own: eight threads that use the library as applications do and
/// write down on the board what they are doing. Ends when the run is over, in the middle of its
/// calls when the board says so, or with the process that started it.
/// @param index its place on the board.
/// @param parent the process that ends it by ending.
int runClient(BoardContent& board, std::size_t index, HANDLE parent);

}  // namespace tez::soak
