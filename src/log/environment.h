#pragma once

#include <cstdlib>

#include "log/function_log.h"

namespace tez {

/// Under this name the log tells of a setting that was not understood.
inline constexpr FunctionLog kSettingsLog("settings");

/// Reads an environment variable through the C runtime. False when it is absent, empty, or does not
/// fit the buffer with its NUL: the value then counts as not set.
template <std::size_t size>
bool readEnvironment(const char* name, char (&value)[size]) noexcept {
    std::size_t length = 0;
    return getenv_s(&length, value, size, name) == 0 && length > 1;
}

/// Whether a variable counts as not set because its value does not fit a buffer of `size` bytes.
inline bool isTooLong(const char* name, std::size_t size) noexcept {
    std::size_t length = 0;
    getenv_s(&length, nullptr, 0, name);
    return length > size;
}

}  // namespace tez
