#pragma once

#include <string>

namespace tez::test {

/// Writes a file that the user who runs the test can use, and others as far as the entries say,
/// which are in Windows' own notation for access lists (SDDL). Throws std::runtime_error.
void writePrivateFile(const std::string& path, const std::string& text,
                      const std::string& otherEntries = "");

}  // namespace tez::test
