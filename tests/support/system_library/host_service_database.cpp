// The card database and the cache of card data.
#include <iterator>

#include "system_library/host_service.h"

namespace tez::test {
namespace {

std::span<const std::uint8_t> asBytes(const std::string& text) {
    // NUL
    return {reinterpret_cast<const std::uint8_t*>(text.c_str()), text.size() + 1};
}

}  // namespace

LONG HostService::SCardListCardsA(SCARDCONTEXT context, LPCBYTE atr, LPCGUID interfaces,
                                  DWORD interfaceCount, LPSTR cards, LPDWORD length) {
    if (context != 0 && pcsc_.isValidContext(context) != SCARD_S_SUCCESS) {
        return SCARD_E_INVALID_HANDLE;
    }
    Bytes names;
    const std::span<const std::uint8_t> wanted(atr, atr == nullptr ? 0 : atrLength(atr));
    for (const std::string& card :
         store_.list(wanted, {interfaces, interfaces == nullptr ? 0 : interfaceCount})) {
        std::ranges::copy(asBytes(card), std::back_inserter(names));
    }
    names.push_back(0);
    return heap_.deliver(names, cards, length);
}

LONG HostService::SCardIntroduceCardTypeA(SCARDCONTEXT context, LPCSTR card,
                                          LPCGUID /*primaryProvider*/, LPCGUID interfaces,
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
    type.interfaces.assign(interfaces, interfaces + interfaceCount);
    return store_.introduce(card, std::move(type));
}

LONG HostService::SCardForgetCardTypeA(SCARDCONTEXT context, LPCSTR card) {
    if (card == nullptr) {
        return SCARD_E_INVALID_PARAMETER;
    }
    const LONG result = pcsc_.isValidContext(context);
    return result == SCARD_S_SUCCESS ? store_.forget(card) : result;
}

LONG HostService::SCardSetCardTypeProviderNameA(SCARDCONTEXT context, LPCSTR card, DWORD providerId,
                                                LPCSTR provider) {
    if (card == nullptr || provider == nullptr) {
        return SCARD_E_INVALID_PARAMETER;
    }
    const LONG result = pcsc_.isValidContext(context);
    return result == SCARD_S_SUCCESS ? store_.setProvider(card, providerId, provider) : result;
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
    const LONG result = store_.provider(card, providerId, name);
    return result == SCARD_S_SUCCESS ? heap_.deliver(asBytes(name), provider, length) : result;
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
    const LONG result = store_.readCache(*cardIdentifier, lookupName, freshness, item);
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
    store_.writeCache(*cardIdentifier, lookupName, freshness, Bytes(data, data + length));
    return SCARD_S_SUCCESS;
}

}  // namespace tez::test
