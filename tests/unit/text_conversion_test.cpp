#include "common/text_conversion.h"

#include <windows.h>

#include <array>
#include <cstring>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "guarded_buffer.h"
#include "import_patch.h"

using namespace tez;
using namespace std::string_literals;
using test::GuardedBuffer;
using test::ImportPatch;

namespace {

/// The heap of this program, which gives what is allocated inside of a call of during() a block
/// that ends where memory does, or nothing at all.
class GuardedHeap {
  public:
    template <class Call>
    auto during(Call call) {
        armed_ = true;
        auto result = call();
        armed_ = false;
        return result;
    }

    /// What was asked for last.
    std::size_t lastSize() const noexcept { return lastSize_; }
    void refuseAll() noexcept { isRefusing_ = true; }

  private:
    template <class Function>
    static Function* runtime(const char* name) {
        return reinterpret_cast<Function*>(
            reinterpret_cast<void*>(GetProcAddress(GetModuleHandleA("msvcrt.dll"), name)));
    }

    void* take(std::size_t size) {
        if (!armed_) {
            return realMalloc_(size);
        }
        lastSize_ = size;
        if (!isRefusing_) {
            for (std::optional<GuardedBuffer>& block : blocks_) {
                if (!block) {
                    return block.emplace(size).data();
                }
            }
        }
        return nullptr;
    }

    void give(void* taken) {
        for (std::optional<GuardedBuffer>& block : blocks_) {
            if (block && block->data() == taken) {
                block.reset();
                return;
            }
        }
        realFree_(taken);
    }

    bool armed_ = false;
    bool isRefusing_ = false;
    std::size_t lastSize_ = 0;
    std::array<std::optional<GuardedBuffer>, 2> blocks_;
    // The program's own imports are what is patched.
    void* (*realMalloc_)(std::size_t) = runtime<void*(std::size_t)>("malloc");
    void (*realFree_)(void*) = runtime<void(void*)>("free");
    ImportPatch<void*(std::size_t)> malloc_{GetModuleHandleA(nullptr), "msvcrt.dll", "malloc",
                                            [this](std::size_t size) { return take(size); }};
    ImportPatch<void(void*)> free_{GetModuleHandleA(nullptr), "msvcrt.dll", "free",
                                   [this](void* block) { give(block); }};
};

/// A text, its NULs included, that ends where memory does.
template <class Character>
class Source {
  public:
    explicit Source(const std::basic_string<Character>& text)
        : buffer_(text.size() * sizeof(Character)) {
        std::memcpy(buffer_.data(), text.data(), buffer_.size());
    }
    const Character* get() const noexcept { return buffer_.template as<Character>(); }

  private:
    GuardedBuffer buffer_;
};

/// A single text converted by the system.
std::string systemConverted(const std::wstring& text) {
    std::string converted(text.size() * 3, '\0');  // the most that a unit comes to
    converted.resize(static_cast<std::size_t>(WideCharToMultiByte(
        CP_UTF8, 0, text.data(), static_cast<int>(text.size()), converted.data(),
        static_cast<int>(converted.size()), nullptr, nullptr)));
    return converted;
}
std::wstring systemConverted(const std::string& text) {
    std::wstring converted(text.size(), L'\0');
    converted.resize(static_cast<std::size_t>(
        MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()),
                            converted.data(), static_cast<int>(converted.size()))));
    return converted;
}

/// The converted names.
template <class To, class From>
std::vector<std::basic_string<To>> convertedNames(const std::basic_string<From>& names) {
    std::vector<std::basic_string<To>> converted;
    for (std::size_t at = 0; names[at] != 0; at = names.find(From{}, at) + 1) {
        converted.push_back(systemConverted(std::basic_string<From>(names.c_str() + at)));
    }
    return converted;
}

/// The size of a converted multi-string, its closing NUL included: the source is stepped through by
/// the sum so far.
template <class From>
std::size_t steppedSize(const std::basic_string<From>& names) {
    std::size_t total = 0;
    while (total < names.size() && names[total] != 0) {
        total += systemConverted(std::basic_string<From>(names.c_str() + total)).size() + 1;
    }
    return total + 1;
}

struct Texts {
    const wchar_t* wide;
    const char* utf8;
};

constexpr Texts kTexts[] = {
    {L"", ""},
    {L"Reader 0", "Reader 0"},
    {L"Leseger\u00E4t \u00E9", "Leseger\xC3\xA4t \xC3\xA9"},
    {L"\u8BFB\u5361\u5668", "\xE8\xAF\xBB\xE5\x8D\xA1\xE5\x99\xA8"},
    {L"\U0001F4B3\U0001F511", "\xF0\x9F\x92\xB3\xF0\x9F\x94\x91"},
    {L"\uFFFF", "\xEF\xBF\xBF"},
};

class TextConversion : public testing::Test {
  protected:
    std::string utf8Of(const std::wstring& text) {
        const Source source(text + L'\0');
        const HeapPtr<char> converted = heap.during([&] { return toUtf8(source.get()); });
        return converted.get();
    }

    std::wstring wideOf(const std::string& text) {
        const Source source(text + '\0');
        const HeapPtr<wchar_t> converted = heap.during([&] { return toWide(source.get()); });
        return converted.get();
    }

    std::string multiUtf8Of(const std::wstring& names) {
        const Source source(names);
        const HeapPtr<char> converted = heap.during([&] { return multiToUtf8(source.get()); });
        return {converted.get(), heap.lastSize()};
    }

    std::wstring multiWideOf(const std::string& names) {
        const Source source(names);
        std::uint32_t length = 0;
        const HeapPtr<wchar_t> converted =
            heap.during([&] { return multiToWide(source.get(), length); });
        EXPECT_EQ(heap.lastSize(), length * sizeof(wchar_t));
        return {converted.get(), length};
    }

    /// What must hold of any converted multi-string.
    template <class To, class From>
    void expectConverted(const std::basic_string<To>& result,
                         const std::basic_string<From>& names) {
        ASSERT_EQ(result.size(), steppedSize(names));
        // The names come whole and in order, as many as there is room for, and zeros behind them.
        std::basic_string<To> expected;
        bool isComplete = true;
        for (const auto& name : convertedNames<To>(names)) {
            isComplete = isComplete && expected.size() + name.size() + 1 < result.size();
            if (isComplete) {
                expected += name + To{};
            }
        }
        leftOut += isComplete ? 0 : 1;
        padded += expected.size() + 1 < result.size() ? 1 : 0;
        expected.resize(result.size());
        ASSERT_EQ(result, expected);
    }

    GuardedHeap heap;
    int leftOut = 0;  // how many results lacked names
    int padded = 0;   // how many had room that no name filled
};

TEST_F(TextConversion, GivesNullForNull) {
    EXPECT_EQ(toUtf8(nullptr), nullptr);
    EXPECT_EQ(toWide(nullptr), nullptr);
    EXPECT_EQ(multiToUtf8(nullptr), nullptr);
    std::uint32_t length = 77;
    EXPECT_EQ(multiToWide(nullptr, length), nullptr);
    EXPECT_EQ(length, 0U);
}

TEST_F(TextConversion, ConvertsTextsInBothDirectionsIntoBlocksOfTheirSize) {
    for (const Texts& text : kTexts) {
        SCOPED_TRACE(text.utf8);
        EXPECT_EQ(utf8Of(text.wide), text.utf8);
        EXPECT_EQ(heap.lastSize(), std::strlen(text.utf8) + 1);
        EXPECT_EQ(wideOf(text.utf8), text.wide);
        EXPECT_EQ(heap.lastSize(), (std::wcslen(text.wide) + 1) * sizeof(wchar_t));
    }
}

TEST_F(TextConversion, PutsTheReplacementCharacterForWhatIsNotValid) {
    EXPECT_EQ(utf8Of(L"a\xD800z"), "a\xEF\xBF\xBDz");
    EXPECT_EQ(utf8Of(L"\xDC00"), "\xEF\xBF\xBD");
    EXPECT_EQ(wideOf("a\xFFz"), L"a\uFFFDz");
    EXPECT_EQ(wideOf("\x80"), L"\uFFFD");
}

TEST_F(TextConversion, EndsTextsWhoseLastCharacterIsCutShort) {
    for (const char* const cut :
         {"a\xC3", "a\xE8", "a\xE8\xAF", "a\xF0", "a\xF0\x9F", "a\xF0\x9F\x92"}) {
        SCOPED_TRACE(testing::PrintToString(cut));
        const std::wstring converted = wideOf(cut);
        EXPECT_EQ(converted.substr(0, 2), L"a\uFFFD");
        EXPECT_EQ(heap.lastSize(), (converted.size() + 1) * sizeof(wchar_t));
    }
    EXPECT_EQ(multiWideOf("\xF0\x9F\0b\0\0"s).substr(0, 2), L"\uFFFD\0"s);
}

TEST_F(TextConversion, GivesNullWithoutMemory) {
    heap.refuseAll();
    EXPECT_EQ(heap.during([] { return toUtf8(L"a"); }), nullptr);
    EXPECT_EQ(heap.during([] { return toWide("a"); }), nullptr);
    EXPECT_EQ(heap.during([] { return multiToUtf8(L"a\0"); }), nullptr);
    std::uint32_t length = 77;
    EXPECT_EQ(heap.during([&] { return multiToWide("a\0", length); }), nullptr);
    EXPECT_EQ(length, 0U);
}

TEST_F(TextConversion, MakesOneNulOfAnEmptyMultiString) {
    EXPECT_EQ(multiUtf8Of(L"\0"s), "\0"s);
    EXPECT_EQ(multiWideOf("\0"s), L"\0"s);
}

TEST_F(TextConversion, ConvertsMultiStringsOfPlainNames) {
    EXPECT_EQ(multiUtf8Of(L"A\0Bc\0Def\0\0"s), "A\0Bc\0Def\0\0"s);
    EXPECT_EQ(multiWideOf("A\0Bc\0Def\0\0"s), L"A\0Bc\0Def\0\0"s);
}

TEST_F(TextConversion, SizesMultiStringsByConvertedLengths) {
    // One more byte than characters: the sum leads past a NUL, behind which there is the end.
    EXPECT_EQ(multiUtf8Of(L"\u00E9\0\0"s), "\xC3\xA9\0\0"s);
    // The sum leads to the NUL of the second name: the end, as it seems.
    EXPECT_EQ(multiUtf8Of(L"\u00E9\0b\0\0"s), "\xC3\xA9\0\0"s);
    // The sum leads into the second name, whose rest is counted; there is no room for all of it.
    EXPECT_EQ(multiUtf8Of(L"\u00E9\0bc\0\0"s), "\xC3\xA9\0\0\0\0"s);
    // The sum leads past all there is.
    EXPECT_EQ(multiUtf8Of(L"\u8BFB\u5361\0b\0\0"s), "\xE8\xAF\xBB\xE5\x8D\xA1\0\0"s);
    // Plain names in front of a longer one have their room.
    EXPECT_EQ(multiUtf8Of(L"a\0\u00E9\0\0"s), "a\0\xC3\xA9\0\0"s);

    // One character less than bytes: the sum leads to the NUL of the first name.
    EXPECT_EQ(multiWideOf("\xC3\xA9\0\0"s), L"\u00E9\0\0"s);
    EXPECT_EQ(multiWideOf("\xC3\xA9\0b\0\0"s), L"\u00E9\0\0"s);
    // The sum leads to a byte in the middle of a character, which counts as one of its own: there
    // is room left over.
    EXPECT_EQ(multiWideOf("\xC3\xA9\xC3\xA9\0\0"s), L"\u00E9\u00E9\0\0\0\0"s);
    // And the names behind it have their room.
    EXPECT_EQ(multiWideOf("\xC3\xA9\xC3\xA9\0b\0\0"s), L"\u00E9\u00E9\0b\0\0\0\0"s);
}

TEST_F(TextConversion, OfAnyWideNamesStaysInsideOfSourceAndBlock) {
    std::mt19937 random(20260102);  // the same names in every run
    const wchar_t units[] = {L'A', L'b', 0xE9, 0x8BFB, 0xD83D, 0xDCB3, 0xDC00, 0xFFFF};
    for (int round = 0; round < 3000; ++round) {
        std::wstring names;
        for (unsigned count = random() % 5; count != 0; --count) {
            for (unsigned size = random() % 6 + 1; size != 0; --size) {
                names += units[random() % std::size(units)];
            }
            names += L'\0';
        }
        names += L'\0';
        const std::string result = multiUtf8Of(names);
        ASSERT_NO_FATAL_FAILURE(expectConverted(result, names)) << testing::PrintToString(names);
    }
    EXPECT_GT(leftOut, 100);
    EXPECT_GT(padded, 100);
}

TEST_F(TextConversion, OfAnyBytesStaysInsideOfSourceAndBlock) {
    std::mt19937 random(20260103);  // the same names in every run
    const std::string pieces[] = {
        "A",        "b",    "\xC3\xA9", "\xE8\xAF\xBB", "\xF0\x9F\x92\xB3",
        "\xE8\xAF", "\x80", "\xFF",     "\xF0\x9F"};
    for (int round = 0; round < 3000; ++round) {
        std::string names;
        for (unsigned count = random() % 5; count != 0; --count) {
            for (unsigned size = random() % 6 + 1; size != 0; --size) {
                names += pieces[random() % std::size(pieces)];
            }
            names += '\0';
        }
        names += '\0';
        const std::wstring result = multiWideOf(names);
        ASSERT_NO_FATAL_FAILURE(expectConverted(result, names)) << testing::PrintToString(names);
    }
    EXPECT_GT(leftOut, 100);
    EXPECT_GT(padded, 100);
}

}  // namespace
