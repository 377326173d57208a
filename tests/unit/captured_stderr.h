#pragma once

#include <string>
#include <vector>

namespace tez::test {

/// Holds what the process writes to its standard error stream for as long as the object lives,
/// which may be one at a time. Throws std::runtime_error when the stream cannot be redirected.
class CapturedStderr {
  public:
    CapturedStderr();
    CapturedStderr(const CapturedStderr&) = delete;
    CapturedStderr& operator=(const CapturedStderr&) = delete;
    /// Gives the stream back.
    ~CapturedStderr();

    /// What was written so far. Not to be called while another thread writes.
    std::string text() const;

  private:
    int saved_ = -1;
    int file_ = -1;
};

/// The library's log at level DEBUG, caught from standard error. To be made before the process has
/// logged anything, for the settings are read with the first line.
class CapturedLog {
  public:
    CapturedLog();

    /// The lines so far, each from its level letter to its end, without the line end.
    std::vector<std::string> lines() const;

    /// As lines, cut in front of the function name: "(SCardCancel): CANCEL RV: 0x00000000", with
    /// the level letter in front: "D (SCardCancel): ...". What changes from run to run is left out.
    std::vector<std::string> messages() const;

  private:
    CapturedStderr stderr_;
};

/// Sets an environment variable for the C runtime that the library reads it through; an empty value
/// removes it.
void setEnvironment(const char* name, const std::string& value);

}  // namespace tez::test
