#include "core/text.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace tez::pcscd {
namespace {

using testing::ElementsAre;

TEST(TextTest, BecomesUtf16WithItsNul) {
    EXPECT_THAT(terminatedWide(""), ElementsAre(0, 0));
    EXPECT_THAT(terminatedWide("A\u00E9\u20AC"), ElementsAre('A', 0, 0xE9, 0, 0xAC, 0x20, 0, 0));
    EXPECT_THAT(terminatedWide("\U0001F4B3"), ElementsAre(0x3D, 0xD8, 0xB3, 0xDC, 0, 0));
}

TEST(TextTest, HasAReplacementForWhatIsNoUtf8) {
    const auto isReplaced = ElementsAre(0xFD, 0xFF, 0, 0);
    for (const char* wrong : {"\x80", "\xC3", "\xC0\x80", "\xE0\x80\x80", "\xED\xA0\x80",
                              "\xF8\x88\x80\x80", "\xF4\x90\x80\x80"}) {
        const Bytes wide = terminatedWide(wrong);
        ASSERT_GE(wide.size(), 4U);
        EXPECT_THAT(Bytes(wide.begin(), wide.begin() + 2), ElementsAre(0xFD, 0xFF)) << wrong;
    }
    EXPECT_THAT(terminatedWide("\xC3"), isReplaced);
    EXPECT_THAT(terminatedWide("\xC3"
                               "A"),
                ElementsAre(0xFD, 0xFF, 'A', 0, 0, 0));
}

TEST(TextTest, OfAFieldEndsAtItsNul) {
    const char field[] = {'a', 'b', '\0', 'c'};
    EXPECT_EQ(textIn(field), "ab");
    EXPECT_EQ(textIn(std::span(field).first(2)), std::nullopt);
}

}  // namespace
}  // namespace tez::pcscd
