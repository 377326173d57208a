#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <span>

#include "link/token.h"

namespace tez::link {

// The link carries the clients of one machine's pipe to the agent of another: one byte stream for
// each client. A stream begins with the relay's hello and the agent's answer to it; an agent that
// is not content closes the stream without an answer. Behind them the relay sends the client's
// bytes as they are, and the agent sends frames (link/frame.h). All integers are little-endian.
//
//     relay   8  magic      "PCSCRLY1"         agent   8  magic      "PCSCAGT1"
//            32  the relay's half of the token        32  the agent's half of the token
//             4  the relay's number
//             4  the client's process id

inline constexpr std::size_t kMagicSize = 8;
inline constexpr std::size_t kRelayHelloSize =
    kMagicSize + kTokenHalfSize + 2 * sizeof(std::uint32_t);
inline constexpr std::size_t kAgentHelloSize = kMagicSize + kTokenHalfSize;

/// The process id of the control stream, which no client stands behind. The relay keeps one open as
/// long as it runs; the agent sends each byte that comes on it back in a frame. Its end, or silence
/// on it, tells either side that the other one is gone, with all other streams of the same relay.
inline constexpr std::uint32_t kControlProcess = 0;

/// How often the relay sends a byte on the control stream, and after how long without one (for the
/// relay: without its echo) the other side is taken for gone.
inline constexpr std::chrono::milliseconds kHeartbeatInterval{1000};
inline constexpr std::chrono::milliseconds kSilenceLimit{5000};

/// How long either side waits for the other's hello.
inline constexpr std::chrono::milliseconds kHelloLimit{5000};

/// What a hello is worth.
enum class Greeting {
    accepted,
    notTheLink,  ///< the other end speaks something else, or another version of this
    wrongToken,
};

/// Where a stream comes from.
struct Origin {
    /// Drawn by the relay for each control stream, and the same for the clients that it has
    /// meanwhile: those of two machines may have the same process ids, and a relay can be back
    /// before the agent knows that its last control stream has ended.
    std::uint32_t relay;
    std::uint32_t processId;
};

struct RelayHello {
    Greeting greeting;
    Origin origin;  ///< counts only when the hello is accepted
};

std::array<std::uint8_t, kRelayHelloSize> encodeRelayHello(const Token& token,
                                                           const Origin& origin);
RelayHello decodeRelayHello(std::span<const std::uint8_t, kRelayHelloSize> hello,
                            const Token& token);

std::array<std::uint8_t, kAgentHelloSize> encodeAgentHello(const Token& token);
Greeting decodeAgentHello(std::span<const std::uint8_t, kAgentHelloSize> hello, const Token& token);

}  // namespace tez::link
