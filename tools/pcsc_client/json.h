#pragma once

#include <nlohmann/json.hpp>

namespace tez::client {

/// Keeps its members in the order in which they were put in.
using Json = nlohmann::ordered_json;

}  // namespace tez::client
