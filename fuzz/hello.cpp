// The hellos of a stranger, judged by those who know another token.
#include "link/hello.h"

#include <algorithm>
#include <cstdint>

#include "support/holds.h"

using namespace tez::link;
using tez::fuzz::holds;

namespace {

/// Of bytes that say where they stand.
Token knownToken() {
    Token token = {};
    for (std::size_t i = 0; i < kTokenHalfSize; ++i) {
        token.relay[i] = static_cast<std::uint8_t>(i);
        token.agent[i] = static_cast<std::uint8_t>(0x60 + i);
    }
    return token;
}

/// What a hello is worth beside the one that would be right.
Greeting worthOf(std::span<const std::uint8_t> hello, std::span<const std::uint8_t> right) {
    if (!std::ranges::equal(hello.first(kMagicSize), right.first(kMagicSize))) {
        return Greeting::notTheLink;
    }
    return std::ranges::equal(hello.subspan(kMagicSize, kTokenHalfSize),
                              right.subspan(kMagicSize, kTokenHalfSize))
               ? Greeting::accepted
               : Greeting::wrongToken;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const Token token = knownToken();
    if (size >= kRelayHelloSize) {
        const auto hello = std::span(data, size).first<kRelayHelloSize>();
        const RelayHello decoded = decodeRelayHello(hello, token);
        holds(decoded.greeting == worthOf(hello, encodeRelayHello(token, decoded.origin)));
        // The origin is all that is left open.
        holds(decoded.greeting != Greeting::accepted ||
              std::ranges::equal(hello, encodeRelayHello(token, decoded.origin)));
    }
    if (size >= kAgentHelloSize) {
        const auto hello = std::span(data, size).first<kAgentHelloSize>();
        const Greeting greeting = decodeAgentHello(hello, token);
        holds(greeting == worthOf(hello, encodeAgentHello(token)));
        holds((greeting == Greeting::accepted) ==
              std::ranges::equal(hello, encodeAgentHello(token)));
    }
    return 0;
}
