#pragma once

#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "log/log_line.h"

namespace tez::client {

/// Makes lines of the text of one process's log, which may come in pieces. The library writes a
/// line in three pieces (what stands in front, the message, the end), so that lines of threads that
/// write at once can stand in each other. Then the messages are given to the prefixes that they fit
/// best, and the lines say that this is a guess.
class LineParser {
  public:
    /// @return the lines that the text completes.
    std::vector<LogLine> take(std::string_view text);
    /// Takes what is left as the last line.
    std::vector<LogLine> finish();

  private:
    void takeLine(std::string_view line, std::vector<LogLine>& lines);
    void takeMessage(std::string_view message, bool isBehindPrefix, std::vector<LogLine>& lines);
    std::size_t bestPrefix(std::string_view message, bool prefersLast) const;
    std::size_t splitPosition(std::string_view message) const;
    void push(std::size_t prefix, std::string_view message, std::vector<LogLine>& lines);
    void keepYear(LogPrefix& prefix);

    std::string rest_;                 ///< of a line whose end has not come
    std::vector<LogPrefix> prefixes_;  ///< those whose messages have not come
    std::map<std::string, std::string, std::less<>> operations_;  ///< of the functions, as seen
    LogTime year_ = 0;  ///< what to add since a new year has come
    LogTime last_ = 0;
};

}  // namespace tez::client
