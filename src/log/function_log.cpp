#include "log/function_log.h"

#include <cstdarg>

namespace tez {

namespace {

constexpr const char* wordOf(LogLevel level) noexcept {
    switch (level) {
        case LogLevel::Error:
            return "ERROR";
        case LogLevel::Warning:
            return "WARNING";
        case LogLevel::Info:
            return "INFO";
        case LogLevel::Debug:
            break;
    }
    return "DEBUG";
}

}  // namespace

void FunctionLog::debug(const char* format, ...) const noexcept {
    std::va_list arguments;
    va_start(arguments, format);
    logMessageV(kComponent, LogLevel::Debug, wordOf(LogLevel::Debug), functionName_, false, "",
                format, arguments);
    va_end(arguments);
}

void FunctionLog::info(const char* format, ...) const noexcept {
    std::va_list arguments;
    va_start(arguments, format);
    logMessageV(kComponent, LogLevel::Info, wordOf(LogLevel::Info), functionName_, false, "",
                format, arguments);
    va_end(arguments);
}

void FunctionLog::warning(const char* format, ...) const noexcept {
    std::va_list arguments;
    va_start(arguments, format);
    logMessageV(kComponent, LogLevel::Warning, wordOf(LogLevel::Warning), functionName_, false, "",
                format, arguments);
    va_end(arguments);
}

void FunctionLog::line(LogLevel level, const char* text) const noexcept {
    logMessage(kComponent, level, wordOf(level), functionName_, false, "%s", text);
}

}  // namespace tez
