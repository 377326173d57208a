#pragma once

#include "common/scard_api.h"
#include "log/function_log.h"

namespace tez {

/// The most bytes that a daemon without kUnlimitedData can carry in a transmit or control in either
/// direction: an extended APDU with its framing.
inline constexpr DWORD kExtendedApduSize = 65548;

/// @param isUnlimited  whether the daemon meets kUnlimitedData.
/// @return SCARD_E_INSUFFICIENT_BUFFER, after a warning, when the daemon is too old for the
///         lengths; SCARD_S_SUCCESS otherwise.
inline LONG checkDataLimits(const FunctionLog& log, bool isUnlimited, DWORD sendLength,
                            DWORD receiveLength) {
    if (isUnlimited || (sendLength <= kExtendedApduSize && receiveLength <= kExtendedApduSize)) {
        return SCARD_S_SUCCESS;
    }
    log.warning(
        "Provided buffers are too big: cbSendLength is %lu and cbRecvLength is %lu, maximum value "
        "is %d",
        sendLength, receiveLength, static_cast<int>(kExtendedApduSize));
    return SCARD_E_INSUFFICIENT_BUFFER;
}

}  // namespace tez
