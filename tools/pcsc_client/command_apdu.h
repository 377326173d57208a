#pragma once

#include <windows.h>

#include <optional>

#include "bytes.h"
#include "card.h"
#include "status_words.h"

namespace tez::client {

/// What a short command APDU can hold, in bytes.
inline constexpr std::size_t kLongestData = 255;

/// A short command APDU of ISO 7816-4: at most kLongestData bytes of data, 1 to 256 bytes expected.
struct CommandApdu {
    std::uint8_t cla = 0x00;
    std::uint8_t ins = 0;
    std::uint8_t p1 = 0;
    std::uint8_t p2 = 0;
    Bytes data;
    std::optional<unsigned> expected;

    /// The bytes to send. T=0 has no room for data and Le in one command: Le stays out then and
    /// the card says how much there is to fetch.
    Bytes encode(DWORD protocol) const;
};

CommandApdu selectApplication(ByteView aid);
/// Selects an elementary file of the current application and wants no information about it.
CommandApdu selectFile(std::uint16_t id);
/// @param offset up to 0x7FFF. @param length 1 to 256.
CommandApdu readBinary(unsigned offset, unsigned length);
CommandApdu verifyPin(std::uint8_t reference, ByteView pin);

struct ResponseApdu {
    Bytes data;
    StatusWord status = 0;
};

/// Takes an answer apart; throws Failure when it is too short to have a status word.
ResponseApdu parseResponse(ByteView answer);

}  // namespace tez::client
