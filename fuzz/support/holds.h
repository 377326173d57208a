#pragma once

#include <cstdio>
#include <cstdlib>

namespace tez::fuzz {

/// What has to be true of every input. Ends the program where it is not, which libFuzzer takes for
/// a finding and stores the input. (clang's library has no std::source_location yet.)
inline void holds(bool condition, const char* file = __builtin_FILE(),
                  int line = __builtin_LINE()) {
    if (!condition) {
        std::fprintf(stderr, "%s:%d: does not hold\n", file, line);
        std::abort();
    }
}

}  // namespace tez::fuzz
