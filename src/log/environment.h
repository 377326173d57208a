#pragma once

#include <cstdlib>

namespace tez {

/// Reads an environment variable through the C runtime. False when it is absent, empty, or does not
/// fit the buffer with its NUL: the value then counts as not set.
template <std::size_t size>
bool readEnvironment(const char* name, char (&value)[size]) noexcept {
    std::size_t length = 0;
    return getenv_s(&length, value, size, name) == 0 && length > 1;
}

}  // namespace tez
