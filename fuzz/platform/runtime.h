// What the C runtime of Windows has and others have not; included in front of every source of src/.
#pragma once

#include <cstdarg>
#include <cstddef>

/// Of a variable's value, or of none where it does not fit or is not set; the length holds its NUL.
int getenv_s(std::size_t* length, char* value, std::size_t size, const char* name) noexcept;

/// Compares, and takes capitals for small letters.
int _stricmp(const char* one, const char* other) noexcept;

/// The length that a text would have.
int _vscprintf(const char* format, std::va_list arguments) noexcept;

/// Of a text that does not fit -1, and no NUL behind its part.
int _vsnprintf(char* buffer, std::size_t size, const char* format, std::va_list arguments) noexcept;
