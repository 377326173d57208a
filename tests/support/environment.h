#pragma once

#include <string>

namespace tez::test {

/// Sets an environment variable for this process and for those that it starts from now on; an empty
/// value removes it. The library reads most variables once in a process: set them before the first
/// call. Throws std::runtime_error when the environment cannot be changed.
void setEnvironment(const std::string& name, const std::string& value);

}  // namespace tez::test
