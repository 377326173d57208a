#include "context/availability_monitor.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "log_reader.h"

using namespace tez;
using test::FreshLog;
using testing::ElementsAre;

// What the library does at process detach, where the thread has been stopped already.
TEST(AvailabilityMonitor, StopsItsThreadAfterThePassThatIsUnderWay) {
    const FreshLog log;
    ensurePollThreadStarted();
    stopPollThread();
    stopPollThread();  // nothing is left to wait for
    EXPECT_THAT(
        log.messages("pollServiceAvailability", 'D'),
        ElementsAre("Started poll thread for protocol pipe", "Stopped poll thread protocol pipe"));
}
