#pragma once

#include <cstdint>
#include <optional>

#include "daemon/service_state.h"

namespace tez {

/// The daemon's version from which on something holds: 1.minor of one that serves behind the host,
/// 0.minor of one that takes all calls. Nothing: of every version.
struct VersionGate {
    std::optional<std::uint32_t> behindHost;
    std::optional<std::uint32_t> takingAllCalls;

    constexpr std::optional<std::uint32_t> minorFor(ServiceState state) const noexcept {
        return state == ServiceState::LocalFirst ? behindHost : takingAllCalls;
    }
};

/// The protocol masks of card sessions are the daemon's own.
inline constexpr VersionGate kConvertedProtocols = {std::nullopt, 1};
/// The bytes of an attribute follow the record, instead of riding inside.
inline constexpr VersionGate kAttributesBehindRecord = {2, std::nullopt};
/// The calls are known that only Windows has, apart from the updates of card types.
inline constexpr VersionGate kWindowsCalls = {2, std::nullopt};
/// Transmits and controls may carry more than an extended APDU with its framing.
inline constexpr VersionGate kUnlimitedData = {3, 3};

}  // namespace tez
