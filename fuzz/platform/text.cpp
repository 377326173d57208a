#include <windows.h>

namespace {

constexpr std::uint32_t kReplacement = 0xFFFD;

template <class Unit>
struct Source {
    const Unit* next;
    const Unit* end;
};

std::uint32_t takeCharacter(Source<char>& source) {
    const auto lead = static_cast<std::uint8_t>(*source.next++);
    if (lead < 0x80) {
        return lead;
    }
    const int length = lead < 0xC2 || lead > 0xF4 ? 0 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
    if (length == 0) {
        return kReplacement;
    }
    std::uint32_t character = lead & (0x7FU >> length);
    for (int i = 1; i < length; ++i) {
        // Of the byte behind the first there are fewer: none that make a character which a shorter
        // sequence makes, a surrogate, or one beyond the last.
        const unsigned low = i > 1 ? 0x80 : lead == 0xE0 ? 0xA0 : lead == 0xF0 ? 0x90 : 0x80;
        const unsigned high = i > 1 ? 0xBF : lead == 0xED ? 0x9F : lead == 0xF4 ? 0x8F : 0xBF;
        const unsigned byte =
            source.next == source.end ? 0 : static_cast<std::uint8_t>(*source.next);
        if (byte < low || byte > high) {
            return kReplacement;
        }
        character = character << 6 | (byte & 0x3F);
        ++source.next;
    }
    return character;
}

std::uint32_t takeCharacter(Source<wchar_t>& source) {
    const auto isLow = [](std::uint32_t unit) { return unit >= 0xDC00 && unit <= 0xDFFF; };
    const std::uint32_t unit = static_cast<char16_t>(*source.next++);
    if (unit < 0xD800 || unit > 0xDFFF) {
        return unit;
    }
    if (isLow(unit) || source.next == source.end ||
        !isLow(static_cast<std::uint32_t>(*source.next))) {
        return kReplacement;
    }
    return 0x10000 + ((unit - 0xD800) << 10) +
           (static_cast<std::uint32_t>(*source.next++) - 0xDC00);
}

/// The units that a character has, which are put into the target.
int encode(std::uint32_t character, char (&units)[4]) {
    const auto unit = [](std::uint32_t value) { return static_cast<char>(value); };
    if (character < 0x80) {
        units[0] = unit(character);
        return 1;
    }
    const int length = character < 0x800 ? 2 : character < 0x10000 ? 3 : 4;
    for (int i = length - 1; i > 0; --i, character >>= 6) {
        units[i] = unit(0x80 | (character & 0x3F));
    }
    units[0] = unit((0xF00U >> length & 0xF0U) | character);
    return length;
}

int encode(std::uint32_t character, wchar_t (&units)[4]) {
    if (character < 0x10000) {
        units[0] = static_cast<wchar_t>(character);
        return 1;
    }
    units[0] = static_cast<wchar_t>(0xD800 + ((character - 0x10000) >> 10));
    units[1] = static_cast<wchar_t>(0xDC00 + (character & 0x3FF));
    return 2;
}

template <class To, class From>
int convert(const From* text, int length, To* target, int room) {
    if (length <= 0 || room < 0) {
        return 0;
    }
    int written = 0;
    for (Source<From> source{text, text + length}; source.next != source.end;) {
        To units[4];
        const int count = encode(takeCharacter(source), units);
        for (int i = 0; i < count; ++i, ++written) {
            if (room != 0) {
                if (written == room) {
                    return 0;
                }
                target[written] = units[i];
            }
        }
    }
    return written;
}

}  // namespace

int WideCharToMultiByte(unsigned /*codePage*/, DWORD /*flags*/, LPCWSTR text, int length,
                        LPSTR target, int room, LPCSTR /*substitute*/,
                        BOOL* /*wasSubstituted*/) noexcept {
    return convert(text, length, target, room);
}

int MultiByteToWideChar(unsigned /*codePage*/, DWORD /*flags*/, LPCSTR text, int length,
                        LPWSTR target, int room) noexcept {
    return convert(text, length, target, room);
}
