#pragma once

#include <cstdarg>
#include <cstddef>
#include <string_view>

#include "common/heap.h"
#include "log/printf_format.h"

namespace tez {

/// Formats into a fixed buffer with the C runtime's own formatter, which prints %p and %Ix as
/// Windows does and a null %s as "(null)". Always terminates; a text that does not fit is cut.
/// Returns the number of characters before the NUL.
std::size_t crtFormat(char* buffer, std::size_t size, const char* format, ...)
    TEZ_PRINTF_FORMAT(3, 4);

/// A lead text followed by a formatted message, of whatever length. Short ones live in the object,
/// long ones on the heap; when memory is exhausted the text is cut to what fits in the object.
class FormattedText {
  public:
    FormattedText(const char* lead, const char* format, std::va_list arguments) noexcept
        TEZ_PRINTF_FORMAT(3, 0);

    std::string_view text() const noexcept { return text_; }

  private:
    char inline_[512] = {};
    HeapPtr<char> block_;
    std::string_view text_;
};

}  // namespace tez
