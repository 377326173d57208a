#pragma once

#include <cstddef>
#include <cstdint>

#include "wire/card_records.h"

namespace tez {

inline constexpr std::size_t kWireReaderAtrSize = 33;

#pragma pack(push, 1)

/// CMD_GET_STATUS_CHANGE, followed by cReaders reader state records in either direction.
struct StatusChangeRecord {
    std::uint64_t hContext;
    std::uint32_t dwTimeout;  ///< milliseconds
    std::uint32_t cReaders;   ///< out: 0 when no reader states follow
    std::uint32_t rv;         ///< out
};

struct ReaderStateRecord {
    char szReader[kWireReaderNameSize];  ///< NUL-terminated, the rest zero
    std::uint32_t dwCurrentState;
    std::uint32_t dwEventState;
    std::uint32_t cbAtr;
    std::uint8_t rgbAtr[kWireReaderAtrSize];
};

#pragma pack(pop)

static_assert(sizeof(StatusChangeRecord) == 20);
static_assert(offsetof(StatusChangeRecord, dwTimeout) == 8);
static_assert(offsetof(StatusChangeRecord, cReaders) == 12);
static_assert(offsetof(StatusChangeRecord, rv) == 16);
static_assert(sizeof(ReaderStateRecord) == 173);
static_assert(offsetof(ReaderStateRecord, dwCurrentState) == 128);
static_assert(offsetof(ReaderStateRecord, dwEventState) == 132);
static_assert(offsetof(ReaderStateRecord, cbAtr) == 136);
static_assert(offsetof(ReaderStateRecord, rgbAtr) == 140);

}  // namespace tez
