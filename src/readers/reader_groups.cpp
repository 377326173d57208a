#include <string>
#include <string_view>

#include "common/copy_out.h"
#include "common/local_buffer.h"
#include "common/multi_string.h"
#include "common/scard_api.h"
#include "context/routing.h"
#include "daemon/service_state.h"
#include "local/local_calls.h"
#include "log/call_frame.h"

using namespace tez;

namespace {

using namespace std::string_view_literals;

/// A list of one: the group that every reader is in.
constexpr std::string_view kDefaultGroups = "SCard$DefaultReaders\0\0"sv;
constexpr std::string_view kDefaultGroup = kDefaultGroups.substr(0, kDefaultGroups.size() - 2);

bool contains(std::string_view multiString, std::string_view wanted) {
    bool isFound = false;
    forEachName(multiString, [&](std::string_view name) { isFound = isFound || name == wanted; });
    return isFound;
}

/// The host's groups, the default group among them; that one alone when the host does not tell.
std::string groupsOf(ServiceState state, SCARDCONTEXT context) {
    LocalBuffer local;
    if (state == ServiceState::RemoteOnly ||
        withLocalSide(context, [&local](SCARDCONTEXT systemContext) {
            return LocalSCardListReaderGroupsA(systemContext, local.destination(), local.length());
        }) != SCARD_S_SUCCESS) {
        return std::string(kDefaultGroups);
    }
    std::string groups(local.text());
    if (!contains(groups, kDefaultGroup)) {
        groups.insert(0, kDefaultGroups.substr(0, kDefaultGroup.size() + 1));
    }
    // Whoever walks the list relies on its end.
    while (!groups.ends_with("\0\0"sv)) {
        groups.push_back('\0');
    }
    return groups;
}

}  // namespace

// Applications ask for groups only to pass one to SCardListReaders. The daemon knows none, so it is
// never asked.
LONG WINAPI SCardListReaderGroupsA(SCARDCONTEXT hContext, LPSTR mszGroups, LPDWORD pcchGroups) {
    static constexpr CallFrame call("SCardListReaderGroupsA", "LIST_READER_GROUPS");
    const ServiceState state = getServiceState();
    if (pcchGroups != nullptr) {
        call.in("%Ix, %p, %p\n    pcchGroups is %lu", hContext, static_cast<void*>(mszGroups),
                static_cast<void*>(pcchGroups), *pcchGroups);
    }
    return call.run(
        [&]() -> LONG {
            if (pcchGroups == nullptr) {
                call.log().warning("pcchGroups cannot be NULL");
                if (state == ServiceState::RemoteOnly) {
                    return SCARD_E_INVALID_PARAMETER;
                }
                // The system library judges the missing pointer.
                return withLocalSide(hContext, [mszGroups](SCARDCONTEXT systemContext) {
                    return LocalSCardListReaderGroupsA(systemContext, mszGroups, nullptr);
                });
            }
            if (hContext != 0 && !isContextKnown(hContext)) {
                call.log().warning("Invalid context handle");
                return SCARD_E_INVALID_HANDLE;
            }
            const std::string groups = groupsOf(state, hContext);
            return copyOutBuffer(groups.data(), static_cast<DWORD>(groups.size()), mszGroups,
                                 pcchGroups, 1);
        },
        [&] { call.out("%lu", valueOf(pcchGroups)); });
}
