#pragma once

#include <windows.h>

#include <chrono>
#include <optional>
#include <string>

namespace tez::client {

/// This program once more, in a process of its own whose output can be given up: it may hang in a
/// call. Destruction ends it.
class PatientProcess {
  public:
    /// Throws Failure when it cannot be started.
    explicit PatientProcess(const std::wstring& arguments);
    ~PatientProcess();
    PatientProcess(const PatientProcess&) = delete;
    PatientProcess& operator=(const PatientProcess&) = delete;

    enum class Event : std::uint8_t { kLine, kEnd, kSilence };
    /// The next line of its output, without its end; or that there are no more, or that nothing
    /// came within the patience.
    Event readLine(std::string& line, std::chrono::milliseconds patience);

    /// After kEnd.
    DWORD exitCode() const;

  private:
    HANDLE process_ = nullptr;
    HANDLE output_ = nullptr;
    std::string received_;
};

}  // namespace tez::client
