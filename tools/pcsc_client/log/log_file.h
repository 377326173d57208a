#pragma once

#include <windows.h>

#include <functional>
#include <string>

#include "log/call.h"
#include "log/call_assembler.h"
#include "log/line_parser.h"

namespace tez::client {

/// A debug log of one process, which may still be written to.
class LogFile {
  public:
    /// @param ended  called with each call that has ended. Throws Failure when the file cannot be
    ///               read.
    LogFile(const std::string& utf8Path, std::function<void(Call)> ended);
    ~LogFile();
    LogFile(const LogFile&) = delete;
    LogFile& operator=(const LogFile&) = delete;

    /// Reads what has been written since the last time. @return whether that was anything.
    bool read();
    /// Gives the calls that have not ended.
    void finish();

    /// How many lines belong to no call.
    std::size_t otherLineCount() const { return assembler_.otherLineCount(); }

  private:
    void takeLines(const std::vector<LogLine>& lines);

    std::string path_;
    HANDLE file_;
    LineParser parser_;
    CallAssembler assembler_;
};

/// The calls of several logs in the order of their beginnings.
struct LoadedLogs {
    std::vector<Call> calls;
    std::size_t otherLines = 0;
};

/// Throws Failure when one of the files cannot be read.
LoadedLogs loadLogs(const std::vector<std::string>& utf8Paths);

}  // namespace tez::client
