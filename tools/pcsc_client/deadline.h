#pragma once

#include <windows.h>

#include <CLI/CLI.hpp>
#include <optional>
#include <string>

namespace tez::client {

/// A point of time some seconds after the object was made, or never.
class Deadline {
  public:
    explicit Deadline(std::optional<unsigned> seconds) {
        if (seconds) {
            end_ = GetTickCount64() + ULONGLONG{*seconds} * 1000;
        }
    }

    bool isLimited() const { return end_.has_value(); }
    bool isOver() const { return isLimited() && GetTickCount64() >= *end_; }
    /// Milliseconds, as the platform's waits take them: INFINITE without a limit.
    DWORD remaining() const {
        if (!isLimited()) {
            return INFINITE;
        }
        const ULONGLONG now = GetTickCount64();
        return now >= *end_ ? 0 : static_cast<DWORD>(*end_ - now);
    }

  private:
    std::optional<ULONGLONG> end_;
};

/// The option --timeout, in seconds.
inline void addTimeoutOption(CLI::App& command, std::optional<unsigned>& seconds,
                             const std::string& purpose) {
    constexpr unsigned kMostSeconds = 1'000'000;  // their milliseconds fit 32 bits
    command.add_option("--timeout", seconds, purpose)
        ->check(CLI::Range(0U, kMostSeconds))
        ->type_name("SECONDS");
}

}  // namespace tez::client
