#pragma once

#include <cstdint>

#include "wire/protocol_mask.h"

namespace tez {

/// How the calls that open or query a card session put protocol masks on the pipe: converted, but
/// raw for a daemon that is too old for it.
class SessionProtocols {
  public:
    /// @param isConverted  whether the daemon meets kConvertedProtocols.
    explicit SessionProtocols(bool isConverted) : isConverted_(isConverted) {}

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
