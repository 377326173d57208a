// SCardAccessStartedEvent and SCardReleaseStartedEvent: the library's event stands for a usable
// service, the daemon's or the host's.
#include <atomic>
#include <mutex>
#include <set>
#include <thread>

#include "handle_spy.h"
#include "import_patch.h"
#include "latch.h"
#include "system_test.h"

namespace tez::test {
namespace {

using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Return;
using testing::StartsWith;

constexpr const char* kAccess = "SCardAccessStartedEvent";
constexpr const char* kRelease = "SCardReleaseStartedEvent";

class StartedEventTest : public SystemTest {
  protected:
    static bool isSet(HANDLE event) { return WaitForSingleObject(event, 0) == WAIT_OBJECT_0; }
    /// As the library left it: another thread of the process may have got the number since.
    bool isOpen(HANDLE event) const { return !handles_.wasClosed(event); }
    /// Waits for the event, kPatience at most.
    static bool becomesSet(HANDLE event) {
        const std::chrono::milliseconds patience = kPatience;
        return WaitForSingleObject(event, static_cast<DWORD>(patience.count())) == WAIT_OBJECT_0;
    }
    static bool becomesReset(HANDLE event) {
        return eventually([event] { return !isSet(event); });
    }

    /// Whether the event is still set when a worker that follows the host's would have been through
    /// two passes.
    static bool staysSet(HANDLE event) {
        ::Sleep(450);
        return isSet(event);
    }

    std::size_t systemUsers() { return host.startedEvent().users(); }

  private:
    const HandleSpy handles_;
};

TEST_F(StartedEventTest, IsSetAtOnceWhileTheDaemonServes) {
    establishWithDaemon();
    EXPECT_CALL(host, SCardAccessStartedEvent).Times(0);
    const HANDLE event = SCardAccessStartedEvent();
    ASSERT_NE(event, nullptr);
    EXPECT_TRUE(isSet(event));
    EXPECT_THAT(log().entries(), Contains(LogLine('D', kAccess, "ACCESS_STARTED_EVENT CALLED")));
    SCardReleaseStartedEvent();
}

TEST_F(StartedEventTest, StaysSetWhenWaitedFor) {
    establishWithDaemon();
    const HANDLE event = SCardAccessStartedEvent();
    EXPECT_TRUE(isSet(event));
    EXPECT_TRUE(isSet(event));
    SCardReleaseStartedEvent();
}

TEST_F(StartedEventTest, IsOneForTwoAccessesAndClosedWithTheSecondRelease) {
    establishWithDaemon();
    const HANDLE event = SCardAccessStartedEvent();
    EXPECT_EQ(SCardAccessStartedEvent(), event);
    SCardReleaseStartedEvent();
    EXPECT_TRUE(isOpen(event));
    EXPECT_TRUE(isSet(event));
    SCardReleaseStartedEvent();
    EXPECT_FALSE(isOpen(event));
    EXPECT_THAT(log().messages(kRelease, 'W'), IsEmpty());
    EXPECT_THAT(log().messages(kRelease, 'D'),
                ElementsAre("RELEASE_STARTED_EVENT CALLED", "RELEASE_STARTED_EVENT CALLED"));
}

TEST_F(StartedEventTest, BeginsTheSearchForTheDaemon) {
    startDaemon();
    const HANDLE event = SCardAccessStartedEvent();
    waitForWatch();
    EXPECT_TRUE(isSet(event));
    EXPECT_EQ(systemUsers(), 0U);
    SCardReleaseStartedEvent();
}

TEST_F(StartedEventTest, IsSetBecauseTheHostsServiceRuns) {
    HANDLE event = nullptr;
    {
        Latch isSeen(1);
        const ImportPatch<decltype(::Sleep)> sleep(libraryModule(), "KERNEL32.dll", "Sleep",
                                                   [&](DWORD) { isSeen.wait(); });
        event = SCardAccessStartedEvent();
        ASSERT_NE(event, nullptr);
        EXPECT_TRUE(becomesSet(event)) << "before anything has slept for 200 ms";
        isSeen.countDown();
    }
    EXPECT_EQ(systemUsers(), 1U);
    SCardReleaseStartedEvent();
    EXPECT_EQ(systemUsers(), 0U);
    EXPECT_FALSE(isOpen(event));
}

TEST_F(StartedEventTest, IsLookedAfterEvery200Milliseconds) {
    establish();
    std::mutex mutex;
    std::set<DWORD> resting;  // threads
    const ImportPatch<decltype(::Sleep)> sleep(libraryModule(), "KERNEL32.dll", "Sleep",
                                               [&](DWORD milliseconds) {
                                                   {
                                                       const std::scoped_lock lock(mutex);
                                                       EXPECT_EQ(milliseconds, 200U);
                                                       resting.insert(GetCurrentThreadId());
                                                   }
                                                   ::Sleep(milliseconds);
                                               });
    SCardAccessStartedEvent();
    EXPECT_TRUE(eventually([&] {
        const std::scoped_lock lock(mutex);
        return resting.size() == 2;
    })) << "the monitor and the event's own thread";
    SCardReleaseStartedEvent();
}

TEST_F(StartedEventTest, IsNeverTheHostsOwn) {
    const HANDLE event = SCardAccessStartedEvent();
    const HANDLE hostsOwn = host.startedEvent().access();
    EXPECT_NE(event, hostsOwn);
    host.startedEvent().release();
    SCardReleaseStartedEvent();
}

TEST_F(StartedEventTest, FollowsTheHostsServiceWhileTheDaemonIsAway) {
    host.startedEvent().setStarted(false);
    const HANDLE event = SCardAccessStartedEvent();
    ASSERT_NE(event, nullptr);
    EXPECT_FALSE(isSet(event));
    host.startedEvent().setStarted(true);
    EXPECT_TRUE(becomesSet(event));
    host.startedEvent().setStarted(false);
    EXPECT_TRUE(becomesReset(event));
    SCardReleaseStartedEvent();
}

TEST_F(StartedEventTest, StaysResetWhileNoServiceRuns) {
    host.startedEvent().setStarted(false);
    const HANDLE event = SCardAccessStartedEvent();
    EXPECT_EQ(WaitForSingleObject(event, 450), static_cast<DWORD>(WAIT_TIMEOUT));
    SCardReleaseStartedEvent();
}

TEST_F(StartedEventTest, IsNullWhenTheHostHasNone) {
    EXPECT_CALL(host, SCardAccessStartedEvent).WillOnce([] {
        SetLastError(1060);
        return HANDLE{};
    });
    EXPECT_EQ(SCardAccessStartedEvent(), nullptr);
    EXPECT_THAT(log().entries(),
                Contains(LogLine('W', kAccess, "Failed to access started event (1060)")));
    // Nothing is recorded.
    EXPECT_CALL(host, SCardReleaseStartedEvent).Times(0);
    SCardReleaseStartedEvent();
    EXPECT_THAT(log().messages(kRelease, 'W'),
                ElementsAre("Unmatched call to SCardReleaseStartedEvent"));
}

TEST_F(StartedEventTest, IsNullWhenTheHostHasNoLibrary) {
    const ImportPatch<decltype(::LoadLibraryA)> load(libraryModule(), "KERNEL32.dll",
                                                     "LoadLibraryA", [](LPCSTR) {
                                                         SetLastError(ERROR_MOD_NOT_FOUND);
                                                         return HMODULE{};
                                                     });
    EXPECT_EQ(SCardAccessStartedEvent(), nullptr);
    EXPECT_THAT(log().messages(kAccess, 'W'),
                ElementsAre(StartsWith("Failed to access started event (")));
}

TEST_F(StartedEventTest, GivesTheHostsBackWhenItCannotBeMade) {
    establish();  // so that only the event's own creation can fail
    const DWORD caller = GetCurrentThreadId();
    const ImportPatch<decltype(::CreateEventA)> create(
        libraryModule(), "KERNEL32.dll", "CreateEventA",
        [caller](LPSECURITY_ATTRIBUTES security, BOOL manual, BOOL initial, LPCSTR name) {
            if (GetCurrentThreadId() == caller) {
                SetLastError(ERROR_NO_SYSTEM_RESOURCES);
                return HANDLE{};
            }
            return ::CreateEventA(security, manual, initial, name);
        });
    EXPECT_EQ(SCardAccessStartedEvent(), nullptr);
    EXPECT_THAT(log().entries(),
                Contains(LogLine('W', kAccess, "Failed to create an event (1450)")));
    EXPECT_EQ(systemUsers(), 0U);
    SCardReleaseStartedEvent();
    EXPECT_THAT(log().messages(kRelease, 'W'),
                ElementsAre("Unmatched call to SCardReleaseStartedEvent"));
}

TEST_F(StartedEventTest, ReleasedWithoutAnAccessOnlyWarns) {
    const HANDLE event = SCardAccessStartedEvent();
    EXPECT_CALL(host, SCardReleaseStartedEvent).Times(0);
    std::thread(&SCardReleaseStartedEvent).join();
    EXPECT_THAT(log().entries(),
                Contains(LogLine('W', kRelease, "Unmatched call to SCardReleaseStartedEvent")));
    EXPECT_TRUE(isOpen(event));
    testing::Mock::VerifyAndClearExpectations(&host);
    SCardReleaseStartedEvent();
}

TEST_F(StartedEventTest, IsSharedByTheThreadsOfAProcess) {
    const HANDLE event = SCardAccessStartedEvent();
    HANDLE other = nullptr;
    std::thread([&other] {
        other = SCardAccessStartedEvent();
        SCardReleaseStartedEvent();
    }).join();
    EXPECT_EQ(other, event);
    EXPECT_TRUE(isOpen(event));
    SCardReleaseStartedEvent();
    EXPECT_FALSE(isOpen(event));
}

TEST_F(StartedEventTest, GivesTheHostsBackOnceForAllAccesses) {
    EXPECT_CALL(host, SCardReleaseStartedEvent).Times(1);
    SCardAccessStartedEvent();
    SCardAccessStartedEvent();
    SCardReleaseStartedEvent();
    SCardReleaseStartedEvent();
}

TEST_F(StartedEventTest, CanBeReleasedAgainByAThreadWhoseEntryOutlivedTheRecord) {
    // Only the last release of a record removes an entry, and only its own thread's.
    constexpr const char* kUnmatched = "Unmatched call to SCardReleaseStartedEvent";
    Latch hasReleased(1);
    Latch isRecordGone(1);
    SCardAccessStartedEvent();
    std::thread other([&] {
        SCardAccessStartedEvent();
        SCardReleaseStartedEvent();
        hasReleased.countDown();
        isRecordGone.wait();
        SCardReleaseStartedEvent();
        EXPECT_EQ(log().count(kRelease, kUnmatched), 0U);
        SCardReleaseStartedEvent();
        EXPECT_EQ(log().count(kRelease, kUnmatched), 1U);
    });
    hasReleased.wait();
    SCardReleaseStartedEvent();
    isRecordGone.countDown();
    other.join();
}

TEST_F(StartedEventTest, AccessedUnderAnotherServiceWarnsAndIsTheSame) {
    const HANDLE event = SCardAccessStartedEvent();
    startDaemon();
    waitForWatch();
    EXPECT_EQ(SCardAccessStartedEvent(), event);
    EXPECT_TRUE(isSet(event));
    EXPECT_THAT(log().entries(),
                Contains(LogLine('W', kAccess, "Unexpected call to access started event")));
    SCardReleaseStartedEvent();
    EXPECT_TRUE(isOpen(event));
    EXPECT_EQ(systemUsers(), 1U);
    SCardReleaseStartedEvent();
    EXPECT_FALSE(isOpen(event));
    EXPECT_EQ(systemUsers(), 0U);
    EXPECT_THAT(log().messages(kRelease, 'W'), IsEmpty());
}

TEST_F(StartedEventTest, OfTheDaemonAccessedWhileItIsAwayIsReleasedWithTheHosts) {
    establishWithDaemon();
    const HANDLE event = SCardAccessStartedEvent();
    stopDaemon();
    EXPECT_EQ(SCardAccessStartedEvent(), event);
    EXPECT_EQ(systemUsers(), 1U) << "of the record, and not of the access";
    SCardReleaseStartedEvent();
    EXPECT_TRUE(isOpen(event));
    SCardReleaseStartedEvent();
    EXPECT_FALSE(isOpen(event));
    EXPECT_EQ(systemUsers(), 0U);
    EXPECT_THAT(log().messages(kRelease, 'W'), IsEmpty());
}

TEST_F(StartedEventTest, StaysOpenForAThreadWhileAnotherReleasesWhatItHasAccessed) {
    HANDLE event = nullptr;
    Latch isAccessed(1);
    Latch isToRelease(1);
    std::thread other([&] {
        event = SCardAccessStartedEvent();
        isAccessed.countDown();
        isToRelease.wait();
        EXPECT_TRUE(isOpen(event));
        SCardReleaseStartedEvent();
        EXPECT_FALSE(isOpen(event));
    });
    isAccessed.wait();
    EXPECT_EQ(SCardAccessStartedEvent(), event);
    startDaemon();
    waitForWatch();
    EXPECT_EQ(SCardAccessStartedEvent(), event);
    SCardReleaseStartedEvent();
    SCardReleaseStartedEvent();
    isToRelease.countDown();
    other.join();
}

TEST_F(StartedEventTest, IsOfTheServiceOfTheDayAgainOnceNobodyHoldsTheFormerOne) {
    Latch isAccessed(1);
    Latch isToRelease(1);
    std::thread other([&] {
        SCardAccessStartedEvent();
        isAccessed.countDown();
        isToRelease.wait();
        SCardReleaseStartedEvent();
    });
    isAccessed.wait();
    SCardAccessStartedEvent();
    SCardReleaseStartedEvent();
    isToRelease.countDown();
    other.join();
    // The host's event is gone, though this thread was not the last to release it.
    startDaemon();
    waitForWatch();
    const HANDLE event = SCardAccessStartedEvent();
    EXPECT_TRUE(isSet(event));
    EXPECT_EQ(systemUsers(), 0U);
    stopDaemon();
    EXPECT_EQ(systemUsers(), 1U);
    EXPECT_TRUE(staysSet(event)) << "the host's service runs";
    SCardReleaseStartedEvent();
    EXPECT_FALSE(isOpen(event));
    EXPECT_EQ(systemUsers(), 0U);
}

TEST_F(StartedEventTest, AsksForTheHostsOnceHoweverOftenTheDaemonGoes) {
    establishWithDaemon();
    EXPECT_CALL(host, SCardAccessStartedEvent).Times(1);
    EXPECT_CALL(host, SCardReleaseStartedEvent).Times(0);
    const HANDLE event = SCardAccessStartedEvent();
    for (int i = 0; i < 4; ++i) {
        stopDaemon();
        startDaemon();
        waitForWatch();
    }
    EXPECT_EQ(systemUsers(), 1U);
    testing::Mock::VerifyAndClearExpectations(&host);
    SCardReleaseStartedEvent();
    EXPECT_FALSE(isOpen(event));
    EXPECT_EQ(systemUsers(), 0U);
}

TEST_F(StartedEventTest, IsSetWhenTheDaemonComes) {
    host.startedEvent().setStarted(false);
    const HANDLE event = SCardAccessStartedEvent();
    EXPECT_FALSE(isSet(event));
    startDaemon();
    EXPECT_TRUE(becomesSet(event));
    waitForWatch();
    // The host's service does not matter any more.
    EXPECT_TRUE(staysSet(event));
    SCardReleaseStartedEvent();
}

TEST_F(StartedEventTest, FollowsTheHostsServiceAgainWhenTheDaemonGoes) {
    host.startedEvent().setStarted(false);
    establishWithDaemon();
    const HANDLE event = SCardAccessStartedEvent();
    EXPECT_TRUE(isSet(event));
    stopDaemon();
    EXPECT_TRUE(becomesReset(event));
    EXPECT_EQ(systemUsers(), 1U);  // asked for by the monitor
    host.startedEvent().setStarted(true);
    EXPECT_TRUE(becomesSet(event));
    startDaemon();
    waitForWatch();
    host.startedEvent().setStarted(false);
    EXPECT_TRUE(staysSet(event));
    SCardReleaseStartedEvent();
}

TEST_F(StartedEventTest, IsResetWhenTheDaemonGoesAndTheHostHasNone) {
    establishWithDaemon();
    const HANDLE event = SCardAccessStartedEvent();
    ON_CALL(host, SCardAccessStartedEvent).WillByDefault(Return(nullptr));
    stopDaemon();
    EXPECT_FALSE(isSet(event));
    startDaemon();
    waitForWatch();
    EXPECT_TRUE(isSet(event));
    SCardReleaseStartedEvent();
}

TEST_F(StartedEventTest, StandsManyThreadsAtOnce) {
    constexpr int kThreads = 6;
    const HANDLE held = SCardAccessStartedEvent();
    std::atomic<int> failures = 0;
    std::vector<std::thread> threads;
    threads.reserve(kThreads);
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&failures, held] {
            for (int round = 0; round < 100; ++round) {
                const HANDLE event = SCardAccessStartedEvent();
                if (event != held || !becomesSet(event)) {
                    ++failures;
                }
                SCardReleaseStartedEvent();
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(failures, 0);
    EXPECT_TRUE(isOpen(held));
    SCardReleaseStartedEvent();
    EXPECT_FALSE(isOpen(held));
}

TEST_F(StartedEventTest, StandsADaemonThatComesAndGoesMeanwhile) {
    establishWithDaemon();
    std::atomic<bool> over = false;
    std::atomic<int> accesses = 0;
    std::thread user([&] {
        while (!over) {
            if (SCardAccessStartedEvent() != nullptr) {
                ++accesses;
            }
            SCardReleaseStartedEvent();
        }
    });
    for (int round = 0; round < 3; ++round) {
        stopDaemon();
        startDaemon();
        waitForWatch();
    }
    over = true;
    user.join();
    EXPECT_GT(accesses, 0);
    const HANDLE event = SCardAccessStartedEvent();
    EXPECT_TRUE(isSet(event));
    SCardReleaseStartedEvent();
}

}  // namespace
}  // namespace tez::test
