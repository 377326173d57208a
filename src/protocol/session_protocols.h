#pragma once

#include <cstdint>

#include "daemon/exchange.h"
#include "wire/protocol_mask.h"

namespace tez {

/// How the calls that open or query a card session put protocol masks on the pipe: converted, but
/// raw for a daemon before 0.1 that takes all calls.
class SessionProtocols {
  public:
    SessionProtocols(const Exchange& exchange, ServiceState state)
        : isConverted_(state == ServiceState::LocalFirst || exchange.isMinorAtLeast(state, 1)) {}

    std::uint32_t toWire(std::uint32_t mask) const {
        return isConverted_ ? convert_protocol_to_wire(mask) : mask;
    }
    std::uint32_t fromWire(std::uint32_t mask) const {
        return isConverted_ ? convert_protocol_from_wire(mask) : mask;
    }

  private:
    bool isConverted_;
};

}  // namespace tez
