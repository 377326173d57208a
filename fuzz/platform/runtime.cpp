#include "runtime.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <strings.h>

// The formats are those of the Windows C runtime, which the builds for it hold against the
// arguments.
#pragma clang diagnostic ignored "-Wformat-nonliteral"

int getenv_s(std::size_t* length, char* value, std::size_t size, const char* name) noexcept {
    const char* const found = std::getenv(name);
    *length = found == nullptr ? 0 : std::strlen(found) + 1;
    if (value != nullptr && size != 0) {
        value[0] = '\0';
    }
    if (*length == 0 || value == nullptr) {
        return 0;
    }
    if (*length > size) {
        return ERANGE;
    }
    std::memcpy(value, found, *length);
    return 0;
}

int _stricmp(const char* one, const char* other) noexcept {
    return strcasecmp(one, other);
}

int _vscprintf(const char* format, std::va_list arguments) noexcept {
    return std::vsnprintf(nullptr, 0, format, arguments);
}

int _vsnprintf(char* buffer, std::size_t size, const char* format,
               std::va_list arguments) noexcept {
    std::va_list again;
    va_copy(again, arguments);
    const auto length = static_cast<std::size_t>(_vscprintf(format, again));
    va_end(again);
    const auto text = std::make_unique<char[]>(length + 1);
    std::vsnprintf(text.get(), length + 1, format, arguments);
    std::copy_n(text.get(), std::min(length, size), buffer);
    if (length < size) {
        buffer[length] = '\0';
    }
    return length > size ? -1 : static_cast<int>(length);
}
