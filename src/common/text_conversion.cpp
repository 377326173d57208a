#include "common/text_conversion.h"

#include <windows.h>

#include <algorithm>
#include <string>

namespace tez {

namespace {

// The same two conversions, told apart by the source's character type.
int convert(const wchar_t* text, char* target, int room) noexcept {
    return WideCharToMultiByte(CP_UTF8, 0, text, -1, target, room, nullptr, nullptr);
}
int convert(const char* text, wchar_t* target, int room) noexcept {
    return MultiByteToWideChar(CP_UTF8, 0, text, -1, target, room);
}

/// Characters of the converted text, its NUL included.
template <class To, class From>
std::size_t convertedLength(const From* text) noexcept {
    return static_cast<std::size_t>(convert(text, static_cast<To*>(nullptr), 0));
}

template <class To, class From>
HeapPtr<To> convertText(const From* text) noexcept {
    if (text == nullptr) {
        return nullptr;
    }
    const std::size_t length = convertedLength<To>(text);
    HeapPtr<To> converted(static_cast<To*>(heapAllocate(length * sizeof(To))));
    if (converted != nullptr) {
        convert(text, converted.get(), static_cast<int>(length));
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

template <class To, class From>
HeapPtr<To> convertMultiString(const From* names, std::size_t& length) noexcept {
    length = 0;
    if (names == nullptr) {
        return nullptr;
    }
    const std::size_t end = endOf(names);
    std::size_t total = 0;
    while (total < end && names[total] != 0) {
        total += convertedLength<To>(names + total);
    }
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
        convert(name, converted.get() + filled, static_cast<int>(size));
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

HeapPtr<char> multiToUtf8(const wchar_t* names) noexcept {
    std::size_t length = 0;
    return convertMultiString<char>(names, length);
}

HeapPtr<wchar_t> multiToWide(const char* names, std::uint32_t& length) noexcept {
    std::size_t size = 0;
    HeapPtr<wchar_t> converted = convertMultiString<wchar_t>(names, size);
    length = static_cast<std::uint32_t>(size);
    return converted;
}

}  // namespace tez
