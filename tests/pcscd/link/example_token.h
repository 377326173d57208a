#pragma once

#include "link/token.h"

namespace tez::test {

/// The bytes of the relay's half count up from 0, those of the agent's from 0x60.
inline link::Token exampleToken() {
    link::Token token = {};
    for (std::size_t i = 0; i < link::kTokenHalfSize; ++i) {
        token.relay[i] = static_cast<std::uint8_t>(i);
        token.agent[i] = static_cast<std::uint8_t>(0x60 + i);
    }
    return token;
}

}  // namespace tez::test
