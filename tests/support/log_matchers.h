// GoogleMock matchers that tell what a log holds when an expectation on it fails.
#pragma once

#include <gmock/gmock.h>
#include <string>

#include "log_reader.h"

namespace tez::test {

/// Matches one entry by its level letter, its function and its message (a string or a matcher):
///
///     EXPECT_THAT(log().entries(), Contains(LogLine('W', "SCardConnectA", HasSubstr("NULL"))));
template <class Message>
auto LogLine(char level, const std::string& function, const Message& message) {
    return testing::AllOf(testing::Field("level", &LogEntry::level, level),
                          testing::Field("component", &LogEntry::component, "TEZ"),
                          testing::Field("function", &LogEntry::function, function),
                          testing::Field("message", &LogEntry::message, message));
}

}  // namespace tez::test
