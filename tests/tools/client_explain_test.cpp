// The client's words for codes, without any reader.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "child_process.h"
#include "patience.h"
#include "simulator_process.h"

namespace tez::test {
namespace {

using testing::HasSubstr;
using testing::Not;
using testing::Optional;
using testing::StartsWith;

std::string explained(const std::string& arguments, DWORD exitCode = 0) {
    ChildProcess client("pcsc-client.exe", "explain " + arguments);
    std::string text = client.readRest();
    EXPECT_THAT(client.waitForEnd(kPatience), Optional(exitCode)) << arguments;
    return text;
}

TEST(ClientExplainTest, TellsWhatAValueIsLikelyToBe) {
    EXPECT_EQ(explained("0x8010000C"),
              "result: SCARD_E_NO_SMARTCARD 0x8010000C, no card in the reader\r\n");
    EXPECT_EQ(explained("8010000C"), explained("SCARD_E_NO_SMARTCARD"));
    // As programs show it that take the code for a signed number.
    EXPECT_EQ(explained("-- -2146435060"), explained("0x8010000C"));
    EXPECT_EQ(explained("6A82"), "status-word: 6A82 file or application not found\r\n");
    EXPECT_EQ(explained("61 0A"), "status-word: 610A success, bytes still to fetch: 10\r\n");
    EXPECT_EQ(explained("0x00010022"), "state: card present, changed, counter 1\r\n");
    EXPECT_THAT(explained("0x00313520"),
                StartsWith("control: smart-card reader, function 3400: the features"));
}

TEST(ClientExplainTest, TakesAnAtrApart) {
    EXPECT_EQ(explained("\"3B 89 01 44 45 4D 4F 20 43 41 52 44 BF\""),
              "atr: T=1; historical bytes \"DEMO CARD\"\r\n"
              "    coding    direct\r\n"
              "    protocols T=1\r\n"
              "    history   \"DEMO CARD\"\r\n"
              "    check     right sum\r\n");
    EXPECT_THAT(explained("3F 96 18 80 01 80 51 00 61 10 30 9F"), HasSubstr("coding    inverse"));
    EXPECT_THAT(explained("3B9611"), HasSubstr("mistake   ends too early"));
    EXPECT_THAT(explained("3B0000"), HasSubstr("mistake   bytes too many: 1"));
    EXPECT_THAT(explained("3B8001FF"), HasSubstr("check     wrong sum"));
    EXPECT_THAT(explained("3B808E010F"), HasSubstr("protocols T=14, T=1\r\n"));
    EXPECT_THAT(explained("3B80810100"), HasSubstr("protocols T=1\r\n"));
    EXPECT_THAT(explained("3B90188080"), HasSubstr("31 clock cycles a bit"));
    EXPECT_THAT(explained("3B8F8001804F0CA000000306030001000000006A"),
                HasSubstr("storage card without contacts, number 0001"));
}

TEST(ClientExplainTest, TakesAValueForWhatItIsToldToBe) {
    EXPECT_EQ(explained("0x22 --as result"), explained("34 --as result"));
    EXPECT_EQ(explained("0x10 --as state"), "state: no card\r\n");
    EXPECT_THAT(explained("1 --as control"), StartsWith("control: device type 0x0000"));
    EXPECT_EQ(explained("nonsense", 1), "");
    EXPECT_EQ(explained("6A82 --as result", 1), "");
    EXPECT_EQ(explained("6A82 --as nonsense", 2), "");
}

TEST(ClientExplainTest, TellsAllThatAnUnclearValueCanBe) {
    const std::string text = explained("0x00000000");
    EXPECT_THAT(text, HasSubstr("result: SCARD_S_SUCCESS"));
    EXPECT_THAT(text, Not(HasSubstr("atr:")));
}

}  // namespace
}  // namespace tez::test
