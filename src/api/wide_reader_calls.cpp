// The wide forms of the calls on readers and cards.
#include <cstring>
#include <optional>
#include <string_view>

#include "api/wide_results.h"
#include "common/copy_out.h"
#include "common/heap.h"
#include "common/scard_api.h"
#include "log/function_log.h"
#include "log/switches.h"
#include "readers/reader_list.h"
#include "readers/reader_states.h"
#include "state/told_readers.h"

using namespace tez;

LONG WINAPI SCardConnectW(SCARDCONTEXT hContext, LPCWSTR szReader, DWORD dwShareMode,
                          DWORD dwPreferredProtocols, LPSCARDHANDLE phCard,
                          LPDWORD pdwActiveProtocol) {
    return withUtf8(szReader, [&](LPCSTR reader) {
        return SCardConnectA(hContext, reader, dwShareMode, dwPreferredProtocols, phCard,
                             pdwActiveProtocol);
    });
}

LONG WINAPI SCardListReaderGroupsW(SCARDCONTEXT hContext, LPWSTR mszGroups, LPDWORD pcchGroups) {
    static constexpr FunctionLog log("SCardListReaderGroupsW");
    if (pcchGroups == nullptr) {
        log.warning("pcchGroups is NULL");
        return SCARD_E_INVALID_PARAMETER;
    }
    const LONG rv = copyOutWideNames(mszGroups, pcchGroups, [&](LPSTR groups, LPDWORD length) {
        return SCardListReaderGroupsA(hContext, groups, length);
    });
    log.debug("Returning %lu, pcchGroups %lu", static_cast<unsigned long>(rv), *pcchGroups);
    return rv;
}

namespace {

/// Notes the narrow list of a wide call that asks for more than the length.
void noteToldWideList(SCARDCONTEXT context, LPCSTR groups, LONG rv, LPCWSTR destination,
                      LPCSTR narrow, DWORD length) {
    std::optional<std::string_view> names;
    if (rv == SCARD_S_SUCCESS && destination != nullptr) {
        names.emplace(handedOut(narrow, true), length);
    }
    noteToldList(context, groups, rv, names);
}

}  // namespace

LONG WINAPI SCardListReadersW(SCARDCONTEXT hContext, LPCWSTR mszGroups, LPWSTR mszReaders,
                              LPDWORD pcchReaders) {
    static constexpr FunctionLog log("SCardListReadersW");
    log.debug("SCardListReadersW called with parameters context %Ix, groups %ld, readers %ld",
              hContext, static_cast<long>(reinterpret_cast<std::intptr_t>(mszGroups)),
              static_cast<long>(reinterpret_cast<std::intptr_t>(mszReaders)));
    if (pcchReaders == nullptr) {
        log.warning("pcchReaders is NULL");
        return SCARD_E_INVALID_PARAMETER;
    }
    const HeapPtr<char> groups = multiToUtf8(mszGroups, multiSize());
    const LONG rv =
        mszGroups != nullptr && groups == nullptr
            ? SCARD_E_NO_MEMORY
            : copyOutWideNames(mszReaders, pcchReaders, [&](LPSTR readers, LPDWORD length) {
                  const LONG listRv = listReadersUntold(hContext, groups.get(), readers, length);
                  noteToldWideList(hContext, groups.get(), listRv, mszReaders, readers, *length);
                  return listRv;
              });
    if (rv == SCARD_E_INSUFFICIENT_BUFFER || rv == SCARD_E_NO_MEMORY) {
        forgetToldReaders(hContext);  // the list has not been handed out after all
    }
    log.debug("Returning %lu, with pcchReaders %lu and mszReaders %p",
              static_cast<unsigned long>(rv), *pcchReaders, static_cast<void*>(mszReaders));
    return rv;
}

LONG WINAPI SCardStatusW(SCARDHANDLE hCard, LPWSTR szReaderName, LPDWORD pcchReaderLen,
                         LPDWORD pdwState, LPDWORD pdwProtocol, LPBYTE pbAtr, LPDWORD pcbAtrLen) {
    const bool isAtrAllocated =
        pbAtr != nullptr && pcbAtrLen != nullptr && *pcbAtrLen == SCARD_AUTOALLOCATE;
    bool isAtrHandedOut = false;
    const LONG rv = copyOutWideNames(szReaderName, pcchReaderLen, [&](LPSTR names, LPDWORD length) {
        const LONG narrow =
            SCardStatusA(hCard, names, length, pdwState, pdwProtocol, pbAtr, pcbAtrLen);
        isAtrHandedOut = isAtrAllocated && narrow == SCARD_S_SUCCESS;
        return narrow;
    });
    if (rv != SCARD_S_SUCCESS && isAtrHandedOut) {
        takeBack(pbAtr);  // the wide name does not fit or cannot be made
    }
    return rv;
}

namespace {

/// Copies all but the reader's name, which the two forms spell differently.
template <class From, class To>
void copyState(const From& from, To& to) noexcept {
    to.pvUserData = from.pvUserData;
    to.dwCurrentState = from.dwCurrentState;
    to.dwEventState = from.dwEventState;
    to.cbAtr = from.cbAtr;
    std::memcpy(to.rgbAtr, from.rgbAtr, sizeof(to.rgbAtr));
}

}  // namespace

LONG WINAPI SCardGetStatusChangeW(SCARDCONTEXT hContext, DWORD dwTimeout,
                                  LPSCARD_READERSTATEW rgReaderStates, DWORD cReaders) {
    static constexpr FunctionLog log("SCardGetStatusChangeW");
    if ((rgReaderStates == nullptr && cReaders != 0) || cReaders > mostReaders()) {
        return SCARD_E_INVALID_PARAMETER;
    }
    if (cReaders == 0 && !isStandardCallsEnabled()) {
        log.debug("Reader list is empty");
        return SCARD_S_SUCCESS;
    }
    for (DWORD i = 0; i < cReaders; ++i) {
        if (rgReaderStates[i].szReader == nullptr) {
            log.debug("Invalid value");
            return SCARD_E_INVALID_VALUE;
        }
    }
    SCARD_READERSTATEA narrow[kMostStandardReaders] = {};
    HeapPtr<char> names[kMostStandardReaders];
    for (DWORD i = 0; i < cReaders; ++i) {
        names[i] = toUtf8(rgReaderStates[i].szReader);
        if (names[i] == nullptr) {
            return SCARD_E_NO_MEMORY;
        }
        narrow[i].szReader = names[i].get();
        copyState(rgReaderStates[i], narrow[i]);
    }
    const LONG rv = SCardGetStatusChangeA(hContext, dwTimeout, narrow, cReaders);
    for (DWORD i = 0; i < cReaders; ++i) {
        copyState(narrow[i], rgReaderStates[i]);
    }
    return rv;
}
