#pragma once

#include <span>

#include "core/answers.h"

namespace tez::pcscd {

/// The commands on contexts, readers and cards, which every PC/SC system knows.
std::span<const Served> cardCommands();

}  // namespace tez::pcscd
