#pragma once

#include <windows.h>

#include <optional>
#include <utility>

#include "core/traffic.h"
#include "record_codec.h"

namespace tez::test {

/// Of a record's field, the NUL included.
inline constexpr std::size_t kReaderNameWidth = 128;

/// The answer to a request: its record with the result filled in, and the data phase where there is
/// one.
inline Reply answered(Bytes record, std::size_t resultOffset, LONG result,
                      std::optional<Bytes> data = std::nullopt) {
    putU32(record, resultOffset, static_cast<std::uint32_t>(result));
    std::vector<Bytes> blocks{std::move(record)};
    if (data) {
        blocks.push_back(std::move(*data));
    }
    return Reply::of(std::move(blocks));
}

}  // namespace tez::test
