#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "core/bytes.h"
#include "core/platform.h"
#include "wire/database_records.h"

namespace tez::pcscd {

using Guid = WireGuid;

/// The longest ATR that there can be.
inline constexpr std::size_t kLongestAtr = 33;

/// A kind of card, as a card database knows it.
struct CardType {
    Bytes atr;
    Bytes atrMask;  ///< as long as the ATR: the bits that count
    std::optional<Guid> primaryProvider = {};
    std::vector<Guid> interfaces;
    std::map<std::uint32_t, std::string> providers;  ///< by provider identifier
};

/// How long an ATR is by its own structure; 0 when that is longer than an ATR can be. The bytes up
/// to that length must be readable.
std::size_t atrLength(const std::uint8_t* atr);

/// The type of a card whose whole ATR counts, without providers.
CardType cardTypeOf(Bytes atr);

/// A card database and its cache of card data, in memory. Results are the platform's
/// codes. Either has a limit: what would be beyond it is result::kNoMemory, and changes nothing. A
/// list of all cards is at most 8 MiB long. Thread-safe.
class CardStore {
  public:
    /// result::kAlreadyExists when there is a card of that name.
    Result introduce(const std::string& card, const CardType& type);
    /// result::kUnknownCard when there is none.
    Result forget(const std::string& card);
    std::optional<CardType> find(const std::string& card) const;
    Result setProvider(const std::string& card, std::uint32_t providerId,
                       const std::string& provider);
    /// result::kFileNotFound when the card has no such provider.
    Result provider(const std::string& card, std::uint32_t providerId, std::string& provider) const;

    /// The cards whose ATR matches (any, if it is empty) and that have all of the interfaces.
    std::vector<std::string> list(std::span<const std::uint8_t> atr,
                                  std::span<const Guid> interfaces) const;

    Result writeCache(const Guid& card, const std::string& name, std::uint32_t freshness,
                      Bytes data);
    /// result::kCacheItemNotFound; result::kCacheItemStale when it was written with another
    /// freshness counter.
    Result readCache(const Guid& card, const std::string& name, std::uint32_t freshness,
                     Bytes& data) const;

  private:
    using CacheKey = std::pair<Guid, std::string>;

    struct CacheItem {
        std::uint32_t freshness;
        Bytes data;
    };

    mutable std::mutex mutex_;
    std::map<std::string, CardType> types_;
    std::map<CacheKey, CacheItem> cache_;
    std::size_t typesSize_ = 0;
    std::size_t cacheSize_ = 0;
};

}  // namespace tez::pcscd
