#pragma once

#include <exception>
#include <new>

#include "common/scard_api.h"
#include "log/function_log.h"
#include "log/log_sink.h"

namespace tez {

/// The number that an application passed a pointer to; 0 when it passed none.
inline DWORD valueOf(const DWORD* pointer) noexcept {
    return pointer == nullptr ? 0 : *pointer;
}

/// How the RV line shows the result: as PC/SC codes are known, or as the card-database updates do.
enum class ResultFormat { Hexadecimal, Decimal };

/// The log frame of an exported call: what came in, what went out on success, the result always.
///
///     LONG WINAPI SCardBeginTransaction(SCARDHANDLE hCard) {
///         CallFrame call("SCardBeginTransaction", "BEGIN_TRANSACTION");
///         call.in("%ld", static_cast<long>(hCard));
///         return call.run([&] { return ...; });
///     }
class CallFrame {
  public:
    /// @param functionName  the name under which the lines are written.
    /// @param operation     the word in front of "IN-PARAMS", "OUT-PARAMS" and "RV".
    constexpr CallFrame(const char* functionName, const char* operation,
                        ResultFormat resultFormat = ResultFormat::Hexadecimal) noexcept
        : log_(functionName), operation_(operation), resultFormat_(resultFormat) {}

    const FunctionLog& log() const noexcept { return log_; }

    void in(const char* format, ...) const noexcept TEZ_PRINTF_FORMAT(2, 3);
    void out(const char* format, ...) const noexcept TEZ_PRINTF_FORMAT(2, 3);

    /// Runs the call's body, which returns the PC/SC result code; then onSuccess, for the
    /// OUT-PARAMS line, when that is SCARD_S_SUCCESS; logs the RV line and returns the code.
    /// Exceptions end here, for the application is no C++ caller: exhausted memory gives
    /// SCARD_E_NO_MEMORY, any other SCARD_F_INTERNAL_ERROR.
    template <class Body, class OnSuccess>
    [[nodiscard]] LONG run(Body body, OnSuccess onSuccess) const noexcept {
        LONG rv = SCARD_F_INTERNAL_ERROR;
        try {
            rv = body();
        } catch (const std::bad_alloc&) {
            rv = SCARD_E_NO_MEMORY;
        } catch (const std::exception& error) {
            log_.warning("Unexpected error: %s", error.what());
            rv = SCARD_F_INTERNAL_ERROR;
        }
        if (rv == SCARD_S_SUCCESS) {
            describe(onSuccess);
        }
        logResult(rv);
        return rv;
    }

    /// Writes log lines that take some making: calls writeLines() if such lines are wanted at all.
    /// What there is no memory for is left out; the call's result is not its log's affair.
    template <class Lines>
    void describe(Lines writeLines) const noexcept {
        if (isLogged(LogLevel::Debug)) {
            try {
                writeLines();
            } catch (const std::bad_alloc&) {
                log_.warning("Out of memory while logging");
            }
        }
    }

    template <class Body>
    [[nodiscard]] LONG run(Body body) const noexcept {
        return run(body, [] {});
    }

  private:
    void logResult(LONG rv) const noexcept;

    FunctionLog log_;
    const char* operation_;
    ResultFormat resultFormat_;
};

}  // namespace tez
