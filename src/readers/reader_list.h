#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "common/scard_api.h"
#include "daemon/service_state.h"
#include "log/function_log.h"
#include "state/reader_names.h"

namespace tez {

/// SCardListReadersA without the note of what the application is told, for callers that ask on
/// behalf of another call.
LONG listReadersUntold(SCARDCONTEXT hContext, LPCSTR mszGroups, LPSTR mszReaders,
                       LPDWORD pcchReaders) noexcept;

/// With standard answers, notes what an application was told by a reader list: the names that were
/// handed out, or that there are none. The length of a list tells nothing.
/// @param groups  that the list was asked for; null for all.
/// @param rv      the call's result.
/// @param names   the narrow list that was handed out after a success; nothing when none was.
void noteToldList(SCARDCONTEXT context, LPCSTR groups, LONG rv,
                  std::optional<std::string_view> names) noexcept;

/// The readers of the two sides as of now. A side that fails keeps the names that it had.
struct ListedReaders {
    std::vector<std::string> local;
    std::vector<std::string> remote;
    bool isDaemonLost = false;  ///< the daemon is to be there, but was not reached

    /// A name that both have is local.
    ReaderSide sideOf(std::string_view name) const noexcept;
    /// Of both, the daemon's first. Throws std::bad_alloc.
    std::vector<std::string> names() const;
};

/// Lists the readers for a call that has to know them; nothing of it is told to the application.
/// Throws std::bad_alloc.
/// @param log      of the exported call.
/// @param groups   a multi-string for the host; empty for all readers.
ListedReaders listBothSides(const FunctionLog& log, ServiceState state, SCARDCONTEXT context,
                            const std::string& groups);

}  // namespace tez
