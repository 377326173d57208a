#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace tez::client {

/// Microseconds since the beginning of a year; the log's lines do not name the year.
using LogTime = std::int64_t;

/// "Nov 15 23:13:00.123456"
std::string formatLogTime(LogTime time);

/// What stands in front of a message:
/// "D Nov 15 23:13:00:123456 4120:7788 TEZ (SCardConnectA): ".
struct LogPrefix {
    char level = 'D';  ///< E, W, I or D
    LogTime time = 0;
    std::uint32_t process = 0;
    std::uint32_t thread = 0;
    std::string function;
};

struct FoundPrefix {
    std::size_t position = 0;
    std::size_t length = 0;
    LogPrefix prefix;
};

/// The first prefix in the text at or behind `from`.
std::optional<FoundPrefix> findPrefix(std::string_view text, std::size_t from = 0);

struct LogLine {
    LogPrefix prefix;
    std::string message;
    bool isContinuation = false;  ///< the second or a later line of the message before
    bool isGuess = false;         ///< lines of several threads stood in each other
};

/// The frame of a call in a message: "TRANSMIT RV: 0x00000000" is the operation TRANSMIT, its part
/// kResult and the text behind it.
struct FrameMessage {
    enum class Part : std::uint8_t { kIn, kOut, kResult };
    std::string_view operation;
    Part part = Part::kIn;
    std::string_view text;
};

/// nullopt for a message that is none of a frame.
std::optional<FrameMessage> parseFrame(std::string_view message);

}  // namespace tez::client
