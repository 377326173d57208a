#include "log/call_frame.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <new>
#include <stdexcept>

#include "log_matchers.h"

using namespace tez;
using test::FreshLog;
using test::LogLine;
using testing::ElementsAre;

namespace {

constexpr CallFrame kCall("SCardSomething", "SOMETHING");

}  // namespace

TEST(CallFrame, LogsWhatCameInWhatWentOutAndTheResult) {
    const FreshLog log;
    kCall.in("%lu, %s", 7UL, "name");
    EXPECT_EQ(kCall.run([] { return SCARD_S_SUCCESS; }, [] { kCall.out("%d", 5); }),
              SCARD_S_SUCCESS);
    EXPECT_THAT(log.entries(),
                ElementsAre(LogLine('D', "SCardSomething", "SOMETHING IN-PARAMS: 7, name"),
                            LogLine('D', "SCardSomething", "SOMETHING OUT-PARAMS: 5"),
                            LogLine('D', "SCardSomething", "SOMETHING RV: 0x00000000")));
}

TEST(CallFrame, LogsNoOutputsOfAFailure) {
    const FreshLog log;
    EXPECT_EQ(kCall.run([] { return SCARD_E_NO_SERVICE; }, [] { kCall.out("%d", 5); }),
              SCARD_E_NO_SERVICE);
    EXPECT_THAT(log.entries(),
                ElementsAre(LogLine('D', "SCardSomething", "SOMETHING RV: 0x8010001D")));
}

TEST(CallFrame, TurnsExhaustedMemoryIntoItsCode) {
    const FreshLog log;
    EXPECT_EQ(kCall.run([]() -> LONG { throw std::bad_alloc(); }), SCARD_E_NO_MEMORY);
    EXPECT_THAT(log.entries(),
                ElementsAre(LogLine('D', "SCardSomething", "SOMETHING RV: 0x80100006")));
}

TEST(CallFrame, TurnsAnyOtherErrorIntoAnInternalOneAndTellsIt) {
    const FreshLog log;
    EXPECT_EQ(kCall.run([]() -> LONG { throw std::runtime_error("out of order"); }),
              SCARD_F_INTERNAL_ERROR);
    EXPECT_THAT(log.entries(),
                ElementsAre(LogLine('W', "SCardSomething", "Unexpected error: out of order"),
                            LogLine('D', "SCardSomething", "SOMETHING RV: 0x80100001")));
}

TEST(CallFrame, KeepsItsResultWhenTheOutputsCannotBeLogged) {
    const FreshLog log;
    EXPECT_EQ(kCall.run([] { return SCARD_S_SUCCESS; }, []() -> void { throw std::bad_alloc(); }),
              SCARD_S_SUCCESS);
    EXPECT_THAT(log.entries(),
                ElementsAre(LogLine('W', "SCardSomething", "Out of memory while logging"),
                            LogLine('D', "SCardSomething", "SOMETHING RV: 0x00000000")));
}

TEST(CallFrame, ShowsAnUpdatesResultInDecimal) {
    const FreshLog log;
    constexpr CallFrame kUpdate("SCardUpdate", "SOME UPDATE", ResultFormat::Decimal);
    EXPECT_EQ(kUpdate.run([]() -> LONG { return SCARD_E_INVALID_HANDLE; }), SCARD_E_INVALID_HANDLE);
    EXPECT_THAT(log.entries(),
                ElementsAre(LogLine('D', "SCardUpdate", "SOME UPDATE RV: -2146435069")));
}
