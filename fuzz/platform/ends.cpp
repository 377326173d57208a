// Where the library ends in a fuzz target: there is no library of the host, nobody reads the log,
// and there are no waits.
#include "common/module_reference.h"
#include "local/winscard_table.h"
#include "log/crt_format.h"
#include "log/log_sink.h"

namespace tez {

const WinscardTable& winscardTable() noexcept {
    static const WinscardTable none;
    return none;
}

bool pinOwnModule() noexcept {
    return true;
}

bool InitializeWinscardFunctions() noexcept {
    return false;
}

void logMessageV(const char* /*component*/, LogLevel /*level*/, const char* /*levelWord*/,
                 const char* /*functionName*/, bool /*echoToStderr*/, const char* lead,
                 const char* format, std::va_list arguments) noexcept {
    // Made all the same: a text without an end would be read further.
    const FormattedText text(lead, format, arguments);
}

void logMessage(const char* component, LogLevel level, const char* levelWord,
                const char* functionName, bool echoToStderr, const char* format, ...) noexcept {
    std::va_list arguments;
    va_start(arguments, format);
    logMessageV(component, level, levelWord, functionName, echoToStderr, "", format, arguments);
    va_end(arguments);
}

bool isLogged(LogLevel /*level*/) noexcept {
    return true;
}

}  // namespace tez

LONG WINAPI SCardGetStatusChangeA(SCARDCONTEXT /*hContext*/, DWORD /*dwTimeout*/,
                                  LPSCARD_READERSTATEA /*rgReaderStates*/, DWORD /*cReaders*/) {
    return SCARD_F_INTERNAL_ERROR;
}
