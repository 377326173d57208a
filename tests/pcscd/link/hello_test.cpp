#include "link/hello.h"

#include <algorithm>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>
#include <utility>

#include "example_token.h"

using namespace tez::link;
using tez::test::exampleToken;

namespace {

template <std::size_t size>
std::string textOf(const std::array<std::uint8_t, size>& bytes) {
    return {bytes.begin(), bytes.end()};
}

}  // namespace

TEST(RelayHello, HasMagicHalfAndOrigin) {
    EXPECT_EQ(textOf(encodeRelayHello(exampleToken(), {0x08070605, 0x04030201})),
              "PCSCRLY1" + textOf(exampleToken().relay) + "\x05\x06\x07\x08\x01\x02\x03\x04");
}

TEST(RelayHello, IsAcceptedWithItsOrigin) {
    for (const std::uint32_t processId : {kControlProcess, 1U, 0xFFFFFFFFU}) {
        const RelayHello hello = decodeRelayHello(
            encodeRelayHello(exampleToken(), {~processId, processId}), exampleToken());
        EXPECT_EQ(hello.greeting, Greeting::accepted);
        EXPECT_EQ(hello.origin.relay, ~processId);
        EXPECT_EQ(hello.origin.processId, processId);
    }
}

TEST(RelayHello, IsNotTheLinksWithAnotherMagic) {
    for (std::size_t i = 0; i < kMagicSize; ++i) {
        auto hello = encodeRelayHello(exampleToken(), {1, 1});
        ++hello[i];
        EXPECT_EQ(decodeRelayHello(hello, exampleToken()).greeting, Greeting::notTheLink) << i;
    }
}

TEST(RelayHello, HasTheWrongTokenWithAnyOtherByteInItsHalf) {
    for (std::size_t i = 0; i < kTokenHalfSize; ++i) {
        auto hello = encodeRelayHello(exampleToken(), {1, 1});
        ++hello[kMagicSize + i];
        EXPECT_EQ(decodeRelayHello(hello, exampleToken()).greeting, Greeting::wrongToken) << i;
    }
}

TEST(RelayHello, HasTheWrongTokenWithTheAgentsHalf) {
    Token swapped = exampleToken();
    std::swap(swapped.relay, swapped.agent);
    EXPECT_EQ(decodeRelayHello(encodeRelayHello(swapped, {1, 1}), exampleToken()).greeting,
              Greeting::wrongToken);
}

TEST(AgentHello, HasMagicAndHalf) {
    EXPECT_EQ(textOf(encodeAgentHello(exampleToken())), "PCSCAGT1" + textOf(exampleToken().agent));
}

TEST(AgentHello, IsAccepted) {
    EXPECT_EQ(decodeAgentHello(encodeAgentHello(exampleToken()), exampleToken()),
              Greeting::accepted);
}

TEST(AgentHello, IsJudgedByEachOfItsBytes) {
    for (std::size_t i = 0; i < kAgentHelloSize; ++i) {
        auto hello = encodeAgentHello(exampleToken());
        ++hello[i];
        EXPECT_EQ(decodeAgentHello(hello, exampleToken()),
                  i < kMagicSize ? Greeting::notTheLink : Greeting::wrongToken)
            << i;
    }
}

TEST(AgentHello, IsNotTheRelaysOwnSentBack) {
    const auto sent = encodeRelayHello(exampleToken(), {1, 1});
    EXPECT_EQ(decodeAgentHello(std::span(sent).first<kAgentHelloSize>(), exampleToken()),
              Greeting::notTheLink);
}
