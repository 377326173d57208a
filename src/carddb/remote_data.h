#pragma once

#include "carddb/remote_call.h"
#include "common/copy_out.h"

namespace tez {

/// To be called between the two sides of a local-first call. A host that found the caller's buffer
/// too small has stored the length that it needs; believed by the daemon's side, that would be a
/// larger buffer than there is.
inline void restoreRoom(LPDWORD length, DWORD room) noexcept {
    if (length != nullptr) {
        *length = room;
    }
}

/// Reads the data that the daemon has announced behind a record and hands it to the caller.
/// @param readFailure  the warning when it cannot be read.
/// @param hasArrived   out: true once the data was read, whatever room the caller has.
/// @param logNoMemory  called with the system's last error when there is no memory for the data.
///                     The call then succeeds without handing anything out, deliberately: the
///                     daemon has done its part, and caches and icons are a convenience.
template <class LogNoMemory>
LONG handOutData(Exchange& exchange, std::uint32_t size, LPBYTE destination, LPDWORD length,
                 const char* readFailure, bool& hasArrived, LogNoMemory logNoMemory) {
    HeapPtr<char> data;
    if (size != 0) {
        const LONG rv = exchange.readBlock(size, data, readFailure);
        if (data == nullptr) {
            logNoMemory(GetLastError());
            return SCARD_S_SUCCESS;
        }
        if (rv != SCARD_S_SUCCESS) {
            return rv;
        }
    }
    hasArrived = true;
    return copyOutBuffer(data.get(), size, destination, length, 1);
}

}  // namespace tez
