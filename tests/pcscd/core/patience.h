#pragma once

#include <chrono>

namespace tez::pcscd {

/// How long a test waits for what is bound to happen before it fails.
inline constexpr std::chrono::seconds kPatience{10};

}  // namespace tez::pcscd
