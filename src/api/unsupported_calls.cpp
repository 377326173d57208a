// Calls that neither the daemon nor this library serves. They look at none of their arguments, but
// keep the platform's signatures, so that a caller built against the platform's header is met.
#include "common/scard_api.h"
#include "log/function_log.h"

namespace {

LONG refuse(const char* functionName) noexcept {
    tez::FunctionLog(functionName).warning("%s not implemented", functionName);
    return SCARD_F_INTERNAL_ERROR;
}

}  // namespace

#define TEZ_UNSUPPORTED(name, ...)  \
    LONG WINAPI name(__VA_ARGS__) { \
        return refuse(#name);       \
    }

TEZ_UNSUPPORTED(SCardAddReaderToGroupA, SCARDCONTEXT, LPCSTR, LPCSTR)
TEZ_UNSUPPORTED(SCardAddReaderToGroupW, SCARDCONTEXT, LPCWSTR, LPCWSTR)
TEZ_UNSUPPORTED(SCardForgetReaderA, SCARDCONTEXT, LPCSTR)
TEZ_UNSUPPORTED(SCardForgetReaderW, SCARDCONTEXT, LPCWSTR)
TEZ_UNSUPPORTED(SCardForgetReaderGroupA, SCARDCONTEXT, LPCSTR)
TEZ_UNSUPPORTED(SCardForgetReaderGroupW, SCARDCONTEXT, LPCWSTR)
TEZ_UNSUPPORTED(SCardGetProviderIdA, SCARDCONTEXT, LPCSTR, LPGUID)
TEZ_UNSUPPORTED(SCardGetProviderIdW, SCARDCONTEXT, LPCWSTR, LPGUID)
TEZ_UNSUPPORTED(SCardIntroduceReaderA, SCARDCONTEXT, LPCSTR, LPCSTR)
TEZ_UNSUPPORTED(SCardIntroduceReaderW, SCARDCONTEXT, LPCWSTR, LPCWSTR)
TEZ_UNSUPPORTED(SCardIntroduceReaderGroupA, SCARDCONTEXT, LPCSTR)
TEZ_UNSUPPORTED(SCardIntroduceReaderGroupW, SCARDCONTEXT, LPCWSTR)
TEZ_UNSUPPORTED(SCardListInterfacesA, SCARDCONTEXT, LPCSTR, LPGUID, LPDWORD)
TEZ_UNSUPPORTED(SCardListInterfacesW, SCARDCONTEXT, LPCWSTR, LPGUID, LPDWORD)
TEZ_UNSUPPORTED(SCardLocateCardsA, SCARDCONTEXT, LPCSTR, LPSCARD_READERSTATEA, DWORD)
TEZ_UNSUPPORTED(SCardLocateCardsW, SCARDCONTEXT, LPCWSTR, LPSCARD_READERSTATEW, DWORD)
TEZ_UNSUPPORTED(SCardLocateCardsByATRA, SCARDCONTEXT, LPSCARD_ATRMASK, DWORD, LPSCARD_READERSTATEA,
                DWORD)
TEZ_UNSUPPORTED(SCardLocateCardsByATRW, SCARDCONTEXT, LPSCARD_ATRMASK, DWORD, LPSCARD_READERSTATEW,
                DWORD)
TEZ_UNSUPPORTED(SCardRemoveReaderFromGroupA, SCARDCONTEXT, LPCSTR, LPCSTR)
TEZ_UNSUPPORTED(SCardRemoveReaderFromGroupW, SCARDCONTEXT, LPCWSTR, LPCWSTR)
TEZ_UNSUPPORTED(SCardState, SCARDHANDLE, LPDWORD, LPDWORD, LPBYTE, LPDWORD)

#undef TEZ_UNSUPPORTED

// A remote reader has no device on this host. winscard.def exports this one entry under the four
// names of the device-instance-id calls.
extern "C" LONG WINAPI tezDeviceInstanceId() {
    return SCARD_E_READER_UNAVAILABLE;
}
