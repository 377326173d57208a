#pragma once

#include "log/log_sink.h"
#include "log/printf_format.h"

namespace tez {

/// Writes the log lines of one operation of the library: component "TEZ", the operation's name as
/// function name, no echo to standard error.
///
///     static constexpr FunctionLog log("ConnectionPool::acquire");
///     log.debug("took slot %u", slot);
class FunctionLog {
  public:
    explicit constexpr FunctionLog(const char* functionName) noexcept
        : functionName_(functionName) {}

    void debug(const char* format, ...) const noexcept TEZ_PRINTF_FORMAT(2, 3);
    void info(const char* format, ...) const noexcept TEZ_PRINTF_FORMAT(2, 3);
    void warning(const char* format, ...) const noexcept TEZ_PRINTF_FORMAT(2, 3);

    /// Writes a text as it stands.
    void line(LogLevel level, const char* text) const noexcept;

    constexpr const char* functionName() const noexcept { return functionName_; }

  private:
    const char* functionName_;
};

/// The component tag of every line that the library writes.
inline constexpr const char* kComponent = "TEZ";

}  // namespace tez
