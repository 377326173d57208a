#include "wire/protocol_mask.h"

#include "common/scard_api.h"
#include "log/function_log.h"

namespace tez {

namespace {

std::uint32_t moveBit(const FunctionLog& log, std::uint32_t value, std::uint32_t from,
                      std::uint32_t to) {
    const std::uint32_t converted = (value & from) == 0 ? value : (value & ~from) | to;
    log.debug("Protocol converted from %lu to %lu", static_cast<unsigned long>(value),
              static_cast<unsigned long>(converted));
    return converted;
}

}  // namespace

std::uint32_t convert_protocol_to_wire(std::uint32_t value) noexcept {
    static constexpr FunctionLog log("convert_protocol_to_wire");
    return moveBit(log, value, SCARD_PROTOCOL_RAW, kWireRaw);
}

std::uint32_t convert_protocol_from_wire(std::uint32_t value) noexcept {
    static constexpr FunctionLog log("convert_protocol_from_wire");
    return moveBit(log, value, kWireRaw, SCARD_PROTOCOL_RAW);
}

}  // namespace tez
