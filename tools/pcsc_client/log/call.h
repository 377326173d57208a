#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "log/log_line.h"

namespace tez::client {

/// The side that answered a call, as far as its lines tell.
enum class AnsweringSide : std::uint8_t { kNone, kRemote, kHost, kBoth };

/// "remote", "host", "both", or nothing.
const char* answeringSideName(AnsweringSide side);

enum class CallOutcome : std::uint8_t {
    kDone,
    kOver,  ///< a wait that ended with its time, or was cancelled: no failure
    kFailed,
    kUnfinished,  ///< the log ends before the call
};

/// A call of the application, put together from its lines.
struct Call {
    std::string function;   ///< "SCardConnectA"
    std::string operation;  ///< "SCARD_CONNECT"
    std::string
        subject;  ///< the reader, the card's reader, the card type; empty when none is named
    AnsweringSide side = AnsweringSide::kNone;
    std::uint32_t process = 0;
    std::uint32_t thread = 0;
    LogTime begin = 0;
    LogTime end = 0;                     ///< of an unfinished call: its last line
    std::optional<std::int32_t> result;  ///< nullopt for calls whose lines tell none
    bool isFinished = false;
    unsigned depth = 0;  ///< how many calls it was made from inside of the library
    std::vector<LogLine> lines;

    LogTime duration() const { return end - begin; }
    CallOutcome outcome() const;
    /// Whether it is a wait for readers, which takes as long as nothing happens.
    bool isWait() const { return operation == "GET_STATUS_CHANGE"; }
};

}  // namespace tez::client
