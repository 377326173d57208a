#pragma once

#include <string>

#include "json.h"
#include "log/call.h"

namespace tez::client {

/// The headings of the columns that formatCall has.
std::string callTableHead();

/// A call as a line of a table.
std::string formatCall(const Call& call);

/// The result in words: "success", "SCARD_E_NO_SMARTCARD 0x8010000C, no card in the reader",
/// "not finished", or nothing where the log tells none.
std::string resultText(const Call& call);

Json callToJson(const Call& call);

}  // namespace tez::client
