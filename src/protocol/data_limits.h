#pragma once

#include "daemon/exchange.h"

namespace tez {

/// The most bytes that a daemon before 1.3 (0.3 when it takes all calls) can carry in a transmit or
/// control in either direction: an extended APDU with its framing.
inline constexpr DWORD kExtendedApduSize = 65548;

/// @return SCARD_E_INSUFFICIENT_BUFFER, after a warning, when the daemon is too old for the
///         lengths; SCARD_S_SUCCESS otherwise.
inline LONG checkDataLimits(const FunctionLog& log, const Exchange& exchange, ServiceState state,
                            DWORD sendLength, DWORD receiveLength) {
    if (exchange.isMinorAtLeast(state, 3) ||
        (sendLength <= kExtendedApduSize && receiveLength <= kExtendedApduSize)) {
        return SCARD_S_SUCCESS;
    }
    log.warning(
        "Provided buffers are too big: cbSendLength is %lu and cbRecvLength is %lu, maximum value "
        "is %d",
        sendLength, receiveLength, static_cast<int>(kExtendedApduSize));
    return SCARD_E_INSUFFICIENT_BUFFER;
}

}  // namespace tez
