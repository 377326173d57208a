#pragma once

#include <cstdint>
#include <vector>

namespace tez::pcscd {

using Bytes = std::vector<std::uint8_t>;

}  // namespace tez::pcscd
