#pragma once

#include <cstddef>
#include <cstdint>

namespace tez {

#pragma pack(push, 1)

/// CMD_ESTABLISH_CONTEXT
struct EstablishRecord {
    std::uint32_t dwScope;
    std::uint64_t hContext;  ///< out: the daemon's context
    std::uint32_t rv;        ///< out
};

/// CMD_RELEASE_CONTEXT
struct ReleaseRecord {
    std::uint64_t hContext;
    std::uint32_t rv;  ///< out
};

/// CMD_LIST_READERS. On success the daemon sends the names right behind it.
struct ListReadersRecord {
    std::uint64_t hContext;
    std::uint32_t cchReaders;  ///< out: bytes of the multi-string that follows
    std::uint32_t rv;          ///< out
};

#pragma pack(pop)

static_assert(sizeof(EstablishRecord) == 16);
static_assert(offsetof(EstablishRecord, hContext) == 4);
static_assert(offsetof(EstablishRecord, rv) == 12);
static_assert(sizeof(ReleaseRecord) == 12);
static_assert(offsetof(ReleaseRecord, rv) == 8);
static_assert(sizeof(ListReadersRecord) == 16);
static_assert(offsetof(ListReadersRecord, cchReaders) == 8);
static_assert(offsetof(ListReadersRecord, rv) == 12);

}  // namespace tez
