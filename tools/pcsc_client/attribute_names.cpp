#include "attribute_names.h"

#include <winscard.h>

#include <algorithm>
#include <charconv>
#include <system_error>

#include "hex.h"
#include "utf8.h"

namespace tez::client {
namespace {

using enum AttributeKind;

#define NAMED(name) SCARD_ATTR_##name, #name

constexpr AttributeName kNames[] = {
    {NAMED(VENDOR_NAME), kText},
    {NAMED(VENDOR_IFD_TYPE), kText},
    {NAMED(VENDOR_IFD_VERSION), kNumber},
    {NAMED(VENDOR_IFD_SERIAL_NO), kText},
    {NAMED(CHANNEL_ID), kNumber},
    {NAMED(PROTOCOL_TYPES), kNumber},
    {NAMED(DEFAULT_CLK), kNumber},
    {NAMED(MAX_CLK), kNumber},
    {NAMED(DEFAULT_DATA_RATE), kNumber},
    {NAMED(MAX_DATA_RATE), kNumber},
    {NAMED(MAX_IFSD), kNumber},
    {NAMED(POWER_MGMT_SUPPORT), kNumber},
    {NAMED(USER_TO_CARD_AUTH_DEVICE), kNumber},
    {NAMED(USER_AUTH_INPUT_DEVICE), kNumber},
    {NAMED(CHARACTERISTICS), kNumber},
    {NAMED(CURRENT_PROTOCOL_TYPE), kNumber},
    {NAMED(CURRENT_CLK), kNumber},
    {NAMED(CURRENT_F), kNumber},
    {NAMED(CURRENT_D), kNumber},
    {NAMED(CURRENT_N), kNumber},
    {NAMED(CURRENT_W), kNumber},
    {NAMED(CURRENT_IFSC), kNumber},
    {NAMED(CURRENT_IFSD), kNumber},
    {NAMED(CURRENT_BWT), kNumber},
    {NAMED(CURRENT_CWT), kNumber},
    {NAMED(CURRENT_EBC_ENCODING), kNumber},
    {NAMED(EXTENDED_BWT), kNumber},
    {NAMED(ICC_PRESENCE), kNumber},
    {NAMED(ICC_INTERFACE_STATUS), kNumber},
    {NAMED(CURRENT_IO_STATE), kBytes},
    {NAMED(ATR_STRING), kBytes},
    {NAMED(ICC_TYPE_PER_ATR), kNumber},
    {NAMED(ESC_RESET), kBytes},
    {NAMED(ESC_CANCEL), kBytes},
    {NAMED(ESC_AUTHREQUEST), kBytes},
    {NAMED(MAXINPUT), kNumber},
    {NAMED(DEVICE_UNIT), kNumber},
    {NAMED(DEVICE_IN_USE), kNumber},
    {NAMED(DEVICE_FRIENDLY_NAME_A), kText},
    {NAMED(DEVICE_SYSTEM_NAME_A), kText},
    {NAMED(DEVICE_FRIENDLY_NAME_W), kWideText},
    {NAMED(DEVICE_SYSTEM_NAME_W), kWideText},
    {NAMED(SUPRESS_T1_IFS_REQUEST), kNumber},
};

#undef NAMED

const AttributeName* find(DWORD id) {
    const auto* const found =
        std::find_if(std::begin(kNames), std::end(kNames),
                     [id](const AttributeName& each) { return each.id == id; });
    return found == std::end(kNames) ? nullptr : found;
}

std::string upperCase(std::string_view text) {
    std::string upper(text);
    for (char& letter : upper) {
        letter = letter >= 'a' && letter <= 'z' ? static_cast<char>(letter - 'a' + 'A') : letter;
    }
    return upper;
}

/// Little-endian; nullopt for more bytes than a number has.
std::optional<std::string> readNumber(ByteView value) {
    if (value.empty() || value.size() > sizeof(DWORD)) {
        return std::nullopt;
    }
    DWORD number = 0;
    for (std::size_t index = 0; index < value.size(); ++index) {
        number |= DWORD{value[index]} << (8 * index);
    }
    return std::to_string(number);
}

std::string readText(ByteView value) {
    const auto end = std::find(value.begin(), value.end(), 0);
    return {value.begin(), end};
}

std::string readWideText(ByteView value) {
    std::wstring wide;
    for (std::size_t index = 0; index + 1 < value.size(); index += 2) {
        wide.push_back(static_cast<wchar_t>(value[index] | value[index + 1] << 8U));
    }
    return tools::toUtf8(wide.substr(0, wide.find(L'\0')));
}

}  // namespace

std::span<const AttributeName> attributeNames() {
    return kNames;
}

std::optional<DWORD> parseAttribute(std::string_view text) {
    constexpr std::string_view kPrefix = "SCARD_ATTR_";
    constexpr std::string_view kHexPrefix = "0X";
    std::string upper = upperCase(text);
    const bool isHex = upper.starts_with(kHexPrefix);
    const char* const digits = upper.data() + (isHex ? kHexPrefix.size() : 0);
    const char* const end = upper.data() + upper.size();
    DWORD number = 0;
    if (const auto [stop, error] = std::from_chars(digits, end, number, isHex ? 16 : 10);
        error == std::errc() && stop == end) {
        return number;
    }
    if (upper.starts_with(kPrefix)) {
        upper.erase(0, kPrefix.size());
    }
    const auto* const found =
        std::find_if(std::begin(kNames), std::end(kNames),
                     [&](const AttributeName& each) { return each.name == upper; });
    return found == std::end(kNames) ? std::nullopt : std::optional(found->id);
}

std::string describeAttribute(DWORD id) {
    const AttributeName* const known = find(id);
    return (known == nullptr ? "" : std::string(known->name) + " ") + "0x" + formatDigits(id, 8);
}

Json attributeToJson(DWORD id) {
    Json json = Json::object();
    if (const AttributeName* const known = find(id)) {
        json["name"] = known->name;
    }
    json["id"] = "0x" + formatDigits(id, 8);
    return json;
}

std::optional<std::string> readableValue(DWORD id, ByteView value) {
    const AttributeName* const known = find(id);
    switch (known == nullptr ? kBytes : known->kind) {
        case kNumber:
            return readNumber(value);
        case kText:
            return readText(value);
        case kWideText:
            return readWideText(value);
        default:
            return std::nullopt;
    }
}

}  // namespace tez::client
