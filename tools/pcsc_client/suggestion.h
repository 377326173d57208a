#pragma once

#include <string>
#include <vector>

namespace tez::client {

/// The name that the mistyped word is most likely meant to be; empty when none is near: one in
/// three letters may be wrong, missing or too many.
std::string suggest(const std::string& word, const std::vector<std::string>& names);

}  // namespace tez::client
