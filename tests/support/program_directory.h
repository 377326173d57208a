#pragma once

#include <string>

namespace tez::test {

/// The folder of the running program, without a backslash at its end.
std::string programDirectory();

}  // namespace tez::test
