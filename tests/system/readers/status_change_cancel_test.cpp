// SCardGetStatusChangeA: cancels, by the application and of one side by the other. A cancel that
// finds no wait is forgotten by both services, as by those that they stand for.
#include <atomic>
#include <mutex>
#include <thread>

#include "heap_spy.h"
#include "no_threads.h"
#include "received_commands.h"
#include "status_waits.h"

namespace tez::test {
namespace {

using testing::AtLeast;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

class StatusChangeCancel : public StatusChangeTest {
  protected:
    /// A wait without limit on both readers that the daemon has begun, and that the host holds.
    BackgroundWait waitHeldByTheHost(SCARDCONTEXT context, const Gate& gate) {
        BackgroundWait wait(context, INFINITE, {unchangedHost(), unchangedRemote()});
        waitForRemoteWait();
        EXPECT_TRUE(gate.waitUntilReached());
        return wait;
    }

    /// Lets the daemon's waits begin only behind a gate.
    Gate holdRemoteWaits() {
        Gate gate;
        daemon.on(Command::kGetStatusChange, [gate](const Request&) -> std::optional<Reply> {
            gate.pass();
            return std::nullopt;
        });
        return gate;
    }

    /// Notes when the host was cancelled, in milliseconds.
    void noteHostCancels() {
        ON_CALL(host, SCardCancel).WillByDefault([this](SCARDCONTEXT context) {
            {
                const std::lock_guard lock(mutex_);
                hostCancels_.push_back(GetTickCount64());
                if (GetCurrentThreadId() != testThread_) {
                    repeatedHostCancels_.push_back(hostCancels_.back());
                }
            }
            return host.service().SCardCancel(context);
        });
    }

    std::vector<ULONGLONG> hostCancels() const {
        const std::lock_guard lock(mutex_);
        return hostCancels_;
    }

    /// Those that did not come from a cancel of the test.
    std::vector<ULONGLONG> repeatedHostCancels() const {
        const std::lock_guard lock(mutex_);
        return repeatedHostCancels_;
    }

  private:
    const DWORD testThread_ = GetCurrentThreadId();
    mutable std::mutex mutex_;
    std::vector<ULONGLONG> hostCancels_;
    std::vector<ULONGLONG> repeatedHostCancels_;
};

TEST_F(StatusChangeCancel, ByTheApplicationEndsBothSides) {
    const SCARDCONTEXT context = establishAndList();
    EXPECT_CALL(host, SCardCancel(kFirstHostContext)).Times(AtLeast(1));
    const BackgroundWait wait = waitOnBothSides(context);
    const ULONGLONG cancelled = GetTickCount64();
    EXPECT_THAT(SCardCancel(context), Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(wait.result(), Gives(SCARD_E_CANCELLED));
    EXPECT_LT(GetTickCount64() - cancelled, kInTime);
    EXPECT_GE(remoteCancels(), 1U);
}

TEST_F(StatusChangeCancel, ByTheApplicationEndsAWaitOnTheHostAlone) {
    const SCARDCONTEXT context = establish();
    listReaders(context);
    const BackgroundWait wait(context, INFINITE, {unchangedHost()});
    waitForHostWait();
    EXPECT_THAT(SCardCancel(context), Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(wait.result(), Gives(SCARD_E_CANCELLED));
}

TEST_F(StatusChangeCancel, ByTheApplicationEndsAWaitOnTheDaemonAlone) {
    const SCARDCONTEXT context = establishAndList();
    const BackgroundWait wait(context, 15000, {unchangedRemote()});
    waitForRemoteWait();
    EXPECT_THAT(SCardCancel(context), Gives(SCARD_S_SUCCESS));
    // The empty local half makes it a success.
    EXPECT_THAT(wait.result(), Gives(SCARD_S_SUCCESS));
    EXPECT_LT(wait.duration(), 15000U);
    EXPECT_THAT(log().messages(kStatusChange), Contains("intermediate rv: 0x80100002"));
}

TEST_F(StatusChangeCancel, ByTheApplicationEndsTheWaitsOfItsContextOnly) {
    const SCARDCONTEXT context = establishAndList();
    const SCARDCONTEXT other = establish();
    const BackgroundWait wait(context, INFINITE, {unchangedHost(), unchangedRemote()});
    const BackgroundWait otherWait(other, INFINITE, {unchangedHost(), unchangedRemote()});
    waitForRemoteWait(2);
    waitForHostWait(2);
    EXPECT_THAT(SCardCancel(other), Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(otherWait.result(), Gives(SCARD_E_CANCELLED));
    EXPECT_FALSE(wait.isOver());
    EXPECT_THAT(SCardCancel(context), Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(wait.result(), Gives(SCARD_E_CANCELLED));
}

TEST_F(StatusChangeCancel, DoesNotReachTheNextWait) {
    const SCARDCONTEXT context = establishAndList();
    EXPECT_THAT(SCardCancel(context), Gives(SCARD_S_SUCCESS));
    const BackgroundWait wait = waitOnBothSides(context);
    remote.removeCard(kRemoteReader);
    EXPECT_THAT(wait.result(), Gives(SCARD_S_SUCCESS));
}

TEST_F(StatusChangeCancel, ByTheApplicationIsRepeatedWhenItComesTooEarlyForTheHost) {
    const SCARDCONTEXT context = establishAndList();
    noteHostCancels();
    const Gate gate = holdHostWaits();
    const BackgroundWait wait = waitHeldByTheHost(context, gate);
    EXPECT_THAT(SCardCancel(context), Gives(SCARD_S_SUCCESS));
    gate.open();
    EXPECT_THAT(wait.result(), Gives(SCARD_E_CANCELLED));
    EXPECT_GE(hostCancels().size(), 2U);
}

TEST_F(StatusChangeCancel, ByTheApplicationIsRepeatedWhenItComesTooEarlyForTheDaemon) {
    const SCARDCONTEXT context = establishAndList();
    const Gate gate = holdRemoteWaits();
    const BackgroundWait wait(context, INFINITE, {unchangedHost(), unchangedRemote()});
    ASSERT_TRUE(gate.waitUntilReached());
    waitForHostWait();
    EXPECT_THAT(SCardCancel(context), Gives(SCARD_S_SUCCESS));
    gate.open();
    EXPECT_THAT(wait.result(), Gives(SCARD_E_CANCELLED));
    EXPECT_GE(remoteCancels(), 2U);
}

TEST_F(StatusChangeCancel, ByTheApplicationIsRepeatedForADaemonThatServesTheCallAlone) {
    const SCARDCONTEXT context = establishAndList();
    noteHostCancels();
    const Gate gate = holdRemoteWaits();
    const BackgroundWait wait(context, INFINITE, {unchangedRemote()});
    ASSERT_TRUE(gate.waitUntilReached());
    EXPECT_THAT(SCardCancel(context), Gives(SCARD_S_SUCCESS));
    ASSERT_TRUE(eventually([&] { return remoteCancels() >= 2; }));
    EXPECT_THAT(repeatedHostCancels(), IsEmpty()) << "where it could end another wait";
    gate.open();
    EXPECT_THAT(wait.result(), Gives(SCARD_S_SUCCESS)) << "the empty local half makes it one";
    EXPECT_GE(log().count(kLocalStatusChange, kCancelRemoteAgain), 1U);
}

TEST_F(StatusChangeCancel, ByTheApplicationIsRepeatedForAHostThatServesTheCallAlone) {
    const SCARDCONTEXT context = establish();
    listReaders(context);
    noteHostCancels();
    const Gate gate = holdHostWaits();
    const BackgroundWait wait(context, INFINITE, {unchangedHost()});
    ASSERT_TRUE(gate.waitUntilReached());
    EXPECT_THAT(SCardCancel(context), Gives(SCARD_S_SUCCESS));
    gate.open();
    EXPECT_THAT(wait.result(), Gives(SCARD_E_CANCELLED));
    EXPECT_GE(hostCancels().size(), 2U);
    EXPECT_GE(log().count("SCardCancel", kCancelLocalAgain), 1U);
}

// The thread that repeats the cancels ends with the wait that they are for.
TEST_F(StatusChangeCancel, ByTheApplicationIsRepeatedForTheNextWaitOnTheHostAloneToo) {
    const SCARDCONTEXT context = establish();
    listReaders(context);
    for (int i = 0; i < 2; ++i) {
        const Gate gate = holdHostWaits();
        const BackgroundWait wait(context, INFINITE, {unchangedHost()});
        ASSERT_TRUE(gate.waitUntilReached());
        EXPECT_THAT(SCardCancel(context), Gives(SCARD_S_SUCCESS));
        gate.open();
        EXPECT_THAT(wait.result(), Gives(SCARD_E_CANCELLED));
        std::this_thread::sleep_for(std::chrono::milliseconds(kSoon));
    }
}

TEST_F(StatusChangeCancel, ThatComesSeveralTimesIsRepeatedOnceEachTime) {
    const SCARDCONTEXT context = establishAndList();
    noteHostCancels();
    const Gate gate = holdHostWaits();
    const BackgroundWait wait = waitHeldByTheHost(context, gate);
    for (int i = 0; i < 3; ++i) {
        EXPECT_THAT(SCardCancel(context), Gives(SCARD_S_SUCCESS));
    }
    ASSERT_TRUE(eventually([&] { return repeatedHostCancels().size() >= 3; }));
    gate.open();
    EXPECT_THAT(wait.result(), Gives(SCARD_E_CANCELLED));
    const std::vector<ULONGLONG> repeats = repeatedHostCancels();
    EXPECT_GE(repeats[1] - repeats[0], 90U);
    EXPECT_GE(repeats[2] - repeats[1], 190U);
}

TEST_F(StatusChangeCancel, OfAWaitOnTheHostAloneIsRepeatedByTheNextOneWhenThereWasNoThreadForIt) {
    const SCARDCONTEXT context = establish();
    listReaders(context);
    noteHostCancels();
    const Gate gate = holdHostWaits();
    const BackgroundWait wait(context, INFINITE, {unchangedHost()});
    ASSERT_TRUE(gate.waitUntilReached());
    {
        const NoThreads noThreads;
        EXPECT_THAT(SCardCancel(context), Gives(SCARD_S_SUCCESS));
    }
    EXPECT_THAT(log().messages("SCardCancel", 'W'),
                ElementsAre("Could not see to it that the waits end"));
    EXPECT_THAT(SCardCancel(context), Gives(SCARD_S_SUCCESS));
    gate.open();
    EXPECT_THAT(wait.result(), Gives(SCARD_E_CANCELLED));
    EXPECT_GE(hostCancels().size(), 3U);
}

TEST_F(StatusChangeCancel, ByTheApplicationReachesTheHostWithoutMemoryForTheDaemon) {
    const SCARDCONTEXT context = establishAndList();
    noteHostCancels();
    const BackgroundWait wait = waitOnBothSides(context);
    {
        HeapSpy heap;
        heap.refuseNth(2);  // the connection: the wait has the one that there was
        EXPECT_THAT(SCardCancel(context), Gives(SCARD_E_NO_MEMORY));
        EXPECT_TRUE(heap.stopRefusing());
    }
    EXPECT_THAT(wait.result(), Gives(SCARD_E_CANCELLED));
    EXPECT_GE(hostCancels().size(), 1U);
}

TEST_F(StatusChangeCancel, ThatTheDaemonForgetsIsRepeatedUntilTheWaitHasEnded) {
    const SCARDCONTEXT context = establishAndList();
    std::atomic<int> cancels = 0;
    daemon.on(Command::kCancel, [&](const Request& request) -> std::optional<Reply> {
        return ++cancels < 3 ? std::optional(Reply::of({request.body})) : std::nullopt;
    });
    const BackgroundWait wait(context, INFINITE, {unchangedRemote()});
    waitForRemoteWait();
    EXPECT_THAT(SCardCancel(context), Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(wait.result(), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(cancels, 3);
    daemon.restore(Command::kCancel);
}

TEST_F(StatusChangeCancel, OfTheHostIsRepeatedSoonWhenItCameTooEarly) {
    const SCARDCONTEXT context = establishAndList();
    noteHostCancels();
    const Gate gate = holdHostWaits();
    const BackgroundWait wait = waitHeldByTheHost(context, gate);
    remote.removeCard(kRemoteReader);
    ASSERT_TRUE(eventually([&] { return !hostCancels().empty(); }));
    gate.open();
    EXPECT_THAT(wait.result(), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(wait.state(1).dwEventState, kFirstCardPulled | kChanged);
    const std::vector<ULONGLONG> cancels = hostCancels();
    ASSERT_GE(cancels.size(), 2U);
    EXPECT_EQ(log().count(kStatusChange, kCancelLocal), 1U);
    EXPECT_EQ(log().count(kStatusChange, kCancelLocalAgain), cancels.size() - 1);
}

TEST_F(StatusChangeCancel, OfTheHostIsRepeatedAtGrowingIntervals) {
    const SCARDCONTEXT context = establishAndList();
    noteHostCancels();
    const Gate gate = holdHostWaits();
    const BackgroundWait wait = waitHeldByTheHost(context, gate);
    remote.removeCard(kRemoteReader);
    ASSERT_TRUE(eventually([&] { return hostCancels().size() >= 3; }));
    gate.open();
    const std::vector<ULONGLONG> cancels = hostCancels();
    EXPECT_GE(cancels[1] - cancels[0], 9U);
    EXPECT_GE(cancels[2] - cancels[1], 19U);
    EXPECT_THAT(wait.result(), Gives(SCARD_S_SUCCESS));
}

TEST_F(StatusChangeCancel, OfTheDaemonIsRepeatedSoonWhenItCameTooEarly) {
    const SCARDCONTEXT context = establishAndList();
    const Gate gate = holdRemoteWaits();
    std::atomic<std::size_t> cancelled = 0;
    daemon.on(Command::kCancel, [&](const Request& request) {
        remote.cancel(u64At(request.body, 0));
        ++cancelled;
        return Reply::of({request.body});
    });
    const BackgroundWait wait(context, INFINITE, {unchangedHost(), unchangedRemote()});
    ASSERT_TRUE(gate.waitUntilReached());
    host.pcsc().removeCard(kHostReader);
    ASSERT_TRUE(eventually([&] { return cancelled >= 1; }));
    gate.open();
    EXPECT_THAT(wait.result(), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(wait.state(0).dwEventState, kFirstCardPulled | kChanged);
    EXPECT_GE(cancelled, 2U);
    EXPECT_EQ(log().count(kLocalStatusChange, kCancelRemote), 1U);
    EXPECT_GE(log().count(kLocalStatusChange, kCancelRemoteAgain), 1U);
    daemon.restore(Command::kCancel);
}

TEST_F(StatusChangeCancel, OfTheDaemonThatIsForgottenIsRepeatedAtGrowingIntervals) {
    const SCARDCONTEXT context = establishAndList();
    std::mutex mutex;
    std::vector<ULONGLONG> cancels;
    daemon.on(Command::kCancel, [&](const Request& request) -> std::optional<Reply> {
        const std::lock_guard lock(mutex);
        cancels.push_back(GetTickCount64());
        if (cancels.size() < 3) {
            return Reply::of({request.body});  // says yes and does nothing
        }
        return std::nullopt;
    });
    const BackgroundWait wait = waitOnBothSides(context);
    host.pcsc().removeCard(kHostReader);
    EXPECT_THAT(wait.result(), Gives(SCARD_S_SUCCESS));
    daemon.stop();                  // no handler runs any more
    ASSERT_GE(cancels.size(), 3U);  // on a busy machine the third may be repeated, too
    EXPECT_GE(cancels[1] - cancels[0], 9U);
    EXPECT_GE(cancels[2] - cancels[1], 19U);
    EXPECT_GE(log().count(kLocalStatusChange, kCancelRemoteAgain), cancels.size() - 1);
}

TEST_F(StatusChangeCancel, OfTheDaemonIsNotSentBeforeTheRequestItIsToCancel) {
    establishAndList();
    const SCARDCONTEXT context = establish();  // has no counterpart at the daemon yet
    const Gate gate;
    daemon.on(Command::kEstablishContext, [gate](const Request&) -> std::optional<Reply> {
        gate.pass();
        return std::nullopt;
    });
    std::atomic<bool> hasHostAnswered = false;
    ON_CALL(host, SCardGetStatusChangeA)
        .WillByDefault([&](SCARDCONTEXT system, DWORD timeout, LPSCARD_READERSTATEA states,
                           DWORD count) {
            const LONG rv = host.service().SCardGetStatusChangeA(system, timeout, states, count);
            hasHostAnswered = true;
            return rv;
        });
    const BackgroundWait wait(context, INFINITE,
                              {readerState(kHostReader, SCARD_STATE_UNAWARE), unchangedRemote()});
    ASSERT_TRUE(gate.waitUntilReached());
    ASSERT_TRUE(eventually([&] { return hasHostAnswered.load(); }));
    EXPECT_EQ(remoteCancels(), 0U);
    gate.open();
    EXPECT_THAT(wait.result(), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(wait.state(0).dwEventState, kFirstCard | kChanged);
    std::vector<Command> order = receivedCommands(daemon);
    ASSERT_GE(order.size(), 3U);
    order.resize(3);
    EXPECT_THAT(order, ElementsAre(Command::kEstablishContext, Command::kGetStatusChange,
                                   Command::kCancel));
}

TEST_F(StatusChangeCancel, OfTheDaemonGivesItsConnectionBack) {
    const SCARDCONTEXT context = establishAndList();
    const auto waitEndedByTheHost = [&] {
        SCARD_READERSTATEA states[] = {readerState(kHostReader, SCARD_STATE_UNAWARE),
                                       unchangedRemote()};
        EXPECT_THAT(SCardGetStatusChangeA(context, INFINITE, states, 2), Gives(SCARD_S_SUCCESS));
    };
    waitEndedByTheHost();
    const std::size_t connections = daemon.handshakes().size();
    for (int round = 0; round < 20; ++round) {
        waitEndedByTheHost();
    }
    // Some answers may be late; each that is given up costs a connection.
    EXPECT_LT(daemon.handshakes().size() - connections, 10U);
}

TEST_F(StatusChangeCancel, IsNotLostInHundredsOfRacesWithRemoteChanges) {
    const SCARDCONTEXT context = establishAndList();
    DWORD state = SCARD_STATE_PRESENT;
    for (int round = 0; round < 200; ++round) {
        const BackgroundWait wait(context, INFINITE,
                                  {unchangedHost(), readerState(kRemoteReader, state)});
        if (state == SCARD_STATE_PRESENT) {
            remote.removeCard(kRemoteReader);
            state = SCARD_STATE_EMPTY;
        } else {
            remote.insertCard(kRemoteReader, makeDemoCard(kRemoteCardHolder));
            state = SCARD_STATE_PRESENT;
        }
        ASSERT_THAT(wait.result(), Gives(SCARD_S_SUCCESS));
        ASSERT_LT(wait.duration(), kInTime);
        ASSERT_EQ(wait.state(1).dwEventState & 0xFFFF, state | SCARD_STATE_CHANGED);
    }
}

TEST_F(StatusChangeCancel, IsNotLostInHundredsOfRacesWithHostChanges) {
    const SCARDCONTEXT context = establishAndList();
    DWORD state = SCARD_STATE_PRESENT;
    for (int round = 0; round < 200; ++round) {
        const BackgroundWait wait(context, INFINITE,
                                  {readerState(kHostReader, state), unchangedRemote()});
        if (state == SCARD_STATE_PRESENT) {
            host.pcsc().removeCard(kHostReader);
            state = SCARD_STATE_EMPTY;
        } else {
            host.pcsc().insertCard(kHostReader, makeDemoCard(kHostCardHolder));
            state = SCARD_STATE_PRESENT;
        }
        ASSERT_THAT(wait.result(), Gives(SCARD_S_SUCCESS));
        ASSERT_LT(wait.duration(), kInTime);
        ASSERT_EQ(wait.state(0).dwEventState & 0xFFFF, state | SCARD_STATE_CHANGED);
    }
}

}  // namespace
}  // namespace tez::test
