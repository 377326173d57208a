#include "core/card_store.h"

#include <algorithm>
#include <bit>

namespace tez::pcscd {
namespace {

// What all programs together may leave here. Nobody knows when a program that introduced a card
// type or wrote to the cache will want it again, so nothing is thrown away for what is new. A list
// of all card types must fit into one answer, which is 16 MiB at the most.
constexpr std::size_t kMostOfTypes = std::size_t{8} << 20;
constexpr std::size_t kMostOfCache = std::size_t{64} << 20;

// About what the containers take for an entry, so that empty ones are not for nothing.
constexpr std::size_t kEntryCost = 256;

std::size_t sizeOfProvider(const std::string& provider) {
    return kEntryCost + provider.size();
}

std::size_t sizeOfType(const std::string& card, const CardType& type) {
    std::size_t size = kEntryCost + card.size() + type.atr.size() + type.atrMask.size() +
                       type.interfaces.size() * sizeof(Guid);
    for (const auto& [id, provider] : type.providers) {
        size += sizeOfProvider(provider);
    }
    return size;
}

std::size_t sizeOfItem(const std::string& name, const Bytes& data) {
    return kEntryCost + name.size() + data.size();
}

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
    if (types_.contains(card)) {
        return result::kAlreadyExists;
    }
    const std::size_t size = typesSize_ + sizeOfType(card, type);
    if (size > kMostOfTypes) {
        return result::kNoMemory;
    }
    types_.emplace(card, type);
    typesSize_ = size;
    return result::kSuccess;
}

Result CardStore::forget(const std::string& card) {
    const std::lock_guard lock(mutex_);
    const auto type = types_.find(card);
    if (type == types_.end()) {
        return result::kUnknownCard;
    }
    typesSize_ -= sizeOfType(card, type->second);
    types_.erase(type);
    return result::kSuccess;
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
    auto& providers = type->second.providers;
    const auto former = providers.find(providerId);
    const std::size_t size = typesSize_ + sizeOfProvider(provider) -
                             (former == providers.end() ? 0 : sizeOfProvider(former->second));
    if (size > kMostOfTypes) {
        return result::kNoMemory;
    }
    providers.insert_or_assign(providerId, provider);
    typesSize_ = size;
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

Result CardStore::writeCache(const Guid& card, const std::string& name, std::uint32_t freshness,
                             Bytes data) {
    const std::lock_guard lock(mutex_);
    const auto former = cache_.find({card, name});
    const std::size_t size = cacheSize_ + sizeOfItem(name, data) -
                             (former == cache_.end() ? 0 : sizeOfItem(name, former->second.data));
    if (size > kMostOfCache) {
        return result::kNoMemory;
    }
    cache_.insert_or_assign({card, name}, CacheItem{freshness, std::move(data)});
    cacheSize_ = size;
    return result::kSuccess;
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
