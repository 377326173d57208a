#pragma once

#include <windows.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace tez::client {

enum class DaemonState : std::uint8_t {
    kAbsent,   ///< there is no pipe
    kDenied,   ///< this user may not open it
    kBusy,     ///< all instances of the pipe are taken
    kFailed,   ///< the pipe cannot be opened for another reason
    kSilent,   ///< the handshake is not answered in time
    kBroken,   ///< the pipe was closed, or what was sent makes no sense
    kServing,  ///< the handshake and the question for the readers were answered
};

struct DaemonProbe {
    DaemonState state = DaemonState::kAbsent;
    DWORD error = ERROR_SUCCESS;  ///< the system's, for a pipe that cannot be opened
    bool hasVersion = false;      ///< the handshake was answered
    std::uint32_t major = 0;
    std::uint32_t minor = 0;
    std::size_t listSize = 0;  ///< bytes of the readers' names, as they were sent
    std::vector<std::string> readers;

    bool isVersionAtLeast(std::uint32_t wantedMajor, std::uint32_t wantedMinor) const {
        return major > wantedMajor || (major == wantedMajor && minor >= wantedMinor);
    }
};

/// Asks the daemon over its pipe, past the library: a handshake, then the readers. Returns after
/// `patience` at the latest, whatever the daemon does.
DaemonProbe probeDaemon(std::chrono::milliseconds patience);

}  // namespace tez::client
