#include "carddb/atr.h"

#include <bit>

namespace tez {

namespace {

constexpr std::uint8_t kInterfaceBytes = 0x70;  // TA, TB, TC follow
constexpr std::uint8_t kNextIndicator = 0x80;   // TD follows
constexpr std::uint8_t kLowNibble = 0x0F;       // historical bytes in T0, the protocol in TD

bool isTs(std::uint8_t byte) {
    return byte == 0x3B || byte == 0x3F;
}

}  // namespace

std::uint32_t parseAtrLength(const std::uint8_t* atr) noexcept {
    if (atr == nullptr) {
        return 0;
    }
    const std::uint32_t start = isTs(atr[0]) ? 1 : 0;
    const std::uint32_t limit = start + 32;
    std::uint32_t count = start + 1;
    bool hasTck = false;
    std::uint8_t indicator = atr[start];
    const std::uint32_t historicalBytes = indicator & kLowNibble;
    for (;;) {
        count += static_cast<std::uint32_t>(
            std::popcount(static_cast<unsigned>(indicator & kInterfaceBytes)));
        const bool hasNext = (indicator & kNextIndicator) != 0;
        // What would exceed the limit below anyway is not read: it may lie behind the ATR.
        if (hasNext && count < limit) {
            // The same position with and without TS, although without it the byte before the next
            // indicator is meant: the daemon counts like this too.
            indicator = atr[start + count - 1];
            hasTck = hasTck || (indicator & kLowNibble) != 0;
        }
        count += hasNext ? 1 : 0;
        if (count + (hasTck ? 1 : 0) > limit) {
            return 0;
        }
        if (!hasNext) {
            break;
        }
    }
    count += historicalBytes;
    if (!hasTck) {
        return count;
    }
    if (start + count > kLongestAtr) {
        return count + 1;  // too long whatever its TCK, which is not read
    }
    std::uint8_t sum = 0;
    for (std::uint32_t i = 0; i + 1 < count; ++i) {
        sum ^= atr[start + i];
    }
    return sum == atr[start + count - 1] ? count + 1 : 0;
}

std::string atrToHex(const std::uint8_t* bytes, std::uint32_t length) {
    static constexpr char kDigits[] = "0123456789ABCDEF";
    std::string text;
    for (std::uint32_t i = 0; bytes != nullptr && i < length; ++i) {
        text.push_back(kDigits[bytes[i] >> 4]);
        text.push_back(kDigits[bytes[i] & kLowNibble]);
    }
    return text;
}

}  // namespace tez
