#pragma once

#include <windows.h>

#include <chrono>
#include <optional>
#include <string>

#include "pcscd_names.h"
#include "pipe/unique_handle.h"

namespace tez::test {

/// A program from beside the test program, in a process of its own, that the test talks to over the
/// program's standard input and output. Destruction ends it.
class ChildProcess {
  public:
    /// Throws std::runtime_error when the program cannot be started.
    ChildProcess(const std::string& program, const std::string& argument);
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    /// Ends it, unless it has ended. What it has written can still be read.
    void kill();

    /// The next line of its output, without its end; nothing when there are no more.
    std::optional<std::string> readLine();
    /// All that is left of its output; returns when the program has closed it.
    std::string readRest();
    /// As a program does that has read enough: from now on its writes fail.
    void closeOutput();
    void writeLine(const std::string& line);

    bool isRunning() const;
    /// The exit code; nothing when the program does not end within the time.
    std::optional<DWORD> waitForEnd(std::chrono::milliseconds timeout) const;

  private:
    UniqueHandle process_;
    UniqueHandle input_;
    UniqueHandle output_;
    std::string unread_;  // of the output, what has been taken from the pipe already
};

}  // namespace tez::test
