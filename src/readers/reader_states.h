#pragma once

#include <cstring>
#include <vector>

#include "common/scard_api.h"
#include "log/function_log.h"
#include "log/log_sink.h"
#include "log/value_format.h"

namespace tez {

/// The most entries of a status-change call.
inline constexpr DWORD kMostReaders = 16;

/// Where an entry of one side stands in the application's array; in increasing order.
using ReaderIndexes = std::vector<DWORD>;

/// Stands for the arrival and removal of readers. Both sides wait on it; the upper half of its
/// states is the number of readers that the application knows.
inline bool isPnpReader(const char* name) {
    return std::strcmp(name, R"(\\?PnP?\Notification)") == 0;
}

/// The state to tell one side of the pseudo-reader, whose count holds the other side's readers too.
/// @param otherIndexes  the number of entries that the other side has in this call, one of them the
///                      pseudo-reader itself.
inline DWORD withoutOthersReaders(DWORD state, std::size_t otherIndexes) {
    const auto others = static_cast<DWORD>(otherIndexes - 1);
    return (state >> 16) > others ? state - (others << 16) : state;
}

/// One line on a reader's state: "LOCAL READER STATE 0: Name, curr:...".
inline void logReaderState(const FunctionLog& log, const char* title, DWORD index, const char* name,
                           DWORD current, DWORD event, DWORD atrLength) {
    if (isLogged(LogLevel::Debug)) {
        log.debug("%s %lu: %s, curr:%s (0x%X), event:%s (0x%X), %u", title, index, name,
                  formatReaderState(current).c_str(), static_cast<unsigned>(current),
                  formatReaderState(event).c_str(), static_cast<unsigned>(event),
                  static_cast<unsigned>(atrLength));
    }
}

}  // namespace tez
