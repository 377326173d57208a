#include "log/switches.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <optional>
#include <string>

#include "environment.h"
#include "log_matchers.h"

using namespace tez;
using test::FreshLog;
using test::LogLine;
using test::setEnvironment;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

namespace {

constexpr FunctionLog kSwitchLog("aFunction");
constexpr const char* kRedirection = "TEZ_PCSC_ENABLE_ALL_CALLS_REDIRECTION";
constexpr const char* kStandardCalls = "TEZ_PCSC_STANDARD_CALLS";

constinit Switch theSwitch("TEZ_TEST_SWITCH");

std::optional<bool> switchFor(const std::string& value) {
    setEnvironment("TEZ_TEST_SWITCH", value);
    return theSwitch.read(kSwitchLog);
}

/// What the log tells of a value that is probably a mistake.
auto warning(const std::string& value, const std::string& consequence) {
    return LogLine(
        'W', "settings",
        "TEZ_TEST_SWITCH is neither 0 or false nor 1 or true but '" + value + "': " + consequence);
}

struct SwitchValue {
    const char* text;
    bool expected;
    bool isUnderstood = true;
};

void PrintTo(const SwitchValue& value, std::ostream* stream) {
    *stream << "'" << value.text << "'";
}

class SwitchRule : public testing::TestWithParam<SwitchValue> {};

}  // namespace

TEST_P(SwitchRule, DecidesByTheText) {
    const FreshLog log;
    EXPECT_EQ(switchFor(GetParam().text), std::optional(GetParam().expected));
    std::vector<testing::Matcher<test::LogEntry>> expected{
        LogLine('D', "aFunction", std::string("TEZ_TEST_SWITCH = ") + GetParam().text)};
    if (!GetParam().isUnderstood) {
        expected.emplace_back(warning(GetParam().text, "it counts as 1"));
    }
    EXPECT_THAT(log.entries(), ElementsAreArray(expected));
}

INSTANTIATE_TEST_SUITE_P(
    Values, SwitchRule,
    testing::Values(SwitchValue{"FALSE", false}, SwitchValue{"false", false},
                    SwitchValue{"FaLsE", false}, SwitchValue{"0", false},
                    SwitchValue{"0 ", true, false}, SwitchValue{" 0", true, false},
                    SwitchValue{"00", true, false}, SwitchValue{"1", true},
                    SwitchValue{"no", true, false}, SwitchValue{"off", true, false},
                    SwitchValue{"TRUE", true}, SwitchValue{"true", true},
                    SwitchValue{"FALSE ", true, false}, SwitchValue{"FALS", true, false}),
    [](const auto& test) { return "Value" + std::to_string(test.index); });

TEST(Switch, IsNotSetWhenAbsent) {
    const FreshLog log;
    EXPECT_EQ(switchFor(""), std::nullopt);
    EXPECT_THAT(log.entries(), IsEmpty());
}

TEST(Switch, TakesAValueOf127Characters) {
    const FreshLog log;
    EXPECT_EQ(switchFor(std::string(127, 'n')), std::optional(true));
}

TEST(Switch, IsNotSetByAValueOf128Characters) {
    const FreshLog log;
    EXPECT_EQ(switchFor(std::string(128, 'n')), std::nullopt);
    EXPECT_THAT(log.entries(),
                ElementsAre(warning("a text of more than 127 characters", "it counts as not set")));
}

TEST(Switch, IsWarnedOfOnce) {
    const FreshLog log;
    switchFor("no");
    switchFor("off");
    EXPECT_THAT(log.entries(), ElementsAre(LogLine('D', "aFunction", "TEZ_TEST_SWITCH = no"),
                                           warning("no", "it counts as 1"),
                                           LogLine('D', "aFunction", "TEZ_TEST_SWITCH = off")));
}

TEST(Switch, IsReadAfreshAtEveryCall) {
    const FreshLog log;
    EXPECT_EQ(switchFor("1"), std::optional(true));
    EXPECT_EQ(switchFor("0"), std::optional(false));
}

TEST(AllCallsRedirection, IsReadOnceAndToldOnce) {
    const FreshLog log;
    setEnvironment(kRedirection, "true");
    EXPECT_TRUE(isAllCallsRedirectionEnabled());
    setEnvironment(kRedirection, "0");
    EXPECT_TRUE(isAllCallsRedirectionEnabled());
    EXPECT_THAT(log.entries(),
                ElementsAre(LogLine('D', "isAllCallsRedirectionEnabled",
                                    "TEZ_PCSC_ENABLE_ALL_CALLS_REDIRECTION = true")));
}

TEST(AllCallsRedirection, IsOffWhenTheSwitchSaysSo) {
    const FreshLog log;
    setEnvironment(kRedirection, "FaLsE");
    EXPECT_FALSE(isAllCallsRedirectionEnabled());
    EXPECT_THAT(log.entries(),
                ElementsAre(LogLine('D', "isAllCallsRedirectionEnabled",
                                    "TEZ_PCSC_ENABLE_ALL_CALLS_REDIRECTION = FaLsE")));
}

TEST(AllCallsRedirection, IsOffByDefaultForTheWholeProcess) {
    const FreshLog log;
    setEnvironment(kRedirection, "");
    EXPECT_FALSE(isAllCallsRedirectionEnabled());
    setEnvironment(kRedirection, "1");
    EXPECT_FALSE(isAllCallsRedirectionEnabled());
    EXPECT_THAT(log.entries(),
                ElementsAre(LogLine(
                    'D', "isAllCallsRedirectionEnabled",
                    "TEZ_PCSC_ENABLE_ALL_CALLS_REDIRECTION is not set, using default (0)")));
}

TEST(StandardCalls, IsReadOnceAndToldOnce) {
    const FreshLog log;
    setEnvironment(kStandardCalls, "true");
    EXPECT_TRUE(isStandardCallsEnabled());
    setEnvironment(kStandardCalls, "0");
    EXPECT_TRUE(isStandardCallsEnabled());
    EXPECT_THAT(log.entries(), ElementsAre(LogLine('D', "isStandardCallsEnabled",
                                                   "TEZ_PCSC_STANDARD_CALLS = true")));
}

TEST(StandardCalls, IsOffWhenTheSwitchSaysSo) {
    const FreshLog log;
    setEnvironment(kStandardCalls, "FaLsE");
    EXPECT_FALSE(isStandardCallsEnabled());
    EXPECT_THAT(log.entries(), ElementsAre(LogLine('D', "isStandardCallsEnabled",
                                                   "TEZ_PCSC_STANDARD_CALLS = FaLsE")));
}

TEST(StandardCalls, IsOffByDefaultForTheWholeProcess) {
    const FreshLog log;
    setEnvironment(kStandardCalls, "");
    EXPECT_FALSE(isStandardCallsEnabled());
    setEnvironment(kStandardCalls, "1");
    EXPECT_FALSE(isStandardCallsEnabled());
    EXPECT_THAT(log.entries(),
                ElementsAre(LogLine('D', "isStandardCallsEnabled",
                                    "TEZ_PCSC_STANDARD_CALLS is not set, using default (0)")));
}
