#pragma once

#include <cstdint>

#include "common/heap.h"

namespace tez {

// Between the wide text of the W entry points and the UTF-8 that everything else knows. Each result
// is a new block of the library heap; null for null, and when memory is exhausted. Text that is not
// valid becomes U+FFFD.

HeapPtr<char> toUtf8(const wchar_t* text) noexcept;
HeapPtr<wchar_t> toWide(const char* text) noexcept;

/// How a converted multi-string is sized.
enum class MultiSize {
    Stepped,  ///< as applications know it: see multiToUtf8
    Whole     ///< by its names, all of which have their room
};

/// A multi-string in either direction. By default the result is sized by stepping through the
/// source by converted lengths, not by source lengths. That is kept so on purpose; for ASCII names
/// the two agree. Other names may make the block larger than its text, which then ends in zeros, or
/// too small for all names, whose last ones are then left out. Whatever it comes to, nothing is
/// read behind the source's closing NUL nor written behind the block, and the result is
/// well-formed.
HeapPtr<char> multiToUtf8(const wchar_t* names, MultiSize size = MultiSize::Stepped) noexcept;

/// @param length  out: the block's length in characters; 0 for null.
HeapPtr<wchar_t> multiToWide(const char* names, std::uint32_t& length,
                             MultiSize size = MultiSize::Stepped) noexcept;

}  // namespace tez
