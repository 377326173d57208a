#pragma once

#include <cstdarg>
#include <cstdint>

#include "log/printf_format.h"

namespace tez {

enum class LogLevel : std::int32_t { Error = 1, Warning = 2, Info = 3, Debug = 4 };

/// Writes one line to the process's log: a file in the directory TEZ_PCSC_LOG_DIR, else standard
/// error, for levels up to TEZ_PCSC_LOG_LEVEL. Both are read when the first line is written and
/// stay fixed for the life of the process.
///
/// @param component     tag of the writer; "TEZ" throughout the library.
/// @param level         compared with the configured level; a level above it costs a comparison.
/// @param levelWord     "WARNING", "INFO" or "DEBUG"; its first letter begins the line.
/// @param functionName  the operation that the line is about.
/// @param echoToStderr  also writes the line to standard error, whatever the level.
/// @param format        of the message; null writes nothing at all.
///
/// Never fails towards the caller. Takes no lock: the prefix, the message and the line end are one
/// stdio call each, so lines of two threads may interleave at these borders.
void logMessage(const char* component, LogLevel level, const char* levelWord,
                const char* functionName, bool echoToStderr, const char* format, ...) noexcept
    TEZ_PRINTF_FORMAT(6, 7);

/// As logMessage, with the message behind a lead text that is written as it stands.
void logMessageV(const char* component, LogLevel level, const char* levelWord,
                 const char* functionName, bool echoToStderr, const char* lead, const char* format,
                 std::va_list arguments) noexcept TEZ_PRINTF_FORMAT(7, 0);

/// Whether a line of this level would reach the log; for callers whose arguments are costly.
bool isLogged(LogLevel level) noexcept;

}  // namespace tez
