#pragma once

#include <cstring>

namespace tez {

/// Copies a text with its NUL into a record's field, whose bytes are zero. False, with nothing
/// copied, when it does not fit: a shortened name would be another reader's or card's. Of the text
/// no more is read than fits.
template <std::size_t size>
bool copyToField(char (&field)[size], const char* text) noexcept {
    const std::size_t length = strnlen(text, size);
    if (length == size) {
        return false;
    }
    std::memcpy(field, text, length);
    return true;
}

}  // namespace tez
