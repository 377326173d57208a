// Text and lists of names on their way between UTF-8 and UTF-16, with the platform's converter
// played by platform/text.cpp.
#include "common/text_conversion.h"

#include <algorithm>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "support/holds.h"

using namespace tez;
using fuzz::holds;

namespace {

/// What a text of the one form comes to in the other one; without the NUL.
std::wstring converted(const std::string& text) {
    const HeapPtr<wchar_t> result = toWide(text.c_str());
    return result.get();
}
std::string converted(const std::wstring& text) {
    const HeapPtr<char> result = toUtf8(text.c_str());
    return result.get();
}

std::wstring multiConverted(const std::string& names, MultiSize size) {
    std::uint32_t length = 0;
    const HeapPtr<wchar_t> result = multiToWide(names.c_str(), length, size);
    return {result.get(), length};  // reads every character that it is said to have
}
std::string multiConverted(const std::wstring& names, MultiSize size) {
    const HeapPtr<char> result = multiToUtf8(names.c_str(), size);
    std::size_t length = 0;
    while (result.get()[length] != '\0') {
        length += std::char_traits<char>::length(result.get() + length) + 1;
    }
    return {result.get(), length + 1};
}

/// The names up to the empty one that closes them, each with its NUL.
template <class Character>
std::vector<std::basic_string<Character>> namesIn(const std::basic_string<Character>& names) {
    std::vector<std::basic_string<Character>> found;
    for (std::size_t at = 0; at < names.size() && names[at] != 0;) {
        found.emplace_back(names.c_str() + at);
        at += found.back().size() + 1;
    }
    return found;
}

template <class Character>
void check(const std::basic_string<Character>& given) {
    // A text ends at its first NUL, and what it came to is valid: it comes back as it is.
    const std::basic_string<Character> text = given.substr(0, given.find(Character{}));
    const auto other = converted(text);
    holds(converted(converted(other)) == other);
    const auto isAscii = [](auto character) { return character > 0 && character < 0x80; };
    holds(!std::ranges::all_of(text, isAscii) || std::ranges::equal(text, other));

    // Names that all have their room are each converted as they would be alone.
    const auto names = namesIn(given);
    const auto whole = namesIn(multiConverted(given, MultiSize::Whole));
    holds(whole.size() == names.size());
    for (std::size_t i = 0; i < whole.size(); ++i) {
        holds(whole[i] == converted(names[i]));
    }
    // Stepped, the last ones may be left out; the others are the same.
    const auto stepped = namesIn(multiConverted(given, MultiSize::Stepped));
    holds(stepped.size() <= whole.size());
    holds(std::ranges::equal(stepped, std::span(whole).first(stepped.size())));
    if (std::ranges::all_of(names,
                            [&](const auto& name) { return std::ranges::all_of(name, isAscii); })) {
        holds(stepped.size() == whole.size());
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    // Two NULs at the end, as every list has that an application gives.
    check(std::string(data, data + size).append(2, '\0'));
    std::wstring wide;
    for (std::size_t i = 0; i + 1 < size; i += 2) {
        wide.push_back(static_cast<wchar_t>(data[i] | data[i + 1] << 8));
    }
    check(wide.append(2, L'\0'));
    return 0;
}
