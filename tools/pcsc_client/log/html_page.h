#pragma once

#include <string>
#include <vector>

#include "log/call.h"

namespace tez::client {

/// One HTML page that holds everything it needs: a timeline of the calls by process and thread,
/// with their lines. The calls are in the order of their beginnings.
std::string makeHtmlPage(const std::vector<Call>& calls);

}  // namespace tez::client
