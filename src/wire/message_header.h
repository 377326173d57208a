#pragma once

#include <cstddef>
#include <cstdint>

namespace tez {

// All integers on the pipe are little-endian, as the processors are that Windows runs on; records
// are laid out without padding.
#pragma pack(push, 1)

/// Precedes every request. The daemon's answer carries no header.
struct MessageHeader {
    std::uint32_t size;      ///< bytes that follow in this request: the record and its data phase
    std::uint32_t command;   ///< a CommandCode
    std::uint32_t reserved;  ///< always 0
};

#pragma pack(pop)

static_assert(sizeof(MessageHeader) == 12);
static_assert(offsetof(MessageHeader, command) == 4);
static_assert(offsetof(MessageHeader, reserved) == 8);

}  // namespace tez
