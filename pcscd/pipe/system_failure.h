#pragma once

#include <windows.h>

#include <string>
#include <system_error>

namespace tez::pcscd {

/// An error of the system as an exception that says what could not be done.
inline std::system_error systemFailure(const std::string& what, DWORD error = GetLastError()) {
    return {static_cast<int>(error), std::system_category(), what};
}

}  // namespace tez::pcscd
