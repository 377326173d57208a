#include "agent/feature_codes.h"

#include <span>

#include "agent/service_values.h"

namespace tez::agent {
namespace {

constexpr std::size_t kEntrySize = 6;
constexpr std::uint8_t kCodeSize = 4;
constexpr std::uint32_t kFirstFunction = 0x900;  // among those that are the vendors' own
constexpr std::uint32_t kLastFunction = kFirstFunction + 0xFF;
constexpr std::uint32_t kSmartCardDevice = 0x31 << 16;

std::uint32_t bigEndian(std::span<const std::uint8_t> bytes) {
    std::uint32_t value = 0;
    for (const std::uint8_t byte : bytes) {
        value = value << 8 | byte;
    }
    return value;
}

void putBigEndian(std::span<std::uint8_t> bytes, std::uint32_t value) {
    for (std::size_t i = bytes.size(); i > 0; --i, value >>= 8) {
        bytes[i - 1] = static_cast<std::uint8_t>(value & 0xFF);
    }
}

}  // namespace

void FeatureCodes::translate(pcscd::Bytes& features) {
    for (std::size_t at = 0; at + kEntrySize <= features.size(); at += kEntrySize) {
        if (features[at + 1] != kCodeSize) {
            return;
        }
        const auto code = std::span(features).subspan(at + 2, kCodeSize);
        const std::uint32_t function = kFirstFunction + features[at];
        codes_[function] = bigEndian(code);
        putBigEndian(code, kSmartCardDevice | function << 2);
    }
}

DWORD FeatureCodes::serviceCode(std::uint32_t function,
                                const std::function<pcscd::Bytes()>& request) {
    if (function >= kFirstFunction && function <= kLastFunction && !codes_.contains(function)) {
        pcscd::Bytes features = request();
        translate(features);
    }
    const auto found = codes_.find(function);
    return found == codes_.end() ? toControlCode(function) : found->second;
}

}  // namespace tez::agent
