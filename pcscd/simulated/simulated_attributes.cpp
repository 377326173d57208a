#include <optional>

#include "core/text.h"
#include "simulated/simulated_service.h"
#include "simulated/simulated_service_state.h"

namespace tez::pcscd {
namespace {

Bytes number(std::uint32_t value) {
    Bytes bytes;
    for (int shift = 0; shift < 32; shift += 8) {
        bytes.push_back(static_cast<std::uint8_t>(value >> shift & 0xFF));
    }
    return bytes;
}

struct ReaderFacts {
    const std::string& name;
    std::uint32_t unit;
    std::uint32_t protocol;
    const VirtualCard* card;
};

/// What the reader itself knows; nullopt for attributes that it does not compute.
std::optional<Bytes> computed(std::uint32_t id, const ReaderFacts& reader) {
    switch (id) {
        case attribute::kAtrString:
            return reader.card != nullptr ? reader.card->atr() : Bytes{};
        case attribute::kVendorName:
            return terminated("Virtual Readers");
        case attribute::kVendorIfdType:
            return terminated("Software reader");
        case attribute::kDeviceFriendlyNameA:
        case attribute::kDeviceSystemNameA:
            return terminated(reader.name);
        case attribute::kDeviceFriendlyNameW:
        case attribute::kDeviceSystemNameW:
            return terminatedWide(reader.name);
        case attribute::kDeviceUnit:
            return number(reader.unit);
        case attribute::kIccPresence:
            return Bytes{static_cast<std::uint8_t>(reader.card != nullptr ? 2 : 0)};
        case attribute::kCurrentProtocolType:
            return number(reader.protocol);
        default:
            return std::nullopt;
    }
}

}  // namespace

Result SimulatedService::getAttribute(Card card, std::uint32_t id, Bytes& value) {
    const Lock lock(mutex_);
    const ConnectionPointer connection = findConnection(card);
    if (connection == nullptr) {
        return result::kInvalidHandle;
    }
    if (const Result result = readerResult(*connection); result != result::kSuccess) {
        return result;
    }
    const Reader& reader = *connection->reader;
    const VirtualCard* inserted = reader.card ? &*reader.card : nullptr;
    if (auto own = computed(id, {reader.name, reader.unit, connection->protocol, inserted})) {
        value = std::move(*own);
        return result::kSuccess;
    }
    const auto stored = reader.attributes.find(id);
    if (stored == reader.attributes.end()) {
        return result::kUnsupportedFeature;
    }
    value = stored->second;
    return result::kSuccess;
}

Result SimulatedService::setAttribute(Card card, std::uint32_t id,
                                      std::span<const std::uint8_t> value) {
    const Lock lock(mutex_);
    const ConnectionPointer connection = findConnection(card);
    if (connection == nullptr) {
        return result::kInvalidHandle;
    }
    if (const Result result = readerResult(*connection); result != result::kSuccess) {
        return result;
    }
    if (computed(id, {connection->reader->name, 0, 0, nullptr})) {
        return result::kUnsupportedFeature;
    }
    connection->reader->attributes[id].assign(value.begin(), value.end());
    return result::kSuccess;
}

}  // namespace tez::pcscd
