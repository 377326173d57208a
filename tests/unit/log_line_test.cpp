#include <windows.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <regex>
#include <string>

#include "captured_stderr.h"
#include "log/function_log.h"
#include "log/log_sink.h"

using namespace tez;
using test::CapturedLog;
using test::CapturedStderr;
using test::setEnvironment;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

void logAt(LogLevel level, const char* word, bool echo, const char* text) {
    logMessage("TEZ", level, word, "aCall", echo, "%s", text);
}

}  // namespace

TEST(LogLine, BeginsWithLevelTimeProcessThreadComponentAndFunction) {
    const CapturedLog log;
    logMessage("PART", LogLevel::Info, "INFO", "aCall", false, "%d of %s", 1, "two");
    ASSERT_EQ(log.lines().size(), 1U);
    const std::string line = log.lines()[0];
    std::smatch parts;
    ASSERT_TRUE(std::regex_match(
        line, parts,
        std::regex(R"((\w) ([A-Z][a-z]{2} \d\d \d\d:\d\d:\d\d:\d{6}) (\d+):(\d+) (.*))")))
        << line;
    EXPECT_EQ(parts[1], "I");
    EXPECT_EQ(parts[3], std::to_string(GetCurrentProcessId()));
    EXPECT_EQ(parts[4], std::to_string(GetCurrentThreadId()));
    EXPECT_EQ(parts[5], "PART (aCall): 1 of two");
}

TEST(LogLine, EndsWithALineFeedAlone) {
    const CapturedStderr output;
    logAt(LogLevel::Warning, "WARNING", false, "text");
    EXPECT_EQ(output.text().substr(output.text().size() - 6), " text\n");
}

TEST(LogLine, KeepsMessagesOfSeveralLines) {
    const CapturedLog log;
    logAt(LogLevel::Debug, "DEBUG", false, "first\n    second");
    EXPECT_THAT(log.messages(), ElementsAre("D (aCall): first", "    second"));
}

TEST(LogLine, KeepsLongMessagesWhole) {
    const CapturedLog log;
    const std::string text(5000, 'x');
    logAt(LogLevel::Debug, "DEBUG", false, text.c_str());
    EXPECT_THAT(log.messages(), ElementsAre("D (aCall): " + text));
}

TEST(LogLine, IsWrittenUpToTheLevelOnly) {
    setEnvironment("TEZ_PCSC_LOG_LEVEL", "info");
    const CapturedStderr output;
    logAt(LogLevel::Debug, "DEBUG", false, "too detailed");
    EXPECT_EQ(output.text(), "");
    logAt(LogLevel::Info, "INFO", false, "wanted");
    EXPECT_NE(output.text().find("(aCall): wanted\n"), std::string::npos);
}

TEST(LogLine, IsEchoedWithItsLevelWordWhateverTheLevel) {
    setEnvironment("TEZ_PCSC_LOG_LEVEL", "warning");
    const CapturedStderr output;
    logAt(LogLevel::Debug, "DEBUG", true, "told aloud");
    EXPECT_EQ(output.text(), "DEBUG: told aloud\n");
}

TEST(LogLine, IsEchoedInFrontOfBeingLogged) {
    const CapturedLog log;
    logAt(LogLevel::Warning, "WARNING", true, "both");
    EXPECT_THAT(log.messages(), ElementsAre("WARNING: both", "W (aCall): both"));
}

TEST(LogLine, WithoutAFormatIsNotWrittenAtAll) {
    const CapturedLog log;
    const char* const none = nullptr;
    logMessage("TEZ", LogLevel::Warning, "WARNING", "aCall", true, none);
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST(LogLine, ShowsANullTextAsTheWordNull) {
    const CapturedLog log;
    const char* const none = nullptr;
    logMessage("TEZ", LogLevel::Warning, "WARNING", "aCall", false, "name %s", none);
    EXPECT_THAT(log.messages(), ElementsAre("W (aCall): name (null)"));
}

TEST(LogLine, PutsTheLeadInFrontOfTheMessageAsItStands) {
    const CapturedLog log;
    // As the call frame does it, with the arguments already collected.
    const auto write = [](const char* format, ...) {
        std::va_list arguments;
        va_start(arguments, format);
        logMessageV("TEZ", LogLevel::Debug, "DEBUG", "aCall", false, "50%d: ", format, arguments);
        va_end(arguments);
    };
    write("%d", 3);
    EXPECT_THAT(log.messages(), ElementsAre("D (aCall): 50%d: 3"));
}

TEST(FunctionLog, WritesEachLevelUnderTheComponentAndItsName) {
    const CapturedLog log;
    static constexpr FunctionLog function("aFunction");
    function.debug("detail %d", 1);
    function.info("fact %d", 2);
    function.warning("trouble %d", 3);
    EXPECT_THAT(log.messages(), ElementsAre("D (aFunction): detail 1", "I (aFunction): fact 2",
                                            "W (aFunction): trouble 3"));
    EXPECT_NE(log.lines()[0].find(" TEZ (aFunction)"), std::string::npos);
}

TEST(FunctionLog, WritesWarningsButNoDetailsAtTheDefaultLevel) {
    setEnvironment("TEZ_PCSC_LOG_LEVEL", "");
    const CapturedStderr output;
    static constexpr FunctionLog function("aFunction");
    function.debug("OPERATION IN-PARAMS: %d", 1);
    function.info("fact");
    EXPECT_EQ(output.text(), "");
    function.warning("Failed to send header");
    EXPECT_NE(output.text().find("(aFunction): Failed to send header\n"), std::string::npos);
}
