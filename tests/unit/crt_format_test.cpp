#include "log/crt_format.h"

#include <cstdarg>
#include <cstdlib>
#include <gtest/gtest.h>
#include <string>

#include "import_patch.h"

using namespace tez;

namespace {

TEZ_PRINTF_FORMAT(2, 3)
std::string formatText(const char* lead, const char* format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    const FormattedText formatted(lead, format, arguments);
    va_end(arguments);
    // The text is NUL-terminated too, wherever it lives.
    EXPECT_EQ(*(formatted.text().data() + formatted.text().size()), '\0');
    return std::string(formatted.text());
}

}  // namespace

TEST(CrtFormat, ReturnsTheLengthOfWhatItWrote) {
    char buffer[16];
    EXPECT_EQ(crtFormat(buffer, sizeof(buffer), "%d-%s", 42, "abc"), 6U);
    EXPECT_STREQ(buffer, "42-abc");
}

TEST(CrtFormat, FillsTheBufferToTheLastCharacter) {
    char buffer[5];
    EXPECT_EQ(crtFormat(buffer, sizeof(buffer), "%s", "abcd"), 4U);
    EXPECT_STREQ(buffer, "abcd");
}

TEST(CrtFormat, CutsAndTerminatesWhatDoesNotFit) {
    char buffer[] = "xxxxx|guard";
    EXPECT_EQ(crtFormat(buffer, 5, "%s", "abcdefgh"), 4U);
    EXPECT_STREQ(buffer, "abcd");
    EXPECT_EQ(buffer[5], '|');
}

TEST(CrtFormat, PrintsPointersInSixteenUpperCaseDigits) {
    char buffer[64];
    // NOLINTNEXTLINE(performance-no-int-to-ptr): printed, never used
    crtFormat(buffer, sizeof(buffer), "%p", reinterpret_cast<void*>(std::uintptr_t{0xABCDEF0123}));
    EXPECT_STREQ(buffer, "000000ABCDEF0123");
}

TEST(CrtFormat, PrintsHandlesInHexadecimalOfTheirFullWidth) {
    char buffer[64];
    crtFormat(buffer, sizeof(buffer), "%Ix", std::size_t{0x1234567890ABCDEF});
    EXPECT_STREQ(buffer, "1234567890abcdef");
}

TEST(CrtFormat, PrintsSixtyFourBitNumbers) {
    char buffer[64];
    crtFormat(buffer, sizeof(buffer), "%llu", 18446744073709551615ULL);
    EXPECT_STREQ(buffer, "18446744073709551615");
}

TEST(CrtFormat, PrintsANullTextAsTheWordNull) {
    char buffer[64];
    const char* const none = nullptr;
    crtFormat(buffer, sizeof(buffer), "<%s>", none);
    EXPECT_STREQ(buffer, "<(null)>");
}

TEST(FormattedText, PutsTheLeadInFrontUnformatted) {
    EXPECT_EQ(formatText("100%s ", "%d", 7), "100%s 7");
}

TEST(FormattedText, IsEmptyForAnEmptyFormat) {
    EXPECT_EQ(formatText("", "%s", ""), "");
}

TEST(FormattedText, KeepsWholeEveryLengthAroundTheInlineRoom) {
    for (std::size_t length = 505; length <= 520; ++length) {
        const std::string body(length, 'm');
        EXPECT_EQ(formatText("lead:", "%s", body.c_str()), "lead:" + body) << length;
    }
}

TEST(FormattedText, KeepsALongMessageWhole) {
    const std::string body(100000, 'x');
    EXPECT_EQ(formatText("lead ", "<%s>", body.c_str()), "lead <" + body + ">");
}

TEST(FormattedText, KeepsALongLeadWhole) {
    const std::string lead(2000, 'l');
    EXPECT_EQ(formatText(lead.c_str(), "%d", 5), lead + "5");
}

TEST(FormattedText, IsCutToTheInlineRoomWhenThereIsNoMemoryForMore) {
    const std::string body(1000, 'x');
    const std::string cut = "lead " + std::string(506, 'x');
    const test::ImportPatch<void*(std::size_t)> malloc(
        GetModuleHandleA(nullptr), "msvcrt.dll", "malloc", [most = body.size()](std::size_t size) {
            return size > most ? nullptr : std::calloc(1, size);
        });
    EXPECT_EQ(formatText("lead ", "%s", body.c_str()), cut);
}
