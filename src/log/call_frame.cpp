#include "log/call_frame.h"

#include <cstdarg>

#include "log/crt_format.h"
#include "log/log_sink.h"

namespace tez {

namespace {

TEZ_PRINTF_FORMAT(4, 0)
void logParameters(const FunctionLog& log, const char* operation, const char* direction,
                   const char* format, std::va_list arguments) noexcept {
    // Checked here too, so that a quiet log costs no formatting of the lead either.
    if (!isLogged(LogLevel::Debug)) {
        return;
    }
    char lead[96];
    crtFormat(lead, sizeof(lead), "%s %s: ", operation, direction);
    logMessageV(kComponent, LogLevel::Debug, "DEBUG", log.functionName(), false, lead, format,
                arguments);
}

}  // namespace

void CallFrame::in(const char* format, ...) const noexcept {
    std::va_list arguments;
    va_start(arguments, format);
    logParameters(log_, operation_, "IN-PARAMS", format, arguments);
    va_end(arguments);
}

void CallFrame::out(const char* format, ...) const noexcept {
    std::va_list arguments;
    va_start(arguments, format);
    logParameters(log_, operation_, "OUT-PARAMS", format, arguments);
    va_end(arguments);
}

void CallFrame::logResult(LONG rv) const noexcept {
    if (resultFormat_ == ResultFormat::Hexadecimal) {
        log_.debug("%s RV: 0x%08lX", operation_, static_cast<unsigned long>(rv));
    } else {
        log_.debug("%s RV: %ld", operation_, rv);
    }
}

}  // namespace tez
