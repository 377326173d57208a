#pragma once

#include "card.h"
#include "command_apdu.h"
#include "report.h"

namespace tez::client {

enum class Show : std::uint8_t {
    kAll,
    kHeaderOnly,  ///< hides the command's data, such as a PIN
};

/// Sends bytes to the card and reports them, the answer and its status word in words; as an object
/// of the array "exchanges" in JSON.
ResponseApdu sendBytes(Report& report, const Card& card, ByteView command, Show show = Show::kAll);

/// Sends a command and reports each step; fetches what the card has ready (61xx) and repeats with
/// the length that the card names (6Cxx). Throws Failure when the card has more ready than 64 KB,
/// or gives nothing of what it has ready.
ResponseApdu sendCommand(Report& report, const Card& card, const CommandApdu& command,
                         Show show = Show::kAll);

/// As above; throws Failure when the status word does not say success.
ResponseApdu sendSuccessfully(Report& report, const Card& card, const CommandApdu& command,
                              Show show = Show::kAll);

}  // namespace tez::client
