#pragma once

#include <cstddef>
#include <cstdint>

#include "common/heap.h"

namespace tez {

/// Two lower-case hexadecimal digits for each byte, without separators: "3b8f". A new text, null
/// when memory is exhausted.
HeapPtr<char> formatHexDump(const void* bytes, std::uint32_t length) noexcept;

/// The names of the reader-state bits in a log line: "CHANGED|PRESENT:0". Behind the colon stand
/// the bits without a name, in hexadecimal: SCARD_STATE_IGNORE, which is no state of a reader, and
/// the event counter in the upper half, which is not split out.
class ReaderStateText {
  public:
    explicit ReaderStateText(std::uint32_t state) noexcept;
    const char* c_str() const noexcept { return text_; }

  private:
    char text_[128] = {};
};

/// The text lives until the end of the full expression that it is used in.
inline ReaderStateText formatReaderState(std::uint32_t state) noexcept {
    return ReaderStateText(state);
}

}  // namespace tez
