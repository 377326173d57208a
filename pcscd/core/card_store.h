#pragma once

#include <windows.h>

#include <array>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "simulated/virtual_card.h"

namespace tez::test {

/// The longest ATR that there can be.
inline constexpr std::size_t kLongestAtr = 33;

/// A kind of card, as a card database knows it.
struct CardType {
    Bytes atr;
    Bytes atrMask;  ///< as long as the ATR: the bits that count
    std::optional<GUID> primaryProvider = {};
    std::vector<GUID> interfaces;
    std::map<DWORD, std::string> providers;  ///< by provider identifier
};

/// How long an ATR is by its own structure; 0 when that is longer than an ATR can be. The bytes up
/// to that length must be readable.
std::size_t atrLength(const std::uint8_t* atr);

/// The type of a card whose whole ATR counts, without providers.
CardType cardTypeOf(const VirtualCard& card);

/// A card database and its cache of card data, in memory. Results are the platform's
/// codes. Thread-safe.
class CardStore {
  public:
    /// ERROR_ALREADY_EXISTS when there is a card of that name.
    LONG introduce(const std::string& card, const CardType& type);
    /// SCARD_E_UNKNOWN_CARD when there is none.
    LONG forget(const std::string& card);
    std::optional<CardType> find(const std::string& card) const;
    LONG setProvider(const std::string& card, DWORD providerId, const std::string& provider);
    /// ERROR_FILE_NOT_FOUND when the card has no such provider.
    LONG provider(const std::string& card, DWORD providerId, std::string& provider) const;

    /// The cards whose ATR matches (any, if it is empty) and that have all of the interfaces.
    std::vector<std::string> list(std::span<const std::uint8_t> atr,
                                  std::span<const GUID> interfaces) const;

    void writeCache(const GUID& card, const std::string& name, DWORD freshness, Bytes data);
    /// SCARD_W_CACHE_ITEM_NOT_FOUND; SCARD_W_CACHE_ITEM_STALE when it was written with another
    /// freshness counter.
    LONG readCache(const GUID& card, const std::string& name, DWORD freshness, Bytes& data) const;

  private:
    using CacheKey = std::pair<std::array<std::uint8_t, sizeof(GUID)>, std::string>;

    struct CacheItem {
        DWORD freshness;
        Bytes data;
    };

    static CacheKey cacheKey(const GUID& card, const std::string& name);

    mutable std::mutex mutex_;
    std::map<std::string, CardType> types_;
    std::map<CacheKey, CacheItem> cache_;
};

}  // namespace tez::test
