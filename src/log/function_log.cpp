#include "log/function_log.h"

#include <cstdarg>

#include "log/log_sink.h"

namespace tez {

void FunctionLog::debug(const char* format, ...) const {
    std::va_list arguments;
    va_start(arguments, format);
    logMessageV(kComponent, LogLevel::Debug, "DEBUG", functionName_, false, "", format, arguments);
    va_end(arguments);
}

void FunctionLog::info(const char* format, ...) const {
    std::va_list arguments;
    va_start(arguments, format);
    logMessageV(kComponent, LogLevel::Info, "INFO", functionName_, false, "", format, arguments);
    va_end(arguments);
}

void FunctionLog::warning(const char* format, ...) const {
    std::va_list arguments;
    va_start(arguments, format);
    logMessageV(kComponent, LogLevel::Warning, "WARNING", functionName_, false, "", format,
                arguments);
    va_end(arguments);
}

}  // namespace tez
