#include "common/text_conversion.h"

#include <windows.h>

#include <algorithm>
#include <string>

namespace tez {

namespace {

// The same two conversions, told apart by the source's character type. A room of 0 asks for the
// length.
int convert(const wchar_t* text, int length, char* target, int room) noexcept {
    return WideCharToMultiByte(CP_UTF8, 0, text, length, target, room, nullptr, nullptr);
}
int convert(const char* text, int length, wchar_t* target, int room) noexcept {
    return MultiByteToWideChar(CP_UTF8, 0, text, length, target, room);
}

template <class From>
int lengthOf(const From* text) noexcept {
    return static_cast<int>(std::char_traits<From>::length(text));
}

/// Characters of the converted text, its NUL included.
template <class To, class From>
std::size_t convertedLength(const From* text) noexcept {
    return static_cast<std::size_t>(convert(text, lengthOf(text), static_cast<To*>(nullptr), 0)) +
           1;
}

/// Converts a text into room for convertedLength characters. The NUL is set here and never given to
/// the system to convert: a character that it cuts short may take it along, as it does in Wine, and
/// leave a text without an end.
template <class To, class From>
void convertInto(const From* text, To* target, std::size_t room) noexcept {
    convert(text, lengthOf(text), target, static_cast<int>(room - 1));
    target[room - 1] = To{};
}

template <class To, class From>
HeapPtr<To> convertText(const From* text) noexcept {
    if (text == nullptr) {
        return nullptr;
    }
    const std::size_t length = convertedLength<To>(text);
    HeapPtr<To> converted(static_cast<To*>(heapAllocate(length * sizeof(To))));
    if (converted != nullptr) {
        convertInto(text, converted.get(), length);
    }
    return converted;
}

/// The position of the NUL that closes a multi-string.
template <class Character>
std::size_t endOf(const Character* names) noexcept {
    std::size_t end = 0;
    while (names[end] != 0) {
        end += std::char_traits<Character>::length(names + end) + 1;
    }
    return end;
}

/// Characters of the converted names, without the NUL that closes them.
template <class To, class From>
std::size_t convertedLengthOfNames(const From* names, MultiSize size) noexcept {
    const std::size_t end = endOf(names);
    std::size_t total = 0;
    for (std::size_t at = 0; at < end && names[at] != 0;) {
        total += convertedLength<To>(names + at);
        at = size == MultiSize::Stepped ? total
                                        : at + std::char_traits<From>::length(names + at) + 1;
    }
    return total;
}

template <class To, class From>
HeapPtr<To> convertMultiString(const From* names, MultiSize multiSize,
                               std::size_t& length) noexcept {
    length = 0;
    if (names == nullptr) {
        return nullptr;
    }
    const std::size_t total = convertedLengthOfNames<To>(names, multiSize);
    HeapPtr<To> converted(static_cast<To*>(heapAllocate((total + 1) * sizeof(To))));
    if (converted == nullptr) {
        return nullptr;
    }
    std::fill_n(converted.get(), total + 1, To{});
    std::size_t filled = 0;
    for (const From* name = names; *name != 0;) {
        const std::size_t size = convertedLength<To>(name);
        if (size > total - filled) {
            break;
        }
        convertInto(name, converted.get() + filled, size);
        filled += size;
        name += std::char_traits<From>::length(name) + 1;
    }
    length = total + 1;
    return converted;
}

}  // namespace

HeapPtr<char> toUtf8(const wchar_t* text) noexcept {
    return convertText<char>(text);
}

HeapPtr<wchar_t> toWide(const char* text) noexcept {
    return convertText<wchar_t>(text);
}

HeapPtr<char> multiToUtf8(const wchar_t* names, MultiSize size) noexcept {
    std::size_t length = 0;
    return convertMultiString<char>(names, size, length);
}

HeapPtr<wchar_t> multiToWide(const char* names, std::uint32_t& length, MultiSize size) noexcept {
    std::size_t characters = 0;
    HeapPtr<wchar_t> converted = convertMultiString<wchar_t>(names, size, characters);
    length = static_cast<std::uint32_t>(characters);
    return converted;
}

}  // namespace tez
