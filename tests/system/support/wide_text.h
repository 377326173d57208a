// Texts for the wide forms of the calls.
#pragma once

#include <windows.h>

#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "guarded_buffer.h"

namespace tez::test {

/// A name as applications of the wide forms see it, and as everyone else does.
struct WideName {
    const wchar_t* wide;
    const char* utf8;
};

/// Accents, characters of three bytes, and surrogate pairs.
inline constexpr WideName kForeignNames[] = {
    {L"Leseger\u00E4t \u00E9", "Leseger\u00E4t \u00E9"},
    {L"\u8BFB\u5361\u5668", "\u8BFB\u5361\u5668"},
    {L"Reader \U0001F4B3\U0001F511 0", "Reader \U0001F4B3\U0001F511 0"},
};

/// So many characters of three bytes each.
struct LongWideName {
    explicit LongWideName(std::size_t characters) : wide(characters, L'\u8BFB') {
        for (std::size_t i = 0; i < characters; ++i) {
            utf8 += "\u8BFB";
        }
    }

    std::wstring wide;
    std::string utf8;
};

/// The elements of a wide multi-string.
inline std::vector<std::wstring> splitMultiString(const wchar_t* multiString) {
    std::vector<std::wstring> elements;
    for (; *multiString != L'\0'; multiString += elements.back().size() + 1) {
        elements.emplace_back(multiString);
    }
    return elements;
}

/// A caller's wide text whose last character is where memory ends.
class GuardedText {
  public:
    /// @param text its NULs included.
    explicit GuardedText(std::wstring_view text) : buffer_(text.size() * sizeof(wchar_t)) {
        std::memcpy(buffer_.data(), text.data(), buffer_.size());
    }

    const wchar_t* get() const noexcept { return buffer_.as<wchar_t>(); }

  private:
    GuardedBuffer buffer_;
};

/// A caller's buffer for wide text that touches an inaccessible page.
class WideBuffer {
  public:
    explicit WideBuffer(std::size_t characters) : buffer_(characters * sizeof(wchar_t)) {}

    wchar_t* get() const noexcept { return buffer_.as<wchar_t>(); }
    std::wstring text(std::size_t length) const { return {get(), length}; }
    bool untouched() const noexcept { return buffer_.untouched(); }
    bool untouchedFrom(std::size_t character) const noexcept {
        return buffer_.untouchedFrom(character * sizeof(wchar_t));
    }

  private:
    GuardedBuffer buffer_;
};

}  // namespace tez::test
