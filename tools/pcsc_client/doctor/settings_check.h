#pragma once

#include "doctor/finding.h"

namespace tez::client {

/// The library's settings as this process has them, and what is wrong with them.
Findings checkSettings();

/// Whether the library gives this process standard answers.
bool areStandardCallsSet();

}  // namespace tez::client
