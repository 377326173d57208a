#pragma once

#include <cstdint>
#include <random>

namespace tez::pcscd {

/// Numbers for handles, each issued once. They count up from a random one of 62 bits, so that a
/// handle of an earlier run is none of this one.
///
/// A number is never below 2^32: 0 and 0xFFFFFFFF mean "no context" to a client, and one that was
/// cut to 32 bits on its way is unknown.
class HandleNumbers {
  public:
    HandleNumbers() : next_(randomBase()) {}
    explicit HandleNumbers(std::uint64_t first) : next_(first) {}

    std::uint64_t next() noexcept { return next_++; }

  private:
    static std::uint64_t randomBase() {
        constexpr std::uint64_t kFirst = std::uint64_t{1} << 32;
        constexpr std::uint64_t kLast = (std::uint64_t{1} << 62) - 1;
        std::random_device device;
        return std::uniform_int_distribution<std::uint64_t>(kFirst, kLast)(device);
    }

    std::uint64_t next_;
};

}  // namespace tez::pcscd
