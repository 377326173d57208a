#pragma once

#include <windows.h>

#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "bytes.h"
#include "json.h"

namespace tez::client {

/// How the bytes of an attribute are to be read.
enum class AttributeKind : std::uint8_t { kBytes, kNumber, kText, kWideText };

struct AttributeName {
    DWORD id;
    const char* name;  ///< as the platform spells it, without SCARD_ATTR_ in front
    AttributeKind kind;
};

/// The attributes that the platform has names for.
std::span<const AttributeName> attributeNames();

/// An attribute given by its name, in upper or lower case and with or without SCARD_ATTR_ in front,
/// or by its number ("0x00090303"). nullopt when the text is neither.
std::optional<DWORD> parseAttribute(std::string_view text);

/// "ATR_STRING 0x00090303"; one without a name is its number alone.
std::string describeAttribute(DWORD id);

/// {"name": "ATR_STRING", "id": "0x00090303"}; one without a name has its number alone.
Json attributeToJson(DWORD id);

/// The value for people to read; nothing when the attribute is not known to be more than bytes.
std::optional<std::string> readableValue(DWORD id, ByteView value);

}  // namespace tez::client
