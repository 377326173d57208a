#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include "core/traffic.h"
#include "pcscd_names.h"
#include "scard_missing.h"

namespace tez::test {

/// A call on a card handle with arguments that nobody objects to.
struct CardCall {
    std::string function;  ///< the name under which it logs
    std::string word;      ///< its operation word in the log
    Command command;
    std::size_t recordSize;
    std::size_t resultOffset;  ///< of the daemon's result in the record
    std::function<LONG(SCARDHANDLE)> make;
};

/// Every call on a card handle but SCardDisconnect, which ends what the others need.
const std::vector<CardCall>& callsOnConnectedCards();

/// SCardDisconnect
const CardCall& disconnectCall();

/// All of them; SCardDisconnect is the last.
std::vector<CardCall> allCardCalls();

}  // namespace tez::test
