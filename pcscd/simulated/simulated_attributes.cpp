
#include <optional>

#include "record_codec.h"
#include "simulated/simulated_service.h"
#include "simulated/simulated_service_state.h"

namespace tez::test {
namespace {

Bytes terminatedWide(const std::string& utf8) {
    const int size = static_cast<int>(utf8.size()) + 1;
    std::wstring wide(static_cast<std::size_t>(size), L'\0');
    const int used = MultiByteToWideChar(CP_UTF8, 0, utf8.c_str(), size, wide.data(), size);
    Bytes bytes;
    for (const wchar_t unit : wide.substr(0, static_cast<std::size_t>(used))) {
        bytes.push_back(static_cast<std::uint8_t>(unit & 0xFF));
        bytes.push_back(static_cast<std::uint8_t>(unit >> 8));
    }
    return bytes;
}

Bytes number(DWORD value) {
    Bytes bytes;
    for (int shift = 0; shift < 32; shift += 8) {
        bytes.push_back(static_cast<std::uint8_t>(value >> shift & 0xFF));
    }
    return bytes;
}

struct ReaderFacts {
    const std::string& name;
    DWORD unit;
    DWORD protocol;
    const VirtualCard* card;
};

/// What the reader itself knows; nullopt for attributes that it does not compute.
std::optional<Bytes> computed(DWORD id, const ReaderFacts& reader) {
    switch (id) {
        case SCARD_ATTR_ATR_STRING:
            return reader.card != nullptr ? reader.card->atr() : Bytes{};
        case SCARD_ATTR_VENDOR_NAME:
            return terminated("Virtual Readers");
        case SCARD_ATTR_VENDOR_IFD_TYPE:
            return terminated("Software reader");
        case SCARD_ATTR_DEVICE_FRIENDLY_NAME_A:
        case SCARD_ATTR_DEVICE_SYSTEM_NAME_A:
            return terminated(reader.name);
        case SCARD_ATTR_DEVICE_FRIENDLY_NAME_W:
        case SCARD_ATTR_DEVICE_SYSTEM_NAME_W:
            return terminatedWide(reader.name);
        case SCARD_ATTR_DEVICE_UNIT:
            return number(reader.unit);
        case SCARD_ATTR_ICC_PRESENCE:
            return Bytes{static_cast<std::uint8_t>(reader.card != nullptr ? 2 : 0)};
        case SCARD_ATTR_CURRENT_PROTOCOL_TYPE:
            return number(reader.protocol);
        default:
            return std::nullopt;
    }
}

}  // namespace

LONG SimulatedService::getAttribute(Card card, DWORD id, Bytes& value) const {
    const Lock lock(mutex_);
    const ConnectionPointer connection = findConnection(card);
    if (connection == nullptr) {
        return SCARD_E_INVALID_HANDLE;
    }
    if (const LONG result = readerResult(*connection); result != SCARD_S_SUCCESS) {
        return result;
    }
    const Reader& reader = *connection->reader;
    const VirtualCard* inserted = reader.card ? &*reader.card : nullptr;
    if (auto own = computed(id, {reader.name, reader.unit, connection->protocol, inserted})) {
        value = std::move(*own);
        return SCARD_S_SUCCESS;
    }
    const auto stored = reader.attributes.find(id);
    if (stored == reader.attributes.end()) {
        return SCARD_E_UNSUPPORTED_FEATURE;
    }
    value = stored->second;
    return SCARD_S_SUCCESS;
}

LONG SimulatedService::setAttribute(Card card, DWORD id, std::span<const std::uint8_t> value) {
    const Lock lock(mutex_);
    const ConnectionPointer connection = findConnection(card);
    if (connection == nullptr) {
        return SCARD_E_INVALID_HANDLE;
    }
    if (const LONG result = readerResult(*connection); result != SCARD_S_SUCCESS) {
        return result;
    }
    if (computed(id, {connection->reader->name, 0, 0, nullptr})) {
        return SCARD_E_UNSUPPORTED_FEATURE;
    }
    connection->reader->attributes[id].assign(value.begin(), value.end());
    return SCARD_S_SUCCESS;
}

}  // namespace tez::test
