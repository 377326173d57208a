// The wide forms of the calls on the card database, the cache and the reader icon.
#include "api/wide_results.h"
#include "common/scard_api.h"
#include "log/function_log.h"

using namespace tez;

LONG WINAPI SCardListCardsW(SCARDCONTEXT hContext, LPCBYTE pbAtr, LPCGUID rgquidInterfaces,
                            DWORD cguidInterfaceCount, LPWSTR mszCards, LPDWORD pcchCards) {
    static constexpr FunctionLog log("SCardListCardsW");
    log.debug("Parameters context %Ix, cguidInterfaceCount %lu", hContext, cguidInterfaceCount);
    if (pcchCards == nullptr) {
        log.warning("pcchCards is NULL");
        return SCARD_E_INVALID_PARAMETER;
    }
    const LONG rv = copyOutWideNames(mszCards, pcchCards, [&](LPSTR cards, LPDWORD length) {
        return SCardListCardsA(hContext, pbAtr, rgquidInterfaces, cguidInterfaceCount, cards,
                               length);
    });
    log.debug("Returning %lu, with pcchCards %lu and mszCards %llu", static_cast<unsigned long>(rv),
              *pcchCards, reinterpret_cast<std::uintptr_t>(mszCards));
    return rv;
}

LONG WINAPI SCardGetDeviceTypeIdW(SCARDCONTEXT hContext, LPCWSTR szReaderName,
                                  LPDWORD pdwDeviceTypeId) {
    static constexpr FunctionLog log("SCardGetDeviceTypeIdW");
    if (szReaderName == nullptr) {
        log.debug("Reader name is NULL");
        return SCARD_E_INVALID_PARAMETER;
    }
    const LONG rv = withUtf8(szReaderName, [&](LPCSTR reader) {
        return SCardGetDeviceTypeIdA(hContext, reader, pdwDeviceTypeId);
    });
    log.debug("Returning %lu", static_cast<unsigned long>(rv));
    if (pdwDeviceTypeId != nullptr) {
        log.debug("    device type id %lu", *pdwDeviceTypeId);
    }
    return rv;
}

LONG WINAPI SCardGetCardTypeProviderNameW(SCARDCONTEXT hContext, LPCWSTR szCardName,
                                          DWORD dwProviderId, LPWSTR szProvider,
                                          LPDWORD pcchProvider) {
    static constexpr FunctionLog log("SCardGetCardTypeProviderNameW");
    log.debug("Parameters context %Ix, dwProviderId %lu", hContext, dwProviderId);
    if (pcchProvider == nullptr) {
        log.warning("pcchProvider cannot be NULL");
        return SCARD_E_INVALID_PARAMETER;
    }
    if (szCardName == nullptr) {
        log.warning("szCardName cannot be NULL");
        return SCARD_E_INVALID_PARAMETER;
    }
    const LONG rv = withUtf8(szCardName, [&](LPCSTR card) {
        return copyOutWideText(szProvider, pcchProvider, [&](LPSTR provider, LPDWORD length) {
            return SCardGetCardTypeProviderNameA(hContext, card, dwProviderId, provider, length);
        });
    });
    log.debug("Returning %lu, with pcchProvider %lu", static_cast<unsigned long>(rv),
              *pcchProvider);
    return rv;
}

LONG WINAPI SCardReadCacheW(SCARDCONTEXT hContext, UUID* CardIdentifier, DWORD FreshnessCounter,
                            LPWSTR LookupName, PBYTE Data, DWORD* DataLen) {
    static constexpr FunctionLog log("SCardReadCacheW");
    if (LookupName == nullptr) {
        log.debug("LookupName cannot be NULL");
        return SCARD_E_INVALID_PARAMETER;
    }
    return withUtf8(LookupName, [&](LPSTR name) {
        return SCardReadCacheA(hContext, CardIdentifier, FreshnessCounter, name, Data, DataLen);
    });
}

LONG WINAPI SCardWriteCacheW(SCARDCONTEXT hContext, UUID* CardIdentifier, DWORD FreshnessCounter,
                             LPWSTR LookupName, PBYTE Data, DWORD DataLen) {
    static constexpr FunctionLog log("SCardWriteCacheW");
    if (LookupName == nullptr) {
        log.debug("LookupName cannot be NULL");
        return SCARD_E_INVALID_PARAMETER;
    }
    return withUtf8(LookupName, [&](LPSTR name) {
        return SCardWriteCacheA(hContext, CardIdentifier, FreshnessCounter, name, Data, DataLen);
    });
}

LONG WINAPI SCardGetReaderIconW(SCARDCONTEXT hContext, LPCWSTR szReaderName, LPBYTE pbIcon,
                                LPDWORD pcbIcon) {
    static constexpr FunctionLog log("SCardGetReaderIconW");
    if (szReaderName == nullptr) {
        log.debug("szReaderName cannot be NULL");
        return SCARD_E_UNKNOWN_READER;
    }
    return withUtf8(szReaderName, [&](LPCSTR reader) {
        return SCardGetReaderIconA(hContext, reader, pbIcon, pcbIcon);
    });
}

LONG WINAPI SCardIntroduceCardTypeW(SCARDCONTEXT hContext, LPCWSTR szCardName,
                                    LPCGUID pguidPrimaryProvider, LPCGUID rgguidInterfaces,
                                    DWORD dwInterfaceCount, LPCBYTE pbAtr, LPCBYTE pbAtrMask,
                                    DWORD cbAtrLen) {
    return withUtf8(szCardName, [&](LPCSTR card) {
        return SCardIntroduceCardTypeA(hContext, card, pguidPrimaryProvider, rgguidInterfaces,
                                       dwInterfaceCount, pbAtr, pbAtrMask, cbAtrLen);
    });
}

LONG WINAPI SCardForgetCardTypeW(SCARDCONTEXT hContext, LPCWSTR szCardName) {
    return withUtf8(szCardName, [&](LPCSTR card) { return SCardForgetCardTypeA(hContext, card); });
}

LONG WINAPI SCardSetCardTypeProviderNameW(SCARDCONTEXT hContext, LPCWSTR szCardName,
                                          DWORD dwProviderId, LPCWSTR szProvider) {
    return withUtf8(szCardName, [&](LPCSTR card) {
        return withUtf8(szProvider, [&](LPCSTR provider) {
            return SCardSetCardTypeProviderNameA(hContext, card, dwProviderId, provider);
        });
    });
}
