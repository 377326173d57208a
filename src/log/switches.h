#pragma once

#include <atomic>
#include <optional>

#include "log/function_log.h"

namespace tez {

/// A boolean switch of the environment. To be made as a constant of the process.
class Switch {
  public:
    explicit constexpr Switch(const char* name) noexcept : name_(name) {}

    const char* name() const noexcept { return name_; }

    /// Reads the switch, at every call afresh. Not set (absent, empty, or 128 characters and more)
    /// gives nothing. Otherwise the value is logged at level DEBUG and "FALSE" in any case or
    /// exactly "0" is false; every other value is true. A value other than these, "TRUE" and "1",
    /// or one that is too long, is probably a mistake: the first is told at level WARNING.
    std::optional<bool> read(const FunctionLog& log) noexcept;

  private:
    void warnOnce(const char* value, const char* consequence) noexcept;

    const char* name_;
    std::atomic<bool> hasWarned_ = false;
};

/// Whether TEZ_PCSC_ENABLE_ALL_CALLS_REDIRECTION sends card-database calls to the daemon; false
/// when it is not set. Read once, on the first call, and kept for the life of the process.
bool isAllCallsRedirectionEnabled() noexcept;

/// Whether TEZ_PCSC_STANDARD_CALLS makes the library answer as one PC/SC system does, in the
/// rows of docs/standard-calls.md; false when it is not set. Read and kept as the switch above.
bool isStandardCallsEnabled() noexcept;

}  // namespace tez
