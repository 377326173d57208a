// The card database and the cache of card data.
#include <algorithm>
#include <bit>
#include <iterator>

#include "core/text.h"
#include "system_library/host_service.h"

namespace tez::test {
namespace {

std::vector<Guid> guids(LPCGUID first, DWORD count) {
    std::vector<Guid> bytes;
    std::transform(first, first + count, std::back_inserter(bytes),
                   [](const GUID& guid) { return std::bit_cast<Guid>(guid); });
    return bytes;
}

}  // namespace

LONG HostService::SCardListCardsA(SCARDCONTEXT context, LPCBYTE atr, LPCGUID interfaces,
                                  DWORD interfaceCount, LPSTR cards, LPDWORD length) {
    if (context != 0 && pcsc_.isValidContext(context) != SCARD_S_SUCCESS) {
        return SCARD_E_INVALID_HANDLE;
    }
    const std::size_t size = atr == nullptr ? 0 : atrLength(atr);
    if (atr != nullptr && size == 0) {
        return SCARD_E_INVALID_PARAMETER;
    }
    const std::vector<std::string> names = pcsc_.cardStore().list(
        {atr, size}, guids(interfaces, interfaces == nullptr ? 0 : interfaceCount));
    return heap_.deliver(multiString(names), cards, length);
}

LONG HostService::SCardIntroduceCardTypeA(SCARDCONTEXT context, LPCSTR card,
                                          LPCGUID primaryProvider, LPCGUID interfaces,
                                          DWORD interfaceCount, LPCBYTE atr, LPCBYTE atrMask,
                                          DWORD atrLength) {
    if (card == nullptr || atr == nullptr || (interfaces == nullptr && interfaceCount != 0)) {
        return SCARD_E_INVALID_PARAMETER;
    }
    if (const LONG result = pcsc_.isValidContext(context); result != SCARD_S_SUCCESS) {
        return result;
    }
    CardType type;
    type.atr.assign(atr, atr + atrLength);
    type.atrMask.assign(atrLength, 0xFF);
    if (atrMask != nullptr) {
        type.atrMask.assign(atrMask, atrMask + atrLength);
    }
    if (primaryProvider != nullptr) {
        type.primaryProvider = std::bit_cast<Guid>(*primaryProvider);
    }
    type.interfaces = guids(interfaces, interfaceCount);
    return pcsc_.cardStore().introduce(card, type);
}

LONG HostService::SCardForgetCardTypeA(SCARDCONTEXT context, LPCSTR card) {
    if (card == nullptr) {
        return SCARD_E_INVALID_PARAMETER;
    }
    const LONG result = pcsc_.isValidContext(context);
    return result == SCARD_S_SUCCESS ? pcsc_.cardStore().forget(card) : result;
}

LONG HostService::SCardSetCardTypeProviderNameA(SCARDCONTEXT context, LPCSTR card, DWORD providerId,
                                                LPCSTR provider) {
    if (card == nullptr || provider == nullptr) {
        return SCARD_E_INVALID_PARAMETER;
    }
    const LONG result = pcsc_.isValidContext(context);
    return result == SCARD_S_SUCCESS ? pcsc_.cardStore().setProvider(card, providerId, provider)
                                     : result;
}

LONG HostService::SCardGetCardTypeProviderNameA(SCARDCONTEXT context, LPCSTR card, DWORD providerId,
                                                LPSTR provider, LPDWORD length) {
    if (card == nullptr) {
        return SCARD_E_INVALID_PARAMETER;
    }
    if (context != 0 && pcsc_.isValidContext(context) != SCARD_S_SUCCESS) {
        return SCARD_E_INVALID_HANDLE;
    }
    std::string name;
    const LONG result = pcsc_.cardStore().provider(card, providerId, name);
    return result == SCARD_S_SUCCESS ? heap_.deliver(terminated(name), provider, length) : result;
}

LONG HostService::SCardReadCacheA(SCARDCONTEXT context, UUID* cardIdentifier, DWORD freshness,
                                  LPSTR lookupName, PBYTE data, LPDWORD length) {
    if (cardIdentifier == nullptr || lookupName == nullptr) {
        return SCARD_E_INVALID_PARAMETER;
    }
    if (const LONG result = pcsc_.isValidContext(context); result != SCARD_S_SUCCESS) {
        return result;
    }
    Bytes item;
    const LONG result = pcsc_.cardStore().readCache(std::bit_cast<Guid>(*cardIdentifier),
                                                    lookupName, freshness, item);
    return result == SCARD_S_SUCCESS ? heap_.deliver(item, data, length) : result;
}

LONG HostService::SCardWriteCacheA(SCARDCONTEXT context, UUID* cardIdentifier, DWORD freshness,
                                   LPSTR lookupName, PBYTE data, DWORD length) {
    if (cardIdentifier == nullptr || lookupName == nullptr || (data == nullptr && length != 0)) {
        return SCARD_E_INVALID_PARAMETER;
    }
    if (const LONG result = pcsc_.isValidContext(context); result != SCARD_S_SUCCESS) {
        return result;
    }
    return pcsc_.cardStore().writeCache(std::bit_cast<Guid>(*cardIdentifier), lookupName, freshness,
                                        Bytes(data, data + length));
}

}  // namespace tez::test
