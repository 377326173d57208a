#pragma once

#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "child_process.h"

namespace tez::test {

/// The simulator program, serving the daemon's pipe. Its output is read all the time, as it tells
/// of each request. Destruction ends it.
class SimulatorProcess {
  public:
    /// Returns when the pipe is served; throws std::runtime_error when it is not.
    explicit SimulatorProcess(const std::string& arguments = "");
    ~SimulatorProcess();
    SimulatorProcess(const SimulatorProcess&) = delete;
    SimulatorProcess& operator=(const SimulatorProcess&) = delete;

    /// Writes a command to its console.
    void tell(const std::string& command) { process_.writeLine(command); }
    /// Waits until this many of its lines have the text; throws std::runtime_error when there are
    /// not so many in time.
    void waitFor(const std::string& text, std::size_t count = 1) const;
    /// How many of its lines up to now have the text.
    std::size_t count(const std::string& text) const;
    /// Tells it to end. @return its exit code; nothing when it does not end in time.
    std::optional<DWORD> quit();

  private:
    void readLines();
    std::size_t countLocked(const std::string& text) const;

    ChildProcess process_;
    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    std::vector<std::string> lines_;
    std::thread reader_;
};

}  // namespace tez::test
