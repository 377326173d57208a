#pragma once

#include <optional>
#include <string>

#include "log/call.h"

namespace tez::client {

/// Which calls are wanted; all of what is set must fit.
struct CallFilter {
    bool failures = false;       ///< failed or not finished; a wait may be over
    std::optional<double> slow;  ///< milliseconds at least
    std::string name;            ///< part of the function's name, in any case
    std::optional<std::uint32_t> thread;

    bool accepts(const Call& call) const;
};

}  // namespace tez::client
