#include "log/value_format.h"

#include "common/scard_api.h"
#include "log/crt_format.h"

namespace tez {

HeapPtr<char> formatHexDump(const void* bytes, std::uint32_t length) noexcept {
    static constexpr char kDigits[] = "0123456789abcdef";
    HeapPtr<char> text(static_cast<char*>(heapAllocate(std::size_t{length} * 2 + 1)));
    if (text != nullptr) {
        char* end = text.get();
        for (std::uint32_t i = 0; i < length; ++i) {
            const auto byte = static_cast<const unsigned char*>(bytes)[i];
            *end++ = kDigits[byte >> 4];
            *end++ = kDigits[byte & 0xF];
        }
        *end = '\0';
    }
    return text;
}

ReaderStateText::ReaderStateText(std::uint32_t state) noexcept {
    static constexpr struct {
        std::uint32_t bit;
        const char* name;
    } kNamed[] = {{SCARD_STATE_CHANGED, "CHANGED"},
                  {SCARD_STATE_UNKNOWN, "UNKNOWN"},
                  {SCARD_STATE_UNAVAILABLE, "UNAVAILABLE"},
                  {SCARD_STATE_EMPTY, "EMPTY"},
                  {SCARD_STATE_PRESENT, "PRESENT"},
                  {SCARD_STATE_ATRMATCH, "ATRMATCH"},
                  {SCARD_STATE_EXCLUSIVE, "EXCLUSIVE"},
                  {SCARD_STATE_INUSE, "INUSE"},
                  {SCARD_STATE_MUTE, "MUTE"},
                  {SCARD_STATE_UNPOWERED, "UNPOWERED"}};
    std::size_t length = 0;
    std::uint32_t unnamed = state;
    for (const auto& named : kNamed) {
        if ((state & named.bit) != 0) {
            length += crtFormat(text_ + length, sizeof(text_) - length, "%s%s",
                                length == 0 ? "" : "|", named.name);
            unnamed &= ~named.bit;
        }
    }
    crtFormat(text_ + length, sizeof(text_) - length, ":%0x", unnamed);
}

}  // namespace tez
