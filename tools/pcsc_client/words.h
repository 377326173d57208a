#pragma once

#include <string>
#include <vector>

namespace tez::client {

/// The words of a line of the shell. They are separated by spaces; one with spaces inside stands in
/// double quotes, where a backslash takes the character behind it as it is. A word that begins with
/// # begins a comment. Throws Failure when quotes are left open.
std::vector<std::string> splitWords(const std::string& line);

}  // namespace tez::client
