#pragma once

#include <windows.h>

#include <optional>
#include <string>

namespace tez::relay {

/// Looks in a file's security descriptor, with owner and access list, for somebody who could read
/// or replace the file: anybody but the user that runs this program, administrators and the system.
/// Returns whom it found, as a person calls it; nothing when there is nobody. Throws
/// std::system_error when the descriptor cannot be read.
std::optional<std::string> strangerIn(PSECURITY_DESCRIPTOR descriptor);

}  // namespace tez::relay
