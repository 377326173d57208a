// Each of the library's threads refused: what wants one ends with its code or does without, and
// works again when there are threads.
#include <thread>

#include "no_threads.h"
#include "status_waits.h"

namespace tez::test {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::StartsWith;

using RefusedThreads = StatusChangeTest;

bool isSet(HANDLE event) {
    return WaitForSingleObject(event, 0) == WAIT_OBJECT_0;
}

TEST_F(RefusedThreads, ForTheHostsHalfEndAWaitBeforeTheDaemonIsAsked) {
    const SCARDCONTEXT context = establishAndList();
    {
        const NoThreads refusing;
        const BackgroundWait wait(context, INFINITE, {unchangedHost(), unchangedRemote()});
        EXPECT_THAT(wait.result(), Gives(SCARD_E_NO_MEMORY));
    }
    const BackgroundWait wait = waitOnBothSides(context);
    EXPECT_EQ(daemon.requests(Command::kGetStatusChange).size(), 1U) << "of this wait";
    EXPECT_THAT(SCardCancel(context), Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(wait.result(), Gives(SCARD_E_CANCELLED));
}

TEST_F(RefusedThreads, ForTheMonitorAreAskedForByTheNextCall) {
    startDaemon();
    SCARDCONTEXT context = 0;
    {
        const NoThreads refusing;
        context = establish();
    }
    EXPECT_THAT(log().messages("ensurePollThreadStarted", 'W'),
                ElementsAre("Failed to start the poll thread"));
    EXPECT_THAT(listReaders(context), Contains(kRemoteReader));
    establish();
    waitForWatch();
}

TEST_F(RefusedThreads, ForAStartedEventAreAskedForByTheNextAccess) {
    establish();
    {
        const NoThreads refusing;
        EXPECT_EQ(SCardAccessStartedEvent(), nullptr);
    }
    EXPECT_THAT(log().messages("SCardAccessStartedEvent", 'W'),
                Contains(StartsWith("Failed to start the worker of an event")));
    EXPECT_EQ(host.startedEvent().users(), 0U);
    EXPECT_NE(SCardAccessStartedEvent(), nullptr);
    SCardReleaseStartedEvent();
    EXPECT_EQ(host.startedEvent().users(), 0U);
}

TEST_F(RefusedThreads, ForAStartedEventThatOthersHaveReleasedLeaveNothingOfTheHosts) {
    establish();
    EXPECT_NE(SCardAccessStartedEvent(), nullptr);
    std::thread([] {
        SCardAccessStartedEvent();
        SCardReleaseStartedEvent();
        SCardReleaseStartedEvent();
    }).join();
    {
        const NoThreads refusing;
        EXPECT_EQ(SCardAccessStartedEvent(), nullptr);
    }
    EXPECT_EQ(host.startedEvent().users(), 0U);
}

// An event that nobody keeps up to date must not say that a service runs.
TEST_F(RefusedThreads, ForAStartedEventWhoseDaemonGoesResetIt) {
    establishWithDaemon();
    const HANDLE event = SCardAccessStartedEvent();
    EXPECT_TRUE(isSet(event));
    {
        const NoThreads refusing;
        stopDaemon();
    }
    EXPECT_FALSE(isSet(event));
    SCardReleaseStartedEvent();
    EXPECT_EQ(host.startedEvent().users(), 0U);
}

}  // namespace
}  // namespace tez::test
