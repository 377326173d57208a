#pragma once

#include <cstdint>
#include <optional>
#include <random>

namespace tez::pcscd {

/// Numbers for handles, each issued once, as good as certainly: drawn at random from 62 bits. So a
/// handle of an earlier run is none of this one, and nobody who has a handle can tell from it what
/// another program's is.
///
/// A number is never below 2^32: 0 and 0xFFFFFFFF mean "no context" to a client, and one that was
/// cut to 32 bits on its way is unknown.
class HandleNumbers {
  public:
    HandleNumbers() = default;
    /// Counts up instead, for those who are to know the numbers beforehand.
    explicit HandleNumbers(std::uint64_t first) : next_(first) {}

    std::uint64_t next() { return next_ ? (*next_)++ : drawn_(device_); }

  private:
    std::optional<std::uint64_t> next_;
    std::random_device device_;
    std::uniform_int_distribution<std::uint64_t> drawn_{std::uint64_t{1} << 32,
                                                        (std::uint64_t{1} << 62) - 1};
};

}  // namespace tez::pcscd
