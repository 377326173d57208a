#include "core/card_store.h"

#include <winscard.h>

#include <algorithm>
#include <bit>
#include <cstring>

namespace tez::test {
namespace {

bool matches(const CardType& type, std::span<const std::uint8_t> atr) {
    if (atr.size() != type.atr.size()) {
        return false;
    }
    for (std::size_t i = 0; i < atr.size(); ++i) {
        if (((atr[i] ^ type.atr[i]) & type.atrMask[i]) != 0) {
            return false;
        }
    }
    return true;
}

bool hasInterface(const CardType& type, const GUID& wanted) {
    return std::ranges::any_of(type.interfaces, [&](const GUID& offered) {
        return std::memcmp(&offered, &wanted, sizeof(GUID)) == 0;
    });
}

}  // namespace

std::size_t atrLength(const std::uint8_t* atr) {
    const std::size_t historicalBytes = atr[1] & 0x0FU;
    bool needsCheckByte = false;
    std::size_t length = 2;
    for (unsigned present = atr[1] >> 4U; present != 0;) {
        length += static_cast<std::size_t>(std::popcount(present));
        const bool hasNext = (present & 8U) != 0;
        if (hasNext && length > kLongestAtr) {
            return 0;
        }
        const unsigned next = hasNext ? atr[length - 1] : 0U;
        // Only a card that speaks T=0 and nothing else has no check byte.
        needsCheckByte = needsCheckByte || (next & 0x0FU) != 0;
        present = next >> 4U;
    }
    length += historicalBytes + (needsCheckByte ? 1 : 0);
    return length <= kLongestAtr ? length : 0;
}

CardType cardTypeOf(const VirtualCard& card) {
    CardType type;
    type.atr = card.atr();
    type.atrMask.assign(type.atr.size(), 0xFF);
    return type;
}

LONG CardStore::introduce(const std::string& card, const CardType& type) {
    const std::lock_guard lock(mutex_);
    return types_.try_emplace(card, type).second ? SCARD_S_SUCCESS : ERROR_ALREADY_EXISTS;
}

LONG CardStore::forget(const std::string& card) {
    const std::lock_guard lock(mutex_);
    return types_.erase(card) == 1 ? SCARD_S_SUCCESS : SCARD_E_UNKNOWN_CARD;
}

std::optional<CardType> CardStore::find(const std::string& card) const {
    const std::lock_guard lock(mutex_);
    const auto type = types_.find(card);
    return type == types_.end() ? std::nullopt : std::optional(type->second);
}

LONG CardStore::setProvider(const std::string& card, DWORD providerId,
                            const std::string& provider) {
    const std::lock_guard lock(mutex_);
    const auto type = types_.find(card);
    if (type == types_.end()) {
        return SCARD_E_UNKNOWN_CARD;
    }
    type->second.providers[providerId] = provider;
    return SCARD_S_SUCCESS;
}

LONG CardStore::provider(const std::string& card, DWORD providerId, std::string& provider) const {
    const std::lock_guard lock(mutex_);
    const auto type = types_.find(card);
    if (type == types_.end()) {
        return SCARD_E_UNKNOWN_CARD;
    }
    const auto found = type->second.providers.find(providerId);
    if (found == type->second.providers.end()) {
        return ERROR_FILE_NOT_FOUND;
    }
    provider = found->second;
    return SCARD_S_SUCCESS;
}

std::vector<std::string> CardStore::list(std::span<const std::uint8_t> atr,
                                         std::span<const GUID> interfaces) const {
    const std::lock_guard lock(mutex_);
    std::vector<std::string> cards;
    for (const auto& [name, type] : types_) {
        if ((atr.empty() || matches(type, atr)) &&
            std::ranges::all_of(interfaces, [&known = type](const GUID& wanted) {
                return hasInterface(known, wanted);
            })) {
            cards.push_back(name);
        }
    }
    return cards;
}

CardStore::CacheKey CardStore::cacheKey(const GUID& card, const std::string& name) {
    return {std::bit_cast<std::array<std::uint8_t, sizeof(GUID)>>(card), name};
}

void CardStore::writeCache(const GUID& card, const std::string& name, DWORD freshness, Bytes data) {
    const std::lock_guard lock(mutex_);
    cache_[cacheKey(card, name)] = {freshness, std::move(data)};
}

LONG CardStore::readCache(const GUID& card, const std::string& name, DWORD freshness,
                          Bytes& data) const {
    const std::lock_guard lock(mutex_);
    const auto item = cache_.find(cacheKey(card, name));
    if (item == cache_.end()) {
        return SCARD_W_CACHE_ITEM_NOT_FOUND;
    }
    if (item->second.freshness != freshness) {
        return SCARD_W_CACHE_ITEM_STALE;
    }
    data = item->second.data;
    return SCARD_S_SUCCESS;
}

}  // namespace tez::test
