#pragma once

#include "card.h"
#include "command_apdu.h"

namespace tez::client {

enum class Show : std::uint8_t {
    kAll,
    kHeaderOnly,  ///< hides the command's data, such as a PIN
};

/// Sends bytes to the card and prints them, the answer and its status word in words.
ResponseApdu sendBytes(const Card& card, ByteView command, Show show = Show::kAll);

/// Sends a command and prints each step; fetches what the card has ready (61xx) and repeats with
/// the length that the card names (6Cxx).
ResponseApdu sendCommand(const Card& card, const CommandApdu& command, Show show = Show::kAll);

/// As above; throws Failure when the status word does not say success.
ResponseApdu sendSuccessfully(const Card& card, const CommandApdu& command, Show show = Show::kAll);

}  // namespace tez::client
