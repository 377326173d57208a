// How a log's text becomes lines, also where the lines of several threads stand in each other.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "log/line_parser.h"

namespace tez::client {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

std::string prefix(const std::string& time, int thread, const std::string& function) {
    return "D " + time + " 4120:" + std::to_string(thread) + " TEZ (" + function + "): ";
}

std::string connectPrefix() {
    return prefix("Nov 15 23:13:00:000001", 1, "SCardConnectA");
}
std::string transmitPrefix() {
    return prefix("Nov 15 23:13:00:000002", 2, "SCardTransmit");
}

/// Both functions' operations, from lines that stand alone.
std::string clearLines() {
    return connectPrefix() + "SCARD_CONNECT RV: 0x00000000\n" + transmitPrefix() +
           "TRANSMIT RV: 0x00000000\n";
}

/// The lines of a text behind those that are clear, as "thread message", with a ? for a guess.
std::vector<std::string> tornLines(const std::string& text) {
    LineParser parser;
    EXPECT_THAT(parser.take(clearLines()), SizeIs(2));
    std::vector<std::string> lines;
    for (const LogLine& line : parser.take(text)) {
        lines.push_back(line.isContinuation ? "... " + line.message
                                            : std::to_string(line.prefix.thread) + " " +
                                                  line.message + (line.isGuess ? " ?" : ""));
    }
    return lines;
}

TEST(LogLinesTest, TakesAPrefixApart) {
    const auto found =
        findPrefix("W Feb 29 01:02:03:000004 12:345 TEZ (DaemonConnectionTEZ::connect): text");
    ASSERT_TRUE(found);
    EXPECT_EQ(found->position, 0U);
    EXPECT_EQ(found->prefix.level, 'W');
    EXPECT_EQ(found->prefix.process, 12U);
    EXPECT_EQ(found->prefix.thread, 345U);
    EXPECT_EQ(found->prefix.function, "DaemonConnectionTEZ::connect");
    EXPECT_EQ(formatLogTime(found->prefix.time), "Feb 29 01:02:03.000004");
}

TEST(LogLinesTest, FindsNoPrefixInOtherText) {
    for (const char* text :
         {"", "D ", "D Nov", "D Nov 15 23:13:00:000001 1:2 TEZ (SCardConnectA)",
          "D Nvo 15 23:13:00:000001 1:2 TEZ (f): ", "D Nov 15 23:13:00 1:2 TEZ (f): ",
          "X Nov 15 23:13:00:000001 1:2 TEZ (f): ", "reader named D Nov 15"}) {
        EXPECT_FALSE(findPrefix(text)) << text;
    }
}

TEST(LogLinesTest, FindsNoPrefixWithATimeThatThereIsNot) {
    for (const char* time :
         {"Nov 0 23:13:00:000001", "Nov 32 23:13:00:000001", "Nov 4294967295 23:13:00:000001",
          "Nov 15 24:13:00:000001", "Nov 15 4294967295:13:00:000001", "Nov 15 23:60:00:000001",
          "Nov 15 23:13:60:000001", "Nov 15 23:13:00:1000000"}) {
        EXPECT_FALSE(findPrefix(prefix(time, 1, "f"))) << time;
    }
    EXPECT_TRUE(findPrefix(prefix("Dec 31 23:59:59:999999", 1, "f")));
}

TEST(LogLinesTest, TakesTextInAnyPieces) {
    const std::string text = clearLines();
    LineParser parser;
    std::vector<std::string> messages;
    for (const char character : text) {
        for (const LogLine& line : parser.take(std::string_view(&character, 1))) {
            messages.push_back(line.message);
        }
    }
    EXPECT_THAT(messages, ElementsAre("SCARD_CONNECT RV: 0x00000000", "TRANSMIT RV: 0x00000000"));
}

TEST(LogLinesTest, TakesALastLineWithoutAnEnd) {
    LineParser parser;
    EXPECT_THAT(parser.take(transmitPrefix() + "TRANSMIT R"), IsEmpty());
    const std::vector<LogLine> rest = parser.finish();
    ASSERT_THAT(rest, SizeIs(1));
    EXPECT_EQ(rest[0].message, "TRANSMIT R");
    EXPECT_THAT(parser.finish(), IsEmpty());
}

TEST(LogLinesTest, KeepsTheSecondLineOfAMessage) {
    EXPECT_THAT(tornLines(connectPrefix() + "first\r\n    second\r\n"),
                ElementsAre("1 first", "...     second"));
}

TEST(LogLinesTest, GivesMessagesToThePrefixesOfTheirFunctions) {
    const std::string connect = "SCARD_CONNECT RV: 0x8010000C";
    const std::string transmit = "TRANSMIT RV: 0x00000001";
    const auto both = testing::UnorderedElementsAre(testing::StartsWith("1 " + connect),
                                                    testing::StartsWith("2 " + transmit));
    // Two lines are six pieces; these are orders in which they can come.
    EXPECT_THAT(tornLines(connectPrefix() + transmitPrefix() + transmit + "\n" + connect + "\n"),
                both);
    EXPECT_THAT(tornLines(connectPrefix() + transmitPrefix() + connect + "\n" + transmit + "\n"),
                both);
    EXPECT_THAT(tornLines(connectPrefix() + transmitPrefix() + connect + transmit + "\n\n"), both);
    EXPECT_THAT(tornLines(transmitPrefix() + connectPrefix() + transmit + connect + "\n\n"), both);
    EXPECT_THAT(tornLines(connectPrefix() + connect + transmitPrefix() + "\n" + transmit + "\n"),
                both);
    EXPECT_THAT(tornLines(transmitPrefix() + connectPrefix() + connect + "\n" + transmit + "\n"),
                both);
}

TEST(LogLinesTest, SaysThatItGuesses) {
    EXPECT_THAT(tornLines(connectPrefix() + transmitPrefix() + "one\n" + "two\n"),
                ElementsAre("2 one ?", "1 two"));
    EXPECT_THAT(tornLines(connectPrefix() + "one\n"), ElementsAre("1 one"));
}

TEST(LogLinesTest, GoesOnIntoANewYear) {
    LineParser parser;
    const std::vector<LogLine> lines =
        parser.take(prefix("Dec 31 23:59:59:999999", 1, "f") + "old\n" +
                    prefix("Jan 01 00:00:00:000001", 1, "f") + "new\n");
    ASSERT_THAT(lines, SizeIs(2));
    EXPECT_EQ(lines[1].prefix.time - lines[0].prefix.time, 2);
    EXPECT_EQ(formatLogTime(lines[1].prefix.time), "Jan 01 00:00:00.000001");
}

TEST(LogLinesTest, LosesNothingOfAnyText) {
    // Where it begins in the middle of a line, too.
    const std::string text = clearLines() + connectPrefix() + transmitPrefix() + "\n\n\xFF\n";
    for (std::size_t cut = 0; cut + 2 < text.size(); ++cut) {
        LineParser parser;
        std::vector<LogLine> lines = parser.take(text.substr(cut));
        const std::vector<LogLine> rest = parser.finish();
        lines.insert(lines.end(), rest.begin(), rest.end());
        ASSERT_FALSE(lines.empty());
        EXPECT_EQ(lines.back().message, "\xFF") << cut;
    }
}

}  // namespace
}  // namespace tez::client
