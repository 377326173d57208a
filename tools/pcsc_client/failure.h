#pragma once

#include <windows.h>

#include <stdexcept>
#include <string>

#include "result_names.h"

namespace tez::client {

/// A command did not do what it was asked for. The text is for the user; it is empty when the
/// command has told everything already.
class Failure : public std::runtime_error {
  public:
    explicit Failure(const std::string& text = "") : std::runtime_error(text) {}
};

/// A PC/SC call failed.
class ScardFailure : public Failure {
  public:
    ScardFailure(const std::string& call, LONG result)
        : Failure(call + ": " + describeResult(result)), result_(result) {}

    LONG result() const { return result_; }

  private:
    LONG result_;
};

/// Throws ScardFailure unless the call succeeded.
inline void check(const char* call, LONG result) {
    if (result != ERROR_SUCCESS) {
        throw ScardFailure(call, result);
    }
}

}  // namespace tez::client
