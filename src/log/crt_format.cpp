#include "log/crt_format.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace tez {

namespace {

// The formatter neither terminates nor counts a text that does not fit, it returns -1.
TEZ_PRINTF_FORMAT(3, 0)
std::size_t formatCut(char* buffer, std::size_t size, const char* format, std::va_list arguments) {
    const int written = _vsnprintf(buffer, size - 1, format, arguments);
    const std::size_t length = written < 0 ? size - 1 : static_cast<std::size_t>(written);
    buffer[length] = '\0';
    return length;
}

}  // namespace

std::size_t crtFormat(char* buffer, std::size_t size, const char* format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    const std::size_t length = formatCut(buffer, size, format, arguments);
    va_end(arguments);
    return length;
}

FormattedText::FormattedText(const char* lead, const char* format,
                             std::va_list arguments) noexcept {
    std::va_list again;
    va_copy(again, arguments);
    const int needed = _vscprintf(format, again);
    va_end(again);

    const std::size_t leadLength = std::strlen(lead);
    const std::size_t size = leadLength + static_cast<std::size_t>(std::max(needed, 0)) + 1;
    char* buffer = inline_;
    std::size_t room = sizeof(inline_);
    if (size > room) {
        block_.reset(static_cast<char*>(heapAllocate(size)));
        if (block_ != nullptr) {
            buffer = block_.get();
            room = size;
        }
    }
    const std::size_t leadCopied = std::min(leadLength, room - 1);
    std::memcpy(buffer, lead, leadCopied);
    const std::size_t length = formatCut(buffer + leadCopied, room - leadCopied, format, arguments);
    text_ = std::string_view(buffer, leadCopied + length);
}

}  // namespace tez
