// How processes that use the library end, and how the library is loaded and unloaded. Every test
// starts a process of its own, which ends in the way that its argument says.
#include "child_process.h"
#include "system_test.h"

namespace tez::test {
namespace {

using testing::Optional;
using testing::StrEq;

constexpr DWORD kEndedByItself = 7;

class LifecycleTest : public SystemTest {
  protected:
    /// Reads the program's word that it is where it is to end.
    static void expectReady(ChildProcess& child) {
        ASSERT_THAT(child.readLine(), Optional(StrEq("ready")));
    }

    /// Lets the program end.
    static void expectEnd(ChildProcess& child) {
        child.writeLine("go on");
        EXPECT_THAT(child.waitForEnd(kPatience), Optional(kEndedByItself));
    }

    static void expectReadyAndEnd(const std::string& ending) {
        ChildProcess child("victim.exe", ending);
        expectReady(child);
        expectEnd(child);
    }
};

TEST_F(LifecycleTest, EndsWithAReturnFromMainWhileTheDaemonIsAway) {
    expectReadyAndEnd("return");
}

TEST_F(LifecycleTest, EndsWithAReturnFromMainWhileTheDaemonIsWatched) {
    daemon.start();
    expectReadyAndEnd("return");
}

TEST_F(LifecycleTest, EndsInTheMiddleOfAWaitOnTheHost) {
    expectReadyAndEnd("wait");
}

TEST_F(LifecycleTest, EndsInTheMiddleOfAWaitOnBothSides) {
    daemon.start();
    ChildProcess child("victim.exe", "wait");
    expectReady(child);
    ASSERT_TRUE(remote.waitForStatusWaits(1, kPatience));
    expectEnd(child);
}

TEST_F(LifecycleTest, EndsInTheMiddleOfATransmitThatIsNotAnswered) {
    daemon.start();
    remote.holdCommands(kRemoteReader);
    ChildProcess child("victim.exe", "transmit");
    expectReady(child);
    ASSERT_TRUE(remote.waitForHeldCommands(1, kPatience));
    expectEnd(child);
    remote.releaseCommands(kRemoteReader);
}

TEST_F(LifecycleTest, EndsWhileManyThreadsCall) {
    daemon.start();
    ChildProcess child("victim.exe", "busy-threads");
    expectReady(child);
    ASSERT_TRUE(daemon.waitForRequest(Command::kListReaders, 50, kPatience));
    expectEnd(child);
}

TEST_F(LifecycleTest, EndsWhileManyThreadsCallTheHostAlone) {
    expectReadyAndEnd("busy-threads");
}

TEST_F(LifecycleTest, EndsWhileAnotherThreadHoldsTheLockOfTheStartedEvents) {
    expectReadyAndEnd("locked-events");
}

TEST_F(LifecycleTest, EndsAfterAThreadWasTerminatedInTheMiddleOfAWait) {
    daemon.start();
    ChildProcess child("victim.exe", "terminated-thread");
    expectReady(child);
    ASSERT_TRUE(remote.waitForStatusWaits(1, kPatience));
    expectEnd(child);
}

TEST_F(LifecycleTest, EndsByExitProcessOnAnotherThread) {
    daemon.start();
    ChildProcess child("victim.exe", "exit-process");
    expectReady(child);
    ASSERT_TRUE(remote.waitForStatusWaits(1, kPatience));
    expectEnd(child);
}

TEST_F(LifecycleTest, ClosesTheStartedEventAndGivesTheHostsBackOnceAtTheEnd) {
    ChildProcess child("victim.exe", "started-event");
    expectReady(child);
    child.writeLine("go on");
    EXPECT_EQ(child.readRest(), "closed\nreleased\n");
    EXPECT_THAT(child.waitForEnd(kPatience), Optional(kEndedByItself));
}

TEST_F(LifecycleTest, ClosesTheStartedEventOfTheDaemonWithoutTheHost) {
    daemon.start();
    ChildProcess child("victim.exe", "started-event");
    expectReady(child);
    child.writeLine("go on");
    EXPECT_EQ(child.readRest(), "closed\n");
    EXPECT_THAT(child.waitForEnd(kPatience), Optional(kEndedByItself));
}

TEST_F(LifecycleTest, LoadsAndUnloadsWithoutACallAndWithoutAThread) {
    expectReadyAndEnd("unload-unused");
}

TEST_F(LifecycleTest, StaysLoadedAfterCallsAndServesTheNextUse) {
    daemon.start();
    expectReadyAndEnd("unload-used");
}

TEST_F(LifecycleTest, LosesNothingWhenItIsLoadedForEachCall) {
    setEnvironment("TEZ_PCSC_LOG_DIR", "");
    setEnvironment("TEZ_PCSC_LOG_LEVEL", "error");  // nothing goes to standard error
    expectReadyAndEnd("load-for-each-call");
}

TEST_F(LifecycleTest, LosesNothingWhenItIsLoadedForEachCallAndLogsToAFile) {
    expectReadyAndEnd("load-for-each-call");
}

TEST_F(LifecycleTest, ServesSeveralApplicationsInTheSameWay) {
    daemon.start();
    ChildProcess first("victim.exe", "list-and-wait");
    ChildProcess second("victim.exe", "list-and-wait");
    ChildProcess third("victim.exe", "list-and-wait");
    ChildProcess* const all[] = {&first, &second, &third};
    for (ChildProcess* child : all) {
        EXPECT_THAT(child->readLine(), Optional(StrEq(kRemoteReader)));
        EXPECT_THAT(child->readLine(), Optional(StrEq(kHostReader)));
        EXPECT_THAT(child->readLine(), Optional(StrEq("")));
        expectReady(*child);
        child->writeLine("go on");
    }
    ASSERT_TRUE(remote.waitForStatusWaits(3, kPatience));
    for (ChildProcess* child : all) {
        EXPECT_TRUE(child->isRunning());
    }
    remote.removeCard(kRemoteReader);
    for (ChildProcess* child : all) {
        EXPECT_THAT(child->waitForEnd(kPatience), Optional(kEndedByItself));
    }
}

// What every test with a guarded buffer relies on.
TEST(CrashTest, IsSeenFromOutside) {
    const ChildProcess child("victim.exe", "read-behind");
    EXPECT_THAT(child.waitForEnd(kPatience), Optional(STATUS_ACCESS_VIOLATION));
}

}  // namespace
}  // namespace tez::test
