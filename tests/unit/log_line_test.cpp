#include <windows.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <regex>
#include <string>

#include "environment.h"
#include "log/function_log.h"
#include "log/log_sink.h"
#include "log_matchers.h"
#include "stdio_spy.h"

using namespace tez;
using test::FreshLog;
using test::LogLine;
using test::setEnvironment;
using test::StdioSpy;
using testing::AllOf;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

void logAt(LogLevel level, const char* word, bool echo, const char* text) {
    logMessage("TEZ", level, word, "aCall", echo, "%s", text);
}

}  // namespace

TEST(LogLine, BeginsWithLevelTimeProcessThreadComponentAndFunction) {
    const FreshLog log;
    logMessage("PART", LogLevel::Info, "INFO", "aCall", false, "%d of %s", 1, "two");
    const std::string line = log.text();
    std::smatch parts;
    ASSERT_TRUE(std::regex_match(
        line, parts,
        std::regex(R"((\w) ([A-Z][a-z]{2} \d\d \d\d:\d\d:\d\d:\d{6}) (\d+):(\d+) (.*)\r\n)")))
        << line;
    EXPECT_EQ(parts[1], "I");
    EXPECT_EQ(parts[3], std::to_string(GetCurrentProcessId()));
    EXPECT_EQ(parts[4], std::to_string(GetCurrentThreadId()));
    EXPECT_EQ(parts[5], "PART (aCall): 1 of two");
}

TEST(LogLine, EndsWithALineFeedAlone) {
    const StdioSpy stdio(GetModuleHandleA(nullptr));
    logAt(LogLevel::Warning, "WARNING", false, "text");
    EXPECT_THAT(stdio.standardError(), EndsWith(" text\n"));
}

TEST(LogLine, KeepsMessagesOfSeveralLines) {
    const FreshLog log;
    logAt(LogLevel::Debug, "DEBUG", false, "first\n    second");
    EXPECT_THAT(log.entries(), ElementsAre(LogLine('D', "aCall", "first\n    second")));
}

TEST(LogLine, KeepsLongMessagesWhole) {
    const FreshLog log;
    const std::string text(5000, 'x');
    logAt(LogLevel::Debug, "DEBUG", false, text.c_str());
    EXPECT_THAT(log.entries(), ElementsAre(LogLine('D', "aCall", text)));
}

TEST(LogLine, IsWrittenUpToTheLevelOnly) {
    setEnvironment("TEZ_PCSC_LOG_LEVEL", "info");
    const StdioSpy stdio(GetModuleHandleA(nullptr));
    logAt(LogLevel::Debug, "DEBUG", false, "too detailed");
    EXPECT_EQ(stdio.standardError(), "");
    logAt(LogLevel::Info, "INFO", false, "wanted");
    EXPECT_THAT(stdio.standardError(), HasSubstr("(aCall): wanted\n"));
}

TEST(LogLine, IsEchoedWithItsLevelWordWhateverTheLevel) {
    setEnvironment("TEZ_PCSC_LOG_LEVEL", "warning");
    const StdioSpy stdio(GetModuleHandleA(nullptr));
    logAt(LogLevel::Debug, "DEBUG", true, "told aloud");
    EXPECT_EQ(stdio.standardError(), "DEBUG: told aloud\n");
}

TEST(LogLine, IsEchoedInFrontOfBeingLogged) {
    const StdioSpy stdio(GetModuleHandleA(nullptr));
    logAt(LogLevel::Warning, "WARNING", true, "both");
    EXPECT_THAT(stdio.standardError(),
                AllOf(StartsWith("WARNING: both\nW "), EndsWith(" (aCall): both\n")));
}

TEST(LogLine, WithoutAFormatIsNotWrittenAtAll) {
    const StdioSpy stdio(GetModuleHandleA(nullptr));
    const char* const none = nullptr;
    logMessage("TEZ", LogLevel::Warning, "WARNING", "aCall", true, none);
    EXPECT_EQ(stdio.standardError(), "");
}

TEST(LogLine, ShowsANullTextAsTheWordNull) {
    const FreshLog log;
    const char* const none = nullptr;
    logMessage("TEZ", LogLevel::Warning, "WARNING", "aCall", false, "name %s", none);
    EXPECT_THAT(log.entries(), ElementsAre(LogLine('W', "aCall", "name (null)")));
}

TEST(LogLine, PutsTheLeadInFrontOfTheMessageAsItStands) {
    const FreshLog log;
    // As the call frame does it, with the arguments already collected.
    const auto write = [](const char* format, ...) {
        std::va_list arguments;
        va_start(arguments, format);
        logMessageV("TEZ", LogLevel::Debug, "DEBUG", "aCall", false, "50%d: ", format, arguments);
        va_end(arguments);
    };
    write("%d", 3);
    EXPECT_THAT(log.entries(), ElementsAre(LogLine('D', "aCall", "50%d: 3")));
}

TEST(FunctionLog, WritesEachLevelUnderTheComponentAndItsName) {
    const FreshLog log;
    static constexpr FunctionLog function("aFunction");
    function.debug("detail %d", 1);
    function.info("fact %d", 2);
    function.warning("trouble %d", 3);
    EXPECT_THAT(log.entries(), ElementsAre(LogLine('D', "aFunction", "detail 1"),
                                           LogLine('I', "aFunction", "fact 2"),
                                           LogLine('W', "aFunction", "trouble 3")));
}

TEST(FunctionLog, WritesWarningsButNoDetailsAtTheDefaultLevel) {
    setEnvironment("TEZ_PCSC_LOG_LEVEL", "");
    const StdioSpy stdio(GetModuleHandleA(nullptr));
    static constexpr FunctionLog function("aFunction");
    function.debug("OPERATION IN-PARAMS: %d", 1);
    function.info("fact");
    EXPECT_EQ(stdio.standardError(), "");
    function.warning("Failed to send header");
    EXPECT_THAT(stdio.standardError(), HasSubstr("(aFunction): Failed to send header\n"));
}
