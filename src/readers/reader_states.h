#pragma once

#include <cstring>
#include <vector>

#include "common/scard_api.h"
#include "log/function_log.h"
#include "log/log_sink.h"
#include "log/switches.h"
#include "log/value_format.h"

namespace tez {

inline constexpr DWORD kMostReaders = 16;
inline constexpr DWORD kMostStandardReaders = 64;

/// The most entries of a status-change call.
inline DWORD mostReaders() noexcept {
    return isStandardCallsEnabled() ? kMostStandardReaders : kMostReaders;
}

/// Where an entry of one side stands in the application's array; in increasing order.
using ReaderIndexes = std::vector<DWORD>;

/// Stands for the arrival and removal of readers. Both sides wait on it; the upper half of its
/// states is the number of readers that the application knows.
inline constexpr const char* kPnpReader = R"(\\?PnP?\Notification)";

inline bool isPnpReader(const char* name) {
    return std::strcmp(name, kPnpReader) == 0;
}

/// What one side of a call waits on.
struct SideEntries {
    SCARD_READERSTATEA* states;  ///< an array; where the side's reports are stored too
    ReaderIndexes indexes;       ///< the entries of it that are the side's
    std::size_t othersReaders;   ///< the other side's readers in the pseudo-reader's count
};

/// The state to tell one side of the pseudo-reader, whose count holds the other side's readers too.
inline DWORD withoutOthersReaders(DWORD state, std::size_t othersReaders) {
    const auto others = static_cast<DWORD>(othersReaders);
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
