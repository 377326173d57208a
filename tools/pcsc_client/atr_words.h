#pragma once

#include <string>
#include <utility>
#include <vector>

#include "bytes.h"

namespace tez::client {

/// What an ATR says (ISO 7816-3, and the historical bytes of ISO 7816-4 and, for storage cards, of
/// PC/SC): pairs of a label and its text, in the ATR's order. One that ends too early, or goes on
/// too long, says so in its last pair.
std::vector<std::pair<std::string, std::string>> describeAtr(ByteView bytes);

/// In one line: "T=0, T=1; historical bytes \"DEMO CARD\"".
std::string summarizeAtr(ByteView bytes);

}  // namespace tez::client
