#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace tez::agent {

/// A program that a test starts; it is killed at the latest with this object.
class Child {
  public:
    /// What it writes goes to the file.
    Child(const std::filesystem::path& program, std::vector<std::string> arguments,
          const std::filesystem::path& output);
    ~Child();
    Child(Child&& other) noexcept;
    Child& operator=(Child&&) = delete;
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    void send(int signal) const;
    /// Sends the signal and waits for the end. @return the exit code; -1 after a signal's own end.
    int end(int signal);
    /// Waits for the end.
    int wait();

  private:
    pid_t process_ = 0;
};

}  // namespace tez::agent
