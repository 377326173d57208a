#include "log/timestamp.h"

#include <gtest/gtest.h>
#include <string>

#include "stdio_spy.h"

using namespace tez;

namespace {

FILETIME fileTime(WORD year, WORD month, WORD day, WORD hour, WORD minute, WORD second,
                  ULONGLONG ticks) {
    SYSTEMTIME split = {};
    split.wYear = year;
    split.wMonth = month;
    split.wDay = day;
    split.wHour = hour;
    split.wMinute = minute;
    split.wSecond = second;
    FILETIME time = {};
    EXPECT_TRUE(SystemTimeToFileTime(&split, &time));
    ULARGE_INTEGER sum;
    sum.LowPart = time.dwLowDateTime;
    sum.HighPart = time.dwHighDateTime;
    sum.QuadPart += ticks;
    return {sum.LowPart, sum.HighPart};
}

std::string textOf(const FILETIME& time) {
    char text[kTimestampSize];
    formatTimestamp(time, text);
    return text;
}

}  // namespace

TEST(Timestamp, ShowsMonthDayTimeAndMicroseconds) {
    EXPECT_EQ(textOf(fileTime(2023, 11, 15, 23, 13, 0, 1234560)), "Nov 15 23:13:00:123456");
}

TEST(Timestamp, PadsEveryNumber) {
    EXPECT_EQ(textOf(fileTime(2024, 3, 1, 2, 3, 4, 50)), "Mar 01 02:03:04:000005");
}

TEST(Timestamp, CutsTheLastDigitOfTheClock) {
    EXPECT_EQ(textOf(fileTime(2024, 3, 1, 2, 3, 4, 19)), "Mar 01 02:03:04:000001");
}

TEST(Timestamp, CountsMicrosecondsUpToTheNextSecond) {
    EXPECT_EQ(textOf(fileTime(2024, 3, 1, 2, 3, 4, 9999999)), "Mar 01 02:03:04:999999");
    EXPECT_EQ(textOf(fileTime(2024, 3, 1, 2, 3, 4, 10000000)), "Mar 01 02:03:05:000000");
}

TEST(Timestamp, KnowsTheLeapDay) {
    EXPECT_EQ(textOf(fileTime(2024, 2, 28, 23, 59, 59, 10000000)), "Feb 29 00:00:00:000000");
    EXPECT_EQ(textOf(fileTime(2023, 2, 28, 23, 59, 59, 10000000)), "Mar 01 00:00:00:000000");
}

TEST(Timestamp, TurnsTheYearWithoutShowingIt) {
    EXPECT_EQ(textOf(fileTime(2025, 12, 31, 23, 59, 59, 9999990)), "Dec 31 23:59:59:999999");
    EXPECT_EQ(textOf(fileTime(2026, 1, 1, 0, 0, 0, 0)), "Jan 01 00:00:00:000000");
}

TEST(Timestamp, NamesEveryMonth) {
    static constexpr const char* kNames[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                             "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    WORD month = 1;
    for (const char* const name : kNames) {
        EXPECT_EQ(textOf(fileTime(2026, month, 7, 1, 2, 3, 0)),
                  std::string(name) + " 07 01:02:03:000000");
        ++month;
    }
}

TEST(Timestamp, BeginsWithTheEpochOfThePlatform) {
    EXPECT_EQ(textOf(FILETIME{0, 0}), "Jan 01 00:00:00:000000");
}

TEST(Timestamp, TellsAMonthThatItCannotInterpretAndLeavesTheNameOut) {
    const test::StdioSpy stdio(GetModuleHandleA(nullptr));
    // The platform splits no time beyond the signed range.
    const std::string text = textOf(FILETIME{0, 0x80000000});
    EXPECT_EQ(stdio.standardError(), "Could not interpret month 0");
    EXPECT_EQ(text.substr(0, 13), " 00 00:00:00:");
}
