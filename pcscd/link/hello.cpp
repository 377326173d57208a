#include "link/hello.h"

#include <algorithm>
#include <string_view>

#include "link/little_endian.h"

namespace tez::link {
namespace {

constexpr std::string_view kRelayMagic = "PCSCRLY1";
constexpr std::string_view kAgentMagic = "PCSCAGT1";
static_assert(kRelayMagic.size() == kMagicSize && kAgentMagic.size() == kMagicSize);

void put(std::span<std::uint8_t> hello, std::string_view magic, const TokenHalf& half) {
    std::copy(magic.begin(), magic.end(), hello.begin());
    std::copy(half.begin(), half.end(), hello.begin() + kMagicSize);
}

Greeting judge(std::span<const std::uint8_t> hello, std::string_view magic, const TokenHalf& half) {
    if (!std::equal(magic.begin(), magic.end(), hello.begin())) {
        return Greeting::notTheLink;
    }
    TokenHalf shown = {};
    std::copy_n(hello.begin() + kMagicSize, shown.size(), shown.begin());
    return isSameHalf(half, shown) ? Greeting::accepted : Greeting::wrongToken;
}

}  // namespace

std::array<std::uint8_t, kRelayHelloSize> encodeRelayHello(const Token& token,
                                                           const Origin& origin) {
    std::array<std::uint8_t, kRelayHelloSize> hello = {};
    put(hello, kRelayMagic, token.relay);
    putLittleEndian(std::span(hello).last<8>().first<4>(), origin.relay);
    putLittleEndian(std::span(hello).last<4>(), origin.processId);
    return hello;
}

RelayHello decodeRelayHello(std::span<const std::uint8_t, kRelayHelloSize> hello,
                            const Token& token) {
    return {judge(hello, kRelayMagic, token.relay),
            {littleEndian(hello.last<8>().first<4>()), littleEndian(hello.last<4>())}};
}

std::array<std::uint8_t, kAgentHelloSize> encodeAgentHello(const Token& token) {
    std::array<std::uint8_t, kAgentHelloSize> hello = {};
    put(hello, kAgentMagic, token.agent);
    return hello;
}

Greeting decodeAgentHello(std::span<const std::uint8_t, kAgentHelloSize> hello,
                          const Token& token) {
    return judge(hello, kAgentMagic, token.agent);
}

}  // namespace tez::link
