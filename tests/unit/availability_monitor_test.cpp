#include "context/availability_monitor.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "captured_stderr.h"

using namespace tez;
using test::CapturedLog;
using testing::ElementsAre;

// What the library does at process detach, where the thread has been stopped already.
TEST(AvailabilityMonitor, StopsItsThreadAfterThePassThatIsUnderWay) {
    const CapturedLog log;
    ensurePollThreadStarted();
    stopPollThread();
    stopPollThread();  // nothing is left to wait for
    std::vector<std::string> own;
    for (const std::string& message : log.messages()) {
        if (message.find("(pollServiceAvailability)") != std::string::npos) {
            own.push_back(message);
        }
    }
    EXPECT_THAT(own,
                ElementsAre("D (pollServiceAvailability): Started poll thread for protocol pipe",
                            "D (pollServiceAvailability): Stopped poll thread protocol pipe"));
}
