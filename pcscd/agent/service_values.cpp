#include "agent/service_values.h"

#include <reader.h>

namespace tez::agent {

namespace result = pcscd::result;
namespace protocol = pcscd::protocol;

pcscd::Result toCardResult(LONG code) {
    switch (code) {
        case SCARD_E_NO_SERVICE:
        case SCARD_E_SERVICE_STOPPED:
        case SCARD_F_COMM_ERROR:
        case SCARD_E_INVALID_HANDLE:  // the agent's own handles are looked up before
            return result::kReaderUnavailable;
        case SCARD_E_UNSUPPORTED_FEATURE:
            // Here the service has one code for what is unexpected and what is not supported. It
            // means the latter nearly always.
            return result::kUnsupportedFeature;
        default:
            return result::code(static_cast<std::uint32_t>(code));
    }
}

DWORD toServiceProtocols(std::uint32_t protocols) {
    DWORD known = protocols & (protocol::kT0 | protocol::kT1);
    if ((protocols & protocol::kRaw) != 0) {
        known |= SCARD_PROTOCOL_RAW;
    }
    return known;
}

std::uint32_t fromServiceProtocol(DWORD chosen) {
    return chosen == SCARD_PROTOCOL_RAW ? protocol::kRaw : static_cast<std::uint32_t>(chosen);
}

DWORD toControlCode(std::uint32_t function) {
    return SCARD_CTL_CODE(function);
}

}  // namespace tez::agent
