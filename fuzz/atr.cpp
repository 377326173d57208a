// Whatever stands where an ATR should: parseAtrLength gets it as a bare pointer and has to find out
// by itself how far it may read.
#include "carddb/atr.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstdint>
#include <memory>
#include <string>

#include "support/holds.h"

using namespace tez;
using fuzz::holds;

namespace {

using Atr = std::array<std::uint8_t, kLongestAtr>;

/// The length of an ATR with TS by the text of ISO 7816-3; 0 when its interface bytes alone are too
/// long, or its check byte is another.
std::uint32_t lengthByTheStandard(const Atr& atr) {
    std::uint32_t at = 1;  // of T0 or a TD
    bool hasCheckByte = false;
    for (;;) {
        const auto indicator = static_cast<unsigned>(atr.at(at));
        const auto interfaceBytes = static_cast<std::uint32_t>(std::popcount(indicator & 0x70U));
        at += 1 + interfaceBytes;
        if ((indicator & 0x80U) == 0) {
            break;
        }
        if (at >= kLongestAtr) {
            return 0;
        }
        hasCheckByte = hasCheckByte || (atr.at(at) & 0xFU) != 0;
    }
    if (at + (hasCheckByte ? 1 : 0) > kLongestAtr) {
        return 0;
    }
    const std::uint32_t length = at + (atr[1] & 0xFU) + (hasCheckByte ? 1 : 0);
    std::uint8_t sum = 0;
    for (std::uint32_t i = 1; hasCheckByte && length <= kLongestAtr && i < length; ++i) {
        sum ^= atr.at(i);
    }
    return sum == 0 ? length : 0;
}

void checkLength(const Atr& atr) {
    const std::uint32_t length = parseAtrLength(atr.data());
    holds(length <= kLongestAtr + 16);  // the last interface byte may be the last of the ATR
    if (atr[0] == 0x3B || atr[0] == 0x3F) {
        holds(length == lengthByTheStandard(atr));
    }
    if (length != 0 && length <= kLongestAtr) {
        // No more is read than there is of such an ATR.
        const auto exact = std::make_unique<std::uint8_t[]>(length);
        std::copy_n(atr.begin(), length, exact.get());
        holds(parseAtrLength(exact.get()) == length);
    }
}

void checkHex(const std::uint8_t* data, std::size_t size) {
    const std::string hex = atrToHex(data, static_cast<std::uint32_t>(size));
    holds(hex.size() == 2 * size);
    for (std::size_t i = 0; i < size; ++i) {
        holds(hex[2 * i] == "0123456789ABCDEF"[data[i] / 16]);
        holds(hex[2 * i + 1] == "0123456789ABCDEF"[data[i] % 16]);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto atr = std::make_unique<Atr>();  // a block of its own, with nothing behind it
    std::copy_n(data, std::min<std::size_t>(size, kLongestAtr), atr->begin());
    checkLength(*atr);
    checkHex(data, size);
    return 0;
}
