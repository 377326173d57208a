#pragma once

#include <cstddef>
#include <cstdint>

namespace tez {

inline constexpr std::size_t kWireAttributeSize = 264;

#pragma pack(push, 1)

/// CMD_GET_ATTRIB and CMD_SET_ATTRIB. In the newer form the attribute bytes follow the record
/// instead of riding in it.
struct AttribRecord {
    std::uint64_t hCard;
    std::uint32_t dwAttrId;
    std::uint8_t pbAttr[kWireAttributeSize];  ///< fixed form only
    std::uint32_t cbAttrLen;
    std::uint32_t rv;  ///< out
};

/// CMD_GET_TRANSMIT_COUNT
struct TransmitCountRecord {
    std::uint64_t hCard;
    std::uint32_t dwTransmitCount;  ///< in: the caller's value; out: the count
    std::uint32_t rv;               ///< out
};

#pragma pack(pop)

static_assert(sizeof(AttribRecord) == 284);
static_assert(offsetof(AttribRecord, dwAttrId) == 8);
static_assert(offsetof(AttribRecord, pbAttr) == 12);
static_assert(offsetof(AttribRecord, cbAttrLen) == 276);
static_assert(offsetof(AttribRecord, rv) == 280);
static_assert(sizeof(TransmitCountRecord) == 16);
static_assert(offsetof(TransmitCountRecord, dwTransmitCount) == 8);
static_assert(offsetof(TransmitCountRecord, rv) == 12);

}  // namespace tez
