#pragma once

#include <CLI/CLI.hpp>
#include <string>

#include "hex_option.h"
#include "session.h"

namespace tez::client {

inline constexpr std::size_t kLongestValidAtr = 33;

/// An ATR, given as bytes or as that of a card in a reader.
struct AtrSource {
    std::string hex;
    std::string reader;

    /// Empty when neither was given.
    Bytes resolve(Session& session) const {
        Bytes atr = *parseHex(hex);
        if (!reader.empty()) {
            session.useCard(reader, [&](const Card& card) { atr = card.status().atr; });
        }
        return atr;
    }
};

/// The options --atr and --reader, of which there can be one.
inline void addAtrOptions(CLI::App& command, AtrSource& source) {
    CLI::Option* const hex = command.add_option("--atr", source.hex, "the card's ATR")
                                 ->check(isHex(2, kLongestValidAtr));
    command.add_option("--reader", source.reader, "the ATR of the card in this reader instead")
        ->excludes(hex);
}

}  // namespace tez::client
