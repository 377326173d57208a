#include "log/switches.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <optional>
#include <string>

#include "captured_stderr.h"

using namespace tez;
using test::CapturedLog;
using test::setEnvironment;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr FunctionLog kSwitchLog("aFunction");
constexpr const char* kRedirection = "TEZ_PCSC_ENABLE_ALL_CALLS_REDIRECTION";

std::optional<bool> switchFor(const std::string& value) {
    setEnvironment("TEZ_TEST_SWITCH", value);
    return readSwitch(kSwitchLog, "TEZ_TEST_SWITCH");
}

struct SwitchValue {
    const char* text;
    bool expected;
};

void PrintTo(const SwitchValue& value, std::ostream* stream) {
    *stream << "'" << value.text << "'";
}

class SwitchRule : public testing::TestWithParam<SwitchValue> {};

}  // namespace

TEST_P(SwitchRule, DecidesByTheText) {
    const CapturedLog log;
    EXPECT_EQ(switchFor(GetParam().text), std::optional(GetParam().expected));
    EXPECT_THAT(log.messages(),
                ElementsAre(std::string("D (aFunction): TEZ_TEST_SWITCH = ") + GetParam().text));
}

INSTANTIATE_TEST_SUITE_P(Values, SwitchRule,
                         testing::Values(SwitchValue{"FALSE", false}, SwitchValue{"false", false},
                                         SwitchValue{"FaLsE", false}, SwitchValue{"0", false},
                                         SwitchValue{"0 ", true}, SwitchValue{" 0", true},
                                         SwitchValue{"00", true}, SwitchValue{"1", true},
                                         SwitchValue{"no", true}, SwitchValue{"off", true},
                                         SwitchValue{"TRUE", true}, SwitchValue{"FALSE ", true},
                                         SwitchValue{"FALS", true}),
                         [](const auto& test) { return "Value" + std::to_string(test.index); });

TEST(Switch, IsNotSetWhenAbsent) {
    const CapturedLog log;
    EXPECT_EQ(switchFor(""), std::nullopt);
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST(Switch, TakesAValueOf127Characters) {
    const CapturedLog log;
    EXPECT_EQ(switchFor(std::string(127, 'n')), std::optional(true));
}

TEST(Switch, IsNotSetByAValueOf128Characters) {
    const CapturedLog log;
    EXPECT_EQ(switchFor(std::string(128, 'n')), std::nullopt);
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST(Switch, IsReadAfreshAtEveryCall) {
    const CapturedLog log;
    EXPECT_EQ(switchFor("1"), std::optional(true));
    EXPECT_EQ(switchFor("0"), std::optional(false));
}

TEST(AllCallsRedirection, IsReadOnceAndToldOnce) {
    const CapturedLog log;
    setEnvironment(kRedirection, "yes");
    EXPECT_TRUE(isAllCallsRedirectionEnabled());
    setEnvironment(kRedirection, "0");
    EXPECT_TRUE(isAllCallsRedirectionEnabled());
    EXPECT_THAT(log.messages(), ElementsAre("D (isAllCallsRedirectionEnabled): "
                                            "TEZ_PCSC_ENABLE_ALL_CALLS_REDIRECTION = yes"));
}

TEST(AllCallsRedirection, IsOffWhenTheSwitchSaysSo) {
    const CapturedLog log;
    setEnvironment(kRedirection, "FaLsE");
    EXPECT_FALSE(isAllCallsRedirectionEnabled());
    EXPECT_THAT(log.messages(), ElementsAre("D (isAllCallsRedirectionEnabled): "
                                            "TEZ_PCSC_ENABLE_ALL_CALLS_REDIRECTION = FaLsE"));
}

TEST(AllCallsRedirection, IsOffByDefaultForTheWholeProcess) {
    const CapturedLog log;
    setEnvironment(kRedirection, "");
    EXPECT_FALSE(isAllCallsRedirectionEnabled());
    setEnvironment(kRedirection, "1");
    EXPECT_FALSE(isAllCallsRedirectionEnabled());
    EXPECT_THAT(log.messages(),
                ElementsAre("D (isAllCallsRedirectionEnabled): "
                            "TEZ_PCSC_ENABLE_ALL_CALLS_REDIRECTION is not set, using default (0)"));
}
