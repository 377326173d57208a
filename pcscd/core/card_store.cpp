#include "core/card_store.h"

#include <algorithm>
#include <bit>

namespace tez::pcscd {
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

CardType cardTypeOf(Bytes atr) {
    CardType type;
    type.atr = std::move(atr);
    type.atrMask.assign(type.atr.size(), 0xFF);
    return type;
}

Result CardStore::introduce(const std::string& card, const CardType& type) {
    const std::lock_guard lock(mutex_);
    return types_.try_emplace(card, type).second ? result::kSuccess : result::kAlreadyExists;
}

Result CardStore::forget(const std::string& card) {
    const std::lock_guard lock(mutex_);
    return types_.erase(card) == 1 ? result::kSuccess : result::kUnknownCard;
}

std::optional<CardType> CardStore::find(const std::string& card) const {
    const std::lock_guard lock(mutex_);
    const auto type = types_.find(card);
    return type == types_.end() ? std::nullopt : std::optional(type->second);
}

Result CardStore::setProvider(const std::string& card, std::uint32_t providerId,
                              const std::string& provider) {
    const std::lock_guard lock(mutex_);
    const auto type = types_.find(card);
    if (type == types_.end()) {
        return result::kUnknownCard;
    }
    type->second.providers[providerId] = provider;
    return result::kSuccess;
}

Result CardStore::provider(const std::string& card, std::uint32_t providerId,
                           std::string& provider) const {
    const std::lock_guard lock(mutex_);
    const auto type = types_.find(card);
    if (type == types_.end()) {
        return result::kUnknownCard;
    }
    const auto found = type->second.providers.find(providerId);
    if (found == type->second.providers.end()) {
        return result::kFileNotFound;
    }
    provider = found->second;
    return result::kSuccess;
}

std::vector<std::string> CardStore::list(std::span<const std::uint8_t> atr,
                                         std::span<const Guid> interfaces) const {
    const std::lock_guard lock(mutex_);
    std::vector<std::string> cards;
    for (const auto& [name, type] : types_) {
        if ((atr.empty() || matches(type, atr)) &&
            std::ranges::all_of(interfaces, [&known = type.interfaces](const Guid& wanted) {
                return std::ranges::find(known, wanted) != known.end();
            })) {
            cards.push_back(name);
        }
    }
    return cards;
}

void CardStore::writeCache(const Guid& card, const std::string& name, std::uint32_t freshness,
                           Bytes data) {
    const std::lock_guard lock(mutex_);
    cache_[{card, name}] = {freshness, std::move(data)};
}

Result CardStore::readCache(const Guid& card, const std::string& name, std::uint32_t freshness,
                            Bytes& data) const {
    const std::lock_guard lock(mutex_);
    const auto item = cache_.find({card, name});
    if (item == cache_.end()) {
        return result::kCacheItemNotFound;
    }
    if (item->second.freshness != freshness) {
        return result::kCacheItemStale;
    }
    data = item->second.data;
    return result::kSuccess;
}

}  // namespace tez::pcscd
