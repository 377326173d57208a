// Contexts, readers and what belongs to neither cards nor the card database.
#include "system_library/host_service.h"

#include <algorithm>
#include <string_view>

#include "core/text.h"

namespace tez::test {
namespace {

constexpr SimulatedService::HandleBases kHandleBases = {.context = 0x7A000001, .card = 0x7B000001};

/// No reader has an empty name: whoever leaves the name out asks for an unknown reader.
const char* orEmpty(LPCSTR text) {
    return text == nullptr ? "" : text;
}

/// Whether a filter of reader groups (a multi-string; null asks for all) lets the readers through,
/// which all belong to the default group.
bool namesOurGroup(LPCSTR groups) {
    if (groups == nullptr || *groups == '\0') {
        return true;
    }
    for (std::string_view group = groups; !group.empty(); group = group.data() + group.size() + 1) {
        if (group == "SCard$DefaultReaders" || group == "SCard$AllReaders") {
            return true;
        }
    }
    return false;
}

}  // namespace

HostService::HostService() : pcsc_(kHandleBases) {
    VirtualCard card = makeDemoCard(kHostCardHolder);
    pcsc_.cardStore().introduce(kHostCardType, cardTypeOf(card.atr()));
    pcsc_.addReader(kHostReader);
    pcsc_.insertCard(kHostReader, std::move(card));
}

LONG HostService::SCardEstablishContext(DWORD scope, LPCVOID /*reserved1*/, LPCVOID /*reserved2*/,
                                        LPSCARDCONTEXT context) {
    if (context == nullptr) {
        return SCARD_E_INVALID_PARAMETER;
    }
    Context established = 0;
    const LONG result = pcsc_.establishContext(scope, established);
    *context = established;
    return result;
}

LONG HostService::SCardReleaseContext(SCARDCONTEXT context) {
    return pcsc_.releaseContext(context);
}

LONG HostService::SCardIsValidContext(SCARDCONTEXT context) {
    return pcsc_.isValidContext(context);
}

LONG HostService::SCardCancel(SCARDCONTEXT context) {
    return pcsc_.cancel(context);
}

LONG HostService::SCardFreeMemory(SCARDCONTEXT context, LPCVOID memory) {
    if (context != 0 && pcsc_.isValidContext(context) != SCARD_S_SUCCESS) {
        return SCARD_E_INVALID_HANDLE;
    }
    return heap_.free(memory) ? SCARD_S_SUCCESS : SCARD_E_INVALID_PARAMETER;
}

LONG HostService::SCardAudit(SCARDCONTEXT context, DWORD event) {
    return pcsc_.audit(context, event);
}

LONG HostService::SCardListReaderGroupsA(SCARDCONTEXT context, LPSTR groups, LPDWORD length) {
    std::vector<std::string> names;
    const LONG result = pcsc_.listReaderGroups(context, names);
    return result == SCARD_S_SUCCESS ? heap_.deliver(multiString(names), groups, length) : result;
}

LONG HostService::SCardListReadersA(SCARDCONTEXT context, LPCSTR groups, LPSTR readers,
                                    LPDWORD length) {
    std::vector<std::string> names;
    if (const LONG result = pcsc_.listReaders(context, names); result != SCARD_S_SUCCESS) {
        return result;
    }
    if (names.empty() || !namesOurGroup(groups)) {
        return SCARD_E_NO_READERS_AVAILABLE;
    }
    return heap_.deliver(multiString(names), readers, length);
}

LONG HostService::SCardGetStatusChangeA(SCARDCONTEXT context, DWORD timeout,
                                        LPSCARD_READERSTATEA states, DWORD count) {
    if (states == nullptr && count != 0) {
        return SCARD_E_INVALID_PARAMETER;
    }
    const std::span<SCARD_READERSTATEA> callers(states, count);
    std::vector<ReaderState> waited;
    for (const SCARD_READERSTATEA& state : callers) {
        if (state.szReader == nullptr) {
            return SCARD_E_INVALID_VALUE;
        }
        ReaderState& waitedFor = waited.emplace_back();
        waitedFor.reader = state.szReader;
        waitedFor.currentState = state.dwCurrentState;
    }
    const LONG result = pcsc_.getStatusChange(context, timeout, waited);
    for (std::size_t i = 0; i < waited.size(); ++i) {
        SCARD_READERSTATEA& state = callers[i];
        state.dwEventState = waited[i].eventState;
        state.cbAtr = static_cast<DWORD>(std::min(waited[i].atr.size(), sizeof state.rgbAtr));
        std::copy_n(waited[i].atr.begin(), state.cbAtr, state.rgbAtr);
    }
    return result;
}

LONG HostService::SCardGetDeviceTypeIdA(SCARDCONTEXT context, LPCSTR reader, LPDWORD deviceType) {
    if (deviceType == nullptr) {
        return SCARD_E_INVALID_PARAMETER;
    }
    std::uint32_t type = 0;
    const LONG result = pcsc_.getDeviceTypeId(context, orEmpty(reader), type);
    if (result == SCARD_S_SUCCESS) {
        *deviceType = type;
    }
    return result;
}

LONG HostService::SCardGetReaderIconA(SCARDCONTEXT context, LPCSTR reader, LPBYTE icon,
                                      LPDWORD length) {
    Bytes bytes;
    const LONG result = pcsc_.getReaderIcon(context, orEmpty(reader), bytes);
    return result == SCARD_S_SUCCESS ? heap_.deliver(bytes, icon, length) : result;
}

HANDLE HostService::SCardAccessStartedEvent() {
    return startedEvent_.access();
}

void HostService::SCardReleaseStartedEvent() {
    startedEvent_.release();
}

}  // namespace tez::test
