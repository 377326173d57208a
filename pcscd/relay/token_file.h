#pragma once

#include <string>

#include "link/token.h"

namespace tez::relay {

/// Reads a token's file. Throws std::runtime_error when it cannot be read, holds something else, or
/// can be read or replaced by anyone but the user that runs this program, administrators and the
/// system.
link::Token readTokenFile(const std::string& utf8Path);

}  // namespace tez::relay
