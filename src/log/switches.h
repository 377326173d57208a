#pragma once

#include <optional>

#include "log/function_log.h"

namespace tez {

/// Reads a boolean switch from the environment, at every call afresh. Not set (absent, empty, or
/// 128 characters and more) gives nothing and logs nothing. Otherwise the value is logged at level
/// DEBUG and "FALSE" in any case or exactly "0" is false; every other value is true.
std::optional<bool> readSwitch(const FunctionLog& log, const char* name) noexcept;

/// Whether TEZ_PCSC_ENABLE_ALL_CALLS_REDIRECTION sends card-database calls to the daemon; false
/// when it is not set. Read once, on the first call, and kept for the life of the process.
bool isAllCallsRedirectionEnabled() noexcept;

}  // namespace tez
