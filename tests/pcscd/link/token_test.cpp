#include "link/token.h"

#include <algorithm>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>

#include "example_token.h"

using namespace tez::link;
using testing::Optional;
using tez::test::exampleToken;

namespace {

constexpr const char* kRelayLine =
    "relay 000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f\n";
constexpr const char* kAgentLine =
    "agent 606162636465666768696a6b6c6d6e6f707172737475767778797a7b7c7d7e7f\n";
constexpr const char* kTitleLine = "pcsc-link token 1\n";

std::string exampleText() {
    return std::string(kTitleLine) + kRelayLine + kAgentLine;
}

}  // namespace

TEST(Token, IsWrittenAsThreeLines) {
    EXPECT_EQ(formatToken(exampleToken()), exampleText());
}

TEST(Token, IsReadFromItsText) {
    EXPECT_THAT(parseToken(exampleText()), Optional(exampleToken()));
}

TEST(Token, IsReadFromATextThatAnEditorOfWindowsSaved) {
    std::string text;
    for (const char character : exampleText()) {
        text.append(character == '\n' ? " \r\n" : std::string(1, character));
    }
    EXPECT_THAT(parseToken(text + "\r\n"), Optional(exampleToken()));
}

TEST(Token, IsReadWithoutTheLastLinesEndAndInCapitals) {
    std::string text = exampleText();
    text.pop_back();
    std::replace(text.begin() + 30, text.end(), 'f', 'F');
    EXPECT_THAT(parseToken(text), Optional(exampleToken()));
}

TEST(Token, IsNoneWhenAnythingOfTheTextIsMissing) {
    const std::string text = exampleText();
    for (std::size_t length = 0; length + 1 < text.size(); ++length) {
        EXPECT_EQ(parseToken(text.substr(0, length)), std::nullopt) << length;
    }
}

TEST(Token, IsNoneWhenAnyCharacterOfTheTextIsAnother) {
    for (std::size_t i = 0; i + 1 < exampleText().size(); ++i) {
        std::string text = exampleText();
        text[i] = '_';
        EXPECT_EQ(parseToken(text), std::nullopt) << i;
    }
}

TEST(Token, IsNoneWithMoreThanItsLines) {
    EXPECT_EQ(parseToken(exampleText() + "more"), std::nullopt);
    EXPECT_EQ(parseToken(exampleText() + kAgentLine), std::nullopt);
    EXPECT_EQ(parseToken("\n" + exampleText()), std::nullopt);
    EXPECT_EQ(parseToken(exampleText() + '\0'), std::nullopt);
}

TEST(Token, IsNoneWithTheHalvesInTheOtherOrder) {
    EXPECT_EQ(parseToken(std::string(kTitleLine) + kAgentLine + kRelayLine), std::nullopt);
}

TEST(Token, IsNoneWithTwoEqualHalves) {
    Token token = exampleToken();
    token.agent = token.relay;
    EXPECT_EQ(parseToken(formatToken(token)), std::nullopt);
}

TEST(TokenHalf, DiffersFromEachWithOneOtherBit) {
    const TokenHalf half = exampleToken().relay;
    EXPECT_TRUE(isSameHalf(half, exampleToken().relay));
    for (std::size_t bit = 0; bit < 8 * half.size(); ++bit) {
        TokenHalf other = half;
        other[bit / 8] = static_cast<std::uint8_t>(other[bit / 8] ^ 1U << bit % 8);
        EXPECT_FALSE(isSameHalf(half, other)) << bit;
    }
}
