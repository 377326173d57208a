#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "wire/card_records.h"

namespace tez {

inline constexpr std::size_t kWireCardNameSize = 1024;  ///< the terminating NUL included
inline constexpr std::size_t kWireCardAtrSize = 33;

/// A GUID's 16 bytes as the platform keeps them in memory.
using WireGuid = std::array<std::uint8_t, 16>;

static_assert(sizeof(WireGuid) == 16);

#pragma pack(push, 1)

/// CMD_LIST_CARDS, followed by the interface GUIDs; on success the answer is followed by the card
/// names, a multi-string.
struct ListCardsRecord {
    std::uint64_t hContext;
    std::uint8_t isAtrPresent;
    std::uint8_t rgbAtr[kWireCardAtrSize];  ///< the rest zero
    std::uint32_t cguidInterfaceCount;
    std::uint32_t cchCards;  ///< in: the caller's length; out: bytes that follow
    std::uint32_t rv;        ///< out
};

/// CMD_GET_DEVICE_TYPE_ID
struct DeviceTypeIdRecord {
    std::uint64_t hContext;
    char szReaderName[kWireReaderNameSize];
    std::uint32_t dwDeviceTypeId;  ///< out
    std::uint32_t rv;              ///< out
};

/// CMD_GET_CARD_TYPE_PROVIDER_NAME; on success the answer is followed by the name.
/// CMD_SET_CARD_TYPE_PROVIDER_NAME; the request is followed by the name.
struct ProviderNameRecord {
    std::uint64_t hContext;
    char szCardName[kWireCardNameSize];
    std::uint32_t dwProviderId;
    std::uint32_t cchProvider;  ///< bytes that follow, the NUL included
    std::uint32_t rv;           ///< out
};

/// CMD_AUDIT
struct AuditRecord {
    std::uint64_t hContext;
    std::uint32_t dwEvent;
    std::uint32_t rv;  ///< out
};

/// CMD_INTRODUCE_CARD_TYPE, followed by the interface GUIDs
struct IntroduceCardTypeRecord {
    std::uint64_t hContext;
    char szCardName[kWireCardNameSize];
    std::uint8_t isPrimaryProviderPresent;
    WireGuid guidPrimaryProvider;
    std::uint32_t dwInterfaceCount;
    std::uint8_t isAtrPresent;
    std::uint8_t rgbAtr[kWireCardAtrSize];
    std::uint8_t isMaskPresent;
    std::uint8_t rgbAtrMask[kWireCardAtrSize];
    std::uint32_t cbAtrLen;
    std::uint32_t rv;  ///< out
};

/// CMD_FORGET_CARD_TYPE
struct ForgetCardTypeRecord {
    std::uint64_t hContext;
    char szCardName[kWireCardNameSize];
    std::uint32_t rv;  ///< out
};

/// CMD_READ_CACHE, followed by the lookup name; on success the answer is followed by the data.
/// CMD_WRITE_CACHE, followed by the data and then the lookup name.
struct CacheRecord {
    std::uint64_t hContext;
    WireGuid cardIdentifier;
    std::uint32_t freshnessCounter;
    std::uint32_t cbData;
    std::uint32_t rv;  ///< out
};

/// CMD_GET_READER_ICON, followed by the reader's name; on success the answer is followed by the
/// icon.
struct ReaderIconRecord {
    std::uint64_t hContext;
    std::uint32_t cbIcon;  ///< out: bytes that follow
    std::uint32_t rv;      ///< out
};

#pragma pack(pop)

static_assert(sizeof(ListCardsRecord) == 54);
static_assert(offsetof(ListCardsRecord, isAtrPresent) == 8);
static_assert(offsetof(ListCardsRecord, rgbAtr) == 9);
static_assert(offsetof(ListCardsRecord, cguidInterfaceCount) == 42);
static_assert(offsetof(ListCardsRecord, cchCards) == 46);
static_assert(offsetof(ListCardsRecord, rv) == 50);
static_assert(sizeof(DeviceTypeIdRecord) == 144);
static_assert(offsetof(DeviceTypeIdRecord, szReaderName) == 8);
static_assert(offsetof(DeviceTypeIdRecord, dwDeviceTypeId) == 136);
static_assert(offsetof(DeviceTypeIdRecord, rv) == 140);
static_assert(sizeof(ProviderNameRecord) == 1044);
static_assert(offsetof(ProviderNameRecord, szCardName) == 8);
static_assert(offsetof(ProviderNameRecord, dwProviderId) == 1032);
static_assert(offsetof(ProviderNameRecord, cchProvider) == 1036);
static_assert(offsetof(ProviderNameRecord, rv) == 1040);
static_assert(sizeof(AuditRecord) == 16);
static_assert(offsetof(AuditRecord, dwEvent) == 8);
static_assert(offsetof(AuditRecord, rv) == 12);
static_assert(sizeof(IntroduceCardTypeRecord) == 1129);
static_assert(offsetof(IntroduceCardTypeRecord, isPrimaryProviderPresent) == 1032);
static_assert(offsetof(IntroduceCardTypeRecord, guidPrimaryProvider) == 1033);
static_assert(offsetof(IntroduceCardTypeRecord, dwInterfaceCount) == 1049);
static_assert(offsetof(IntroduceCardTypeRecord, isAtrPresent) == 1053);
static_assert(offsetof(IntroduceCardTypeRecord, rgbAtr) == 1054);
static_assert(offsetof(IntroduceCardTypeRecord, isMaskPresent) == 1087);
static_assert(offsetof(IntroduceCardTypeRecord, rgbAtrMask) == 1088);
static_assert(offsetof(IntroduceCardTypeRecord, cbAtrLen) == 1121);
static_assert(offsetof(IntroduceCardTypeRecord, rv) == 1125);
static_assert(sizeof(ForgetCardTypeRecord) == 1036);
static_assert(offsetof(ForgetCardTypeRecord, rv) == 1032);
static_assert(sizeof(CacheRecord) == 36);
static_assert(offsetof(CacheRecord, cardIdentifier) == 8);
static_assert(offsetof(CacheRecord, freshnessCounter) == 24);
static_assert(offsetof(CacheRecord, cbData) == 28);
static_assert(offsetof(CacheRecord, rv) == 32);
static_assert(sizeof(ReaderIconRecord) == 16);
static_assert(offsetof(ReaderIconRecord, cbIcon) == 8);
static_assert(offsetof(ReaderIconRecord, rv) == 12);

}  // namespace tez
