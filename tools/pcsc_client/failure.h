#pragma once

#include <windows.h>

#include <stdexcept>
#include <string>

#include "json.h"
#include "result_names.h"

namespace tez::client {

/// A command did not do what it was asked for. The text is for the user; it is empty when the
/// command has told everything already.
class Failure : public std::runtime_error {
  public:
    explicit Failure(const std::string& text = "") : std::runtime_error(text) {}

    virtual Json toJson() const { return {{"text", what()}}; }
};

/// A PC/SC call failed.
class ScardFailure : public Failure {
  public:
    ScardFailure(const std::string& call, LONG result)
        : Failure(call + ": " + describeResult(result)), call_(call), result_(result) {}

    LONG result() const { return result_; }
    Json toJson() const override {
        return {{"text", what()}, {"call", call_}, {"result", resultToJson(result_)}};
    }

  private:
    std::string call_;
    LONG result_;
};

/// Throws ScardFailure unless the call succeeded.
inline void check(const char* call, LONG result) {
    if (result != ERROR_SUCCESS) {
        throw ScardFailure(call, result);
    }
}

}  // namespace tez::client
