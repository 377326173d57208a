#pragma once

#include <string_view>

namespace tez::client {

// The files of page/, as they are.
extern const std::string_view kPageFrame;
extern const std::string_view kPageStyle;
extern const std::string_view kPageScript;

}  // namespace tez::client
