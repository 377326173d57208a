#pragma once

#include <chrono>
#include <functional>

namespace tez::test {

/// How long a test waits for what must happen before it fails. Nothing that works comes near it.
inline constexpr std::chrono::seconds kPatience{20};

/// Waits until a condition holds that nothing announces, looking every few milliseconds. False when
/// it does not within kPatience.
bool eventually(const std::function<bool()>& condition);

}  // namespace tez::test
