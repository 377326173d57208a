#include "log/value_format.h"

#include <gtest/gtest.h>
#include <string>

using namespace tez;

namespace {

std::string hexDump(const std::string& bytes) {
    const HeapPtr<char> text =
        formatHexDump(bytes.data(), static_cast<std::uint32_t>(bytes.size()));
    return text == nullptr ? "(null)" : text.get();
}

struct StateAndText {
    std::uint32_t state;
    const char* text;
};

void PrintTo(const StateAndText& given, std::ostream* stream) {
    *stream << given.text;
}

class ReaderStateFormat : public testing::TestWithParam<StateAndText> {};

}  // namespace

TEST(HexDump, WritesTwoLowerCaseDigitsForEachByte) {
    EXPECT_EQ(hexDump("\x3B\x8F"), "3b8f");
    EXPECT_EQ(hexDump(std::string("\x00\x0A\xFF", 3)), "000aff");
}

TEST(HexDump, IsEmptyForNoBytes) {
    EXPECT_EQ(hexDump(""), "");
    const HeapPtr<char> text = formatHexDump(nullptr, 0);
    ASSERT_NE(text, nullptr);
    EXPECT_STREQ(text.get(), "");
}

TEST(HexDump, HasRoomForManyBytes) {
    const std::string dump = hexDump(std::string(70000, '\xA5'));
    ASSERT_EQ(dump.size(), 140000U);
    EXPECT_EQ(dump.find_first_not_of("a5"), std::string::npos);
}

TEST_P(ReaderStateFormat, NamesTheBitsInTheirOrder) {
    EXPECT_STREQ(formatReaderState(GetParam().state).c_str(), GetParam().text);
}

INSTANTIATE_TEST_SUITE_P(
    EachNamedBit, ReaderStateFormat,
    testing::Values(StateAndText{0x0002, "CHANGED:0"}, StateAndText{0x0004, "UNKNOWN:0"},
                    StateAndText{0x0008, "UNAVAILABLE:0"}, StateAndText{0x0010, "EMPTY:0"},
                    StateAndText{0x0020, "PRESENT:0"}, StateAndText{0x0040, "ATRMATCH:0"},
                    StateAndText{0x0080, "EXCLUSIVE:0"}, StateAndText{0x0100, "INUSE:0"},
                    StateAndText{0x0200, "MUTE:0"}, StateAndText{0x0400, "UNPOWERED:0"}));

INSTANTIATE_TEST_SUITE_P(
    Combinations, ReaderStateFormat,
    testing::Values(StateAndText{0x00000022, "CHANGED|PRESENT:0"},
                    StateAndText{0x00010012, "CHANGED|EMPTY:10000"}, StateAndText{0x0001, ":1"},
                    StateAndText{0, ":0"}, StateAndText{0x0800, ":800"},
                    StateAndText{0xABCD0001, ":abcd0001"},
                    StateAndText{0xFFFFFFFF,
                                 "CHANGED|UNKNOWN|UNAVAILABLE|EMPTY|PRESENT|ATRMATCH|EXCLUSIVE|"
                                 "INUSE|MUTE|UNPOWERED:fffff801"}));

TEST(ReaderStateText, OfTwoStatesStandsInOneLine) {
    const std::string line =
        std::string(formatReaderState(0x10).c_str()) + " to " + formatReaderState(0x22).c_str();
    EXPECT_EQ(line, "EMPTY:0 to CHANGED|PRESENT:0");
}
