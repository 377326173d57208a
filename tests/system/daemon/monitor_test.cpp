// The daemon comes and goes: what the library notices, when, and what it brings into line then.
#include <atomic>
#include <chrono>
#include <cstdio>
#include <functional>
#include <mutex>
#include <set>
#include <string_view>
#include <thread>

#include "daemon_records.h"
#include "latch.h"
#include "pipes_closed.h"
#include "received_commands.h"
#include "record_codec.h"
#include "remote_card_test.h"

namespace tez::test {
namespace {

using testing::AllOf;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Le;
using testing::Not;
using testing::SizeIs;
using testing::UnorderedElementsAre;

constexpr const char* kEstablished = "TEZ pipe connection established";
constexpr const char* kInterrupted =
    "TEZ pipe connection interrupted, invalidating all the remote contexts";

class MonitorTest : public RemoteCardTest {
  protected:
    static LONG connectToRemoteReader(SCARDCONTEXT context) {
        SCARDHANDLE handle = 0;
        DWORD protocol = 0;
        return SCardConnectA(context, kRemoteReader, SCARD_SHARE_SHARED, SCARD_PROTOCOL_Tx, &handle,
                             &protocol);
    }

    std::vector<std::string> monitorMessages() const {
        return log().messages("checkServiceAvailability", 'D');
    }

    static bool waitForSignal(HANDLE event) {
        return WaitForSingleObject(
                   event, static_cast<DWORD>(std::chrono::milliseconds(kPatience).count())) ==
               WAIT_OBJECT_0;
    }

    static bool isSet(HANDLE event) { return WaitForSingleObject(event, 0) == WAIT_OBJECT_0; }
};

TEST_F(MonitorTest, WithoutADaemonALocalFailureIsFinal) {
    context = establish();
    EXPECT_THAT(connectToRemoteReader(context), Gives(SCARD_E_UNKNOWN_READER));
    EXPECT_THAT(log().messages("SCardConnectA"),
                Not(Contains(testing::HasSubstr("falling back to remote call"))));
    EXPECT_THAT(log().messages("establishRemoteContext"), IsEmpty());
    EXPECT_THAT(monitorMessages(), IsEmpty());
}

TEST_F(MonitorTest, TheFirstCallAlreadyKnowsADaemonThatIsThere) {
    startDaemon();
    context = establish();
    EXPECT_THAT(connectToRemoteReader(context), Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(
        log().entries(),
        Contains(LogLine('D', "SCardConnectA",
                         "local call failed with 0x80100009, falling back to remote call")));
}

// The monitor's thread comes late to its first look on a busy machine. What the daemon gives until
// then would be taken for its successor's, and no call of the context would ever succeed again.
TEST_F(MonitorTest, TheFirstCallEndsOnlyWhenTheDaemonIsWatched) {
    const ImportPatch<decltype(::CreateFileA)> open(
        libraryModule(), "KERNEL32.dll", "CreateFileA",
        [thread = GetCurrentThreadId()](LPCSTR name, auto... others) {
            if (GetCurrentThreadId() != thread) {
                std::this_thread::sleep_for(std::chrono::milliseconds(300));
            }
            return ::CreateFileA(name, others...);
        });
    startDaemon();
    context = establish();
    EXPECT_THAT(listReaders(context), Contains(kRemoteReader));
    daemon.stop();
    startDaemon();
    waitForWatch();
    EXPECT_THAT(listReaders(context), Contains(kRemoteReader));
}

TEST_F(MonitorTest, TheFirstCallDoesNotWaitLongForADaemonThatAnswersOnlyOnce) {
    std::vector<DWORD> limits;
    const ImportPatch<decltype(::SleepConditionVariableSRW)> wait(
        libraryModule(), "KERNEL32.dll", "SleepConditionVariableSRW",
        [&, caller = GetCurrentThreadId()](PCONDITION_VARIABLE condition, PSRWLOCK lock,
                                           DWORD milliseconds, ULONG flags) {
            if (GetCurrentThreadId() == caller) {
                limits.push_back(milliseconds);
            }
            return ::SleepConditionVariableSRW(condition, lock, milliseconds, flags);
        });
    daemon.setObserver({[this](const Handshake& /*first*/) { daemon.setReplyVersion(false); }, {}});
    startDaemon();
    context = establish();
    EXPECT_THAT(limits, AllOf(Not(IsEmpty()), Each(Le(1000U))));
    EXPECT_THAT(SCardIsValidContext(context), Gives(SCARD_S_SUCCESS));
}

TEST_F(MonitorTest, LooksForTheDaemonEvery200Milliseconds) {
    std::atomic<int> pauses = 0;
    const ImportPatch<decltype(::Sleep)> sleep(libraryModule(), "KERNEL32.dll", "Sleep",
                                               [&](DWORD milliseconds) {
                                                   EXPECT_EQ(milliseconds, 200U);
                                                   ++pauses;
                                                   ::Sleep(milliseconds);
                                               });
    establish();
    const std::size_t opens = transport().opens();
    ASSERT_TRUE(transport().waitForOpens(opens + 2));
    EXPECT_GE(pauses, 1);
}

TEST_F(MonitorTest, NoticesADaemonThatStartsLater) {
    context = establish();
    EXPECT_THAT(connectToRemoteReader(context), Gives(SCARD_E_UNKNOWN_READER));
    startDaemon();
    waitForWatch();
    EXPECT_THAT(connectToRemoteReader(context), Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(monitorMessages(), ElementsAre(kEstablished));
}

TEST_F(MonitorTest, ReportsWhatItDoes) {
    context = establishWithDaemon();
    listReaders(context);
    stopDaemon();
    EXPECT_THAT(log().messages("pollServiceAvailability", 'D'),
                ElementsAre("Started poll thread for protocol pipe"));
    // The first call's own check, then the watch.
    EXPECT_THAT(monitorMessages(), ElementsAre(kEstablished, kEstablished, kInterrupted));
    EXPECT_THAT(log().messages("invalidateRemoteContexts", 'D'),
                ElementsAre("Removed mapping of local context 1"));
}

TEST_F(MonitorTest, EveryContextLosesItsMappingWhenTheDaemonGoes) {
    context = establishWithDaemon();
    establish();
    establish();
    stopDaemon();
    EXPECT_THAT(log().messages("invalidateRemoteContexts", 'D'),
                UnorderedElementsAre("Removed mapping of local context 1",
                                     "Removed mapping of local context 2",
                                     "Removed mapping of local context 3"));
}

TEST_F(MonitorTest, AnOldContextGetsANewDaemonContextWithItsScopeAndTheOldOneIsNotReleased) {
    startDaemon();
    context = establish(SCARD_SCOPE_TERMINAL);
    waitForWatch();
    listReaders(context);
    stopDaemon();
    EXPECT_THAT(connectToRemoteReader(context), Gives(SCARD_E_UNKNOWN_READER));
    daemon.clearRecords();
    startDaemon();
    waitForWatch();
    listReaders(context);
    EXPECT_THAT(receivedCommands(daemon),
                ElementsAre(Command::kEstablishContext, Command::kListReaders));
    EXPECT_THAT(daemon.requests(Command::kEstablishContext),
                ElementsAre(IsRequest(
                    Command::kEstablishContext,
                    RecordBytes(EstablishLayout::kSize).u32(EstablishLayout::kScope, 1))));
    EXPECT_EQ(u64At(daemon.requests().back().body, 0), kDaemonContext + 1);
    EXPECT_THAT(SCardReleaseContext(context), Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(
        daemon.requests(Command::kReleaseContext),
        ElementsAre(IsRequest(
            Command::kReleaseContext,
            RecordBytes(HandleLayout::kSize).u64(HandleLayout::kHandle, kDaemonContext + 1))));
}

TEST_F(MonitorTest, FollowsADaemonThatComesAndGoesAgainAndAgain) {
    context = establish();
    for (int round = 0; round < 3; ++round) {
        startDaemon();
        waitForWatch();
        EXPECT_THAT(connectToRemoteReader(context), Gives(SCARD_S_SUCCESS));
        EXPECT_THAT(listReaders(context), UnorderedElementsAre(kHostReader, kRemoteReader));
        stopDaemon();
        EXPECT_THAT(connectToRemoteReader(context), Gives(SCARD_E_UNKNOWN_READER));
        EXPECT_THAT(listReaders(context), ElementsAre(kHostReader));
    }
    EXPECT_THAT(daemon.requests(Command::kEstablishContext), SizeIs(3));
    EXPECT_THAT(daemon.requests(Command::kReleaseContext), IsEmpty());
}

TEST_F(MonitorTest, AContextMadeWhileTheDaemonWasAwayIsServedWhenItIsBack) {
    establishWithDaemon();
    stopDaemon();
    context = establish();
    startDaemon();
    waitForWatch();
    EXPECT_THAT(listReaders(context), UnorderedElementsAre(kHostReader, kRemoteReader));
}

TEST_F(MonitorTest, AByteFromTheDaemonEndsOnePassAndChangesNothing) {
    context = establishWithDaemon();
    listReaders(context);
    daemon.clearRecords();
    ASSERT_TRUE(daemon.send(kWatch, {{0x55}}));
    ASSERT_TRUE(transport().waitForWatches(2));
    EXPECT_THAT(monitorMessages(), ElementsAre(kEstablished, kEstablished, kEstablished));
    listReaders(context);
    EXPECT_THAT(receivedCommands(daemon), ElementsAre(Command::kListReaders))
        << "the daemon's context is still the same";
}

TEST_F(MonitorTest, ADaemonThatGoesBetweenTwoPassesIsMissedByTheCallsThemselves) {
    context = establishWithDaemon();
    const PipesClosed closed(ERROR_FILE_NOT_FOUND);
    ASSERT_TRUE(daemon.send(kWatch, {{0x55}}));
    ASSERT_TRUE(eventually([this] {
        const auto tried = log().messages("DaemonConnectionTEZ::connectSocket");
        return std::ranges::count(tried, "Failed to connect to pipe: 0x00000002") >= 2;
    }));
    EXPECT_THAT(monitorMessages(), ElementsAre(kEstablished, kEstablished));
    EXPECT_THAT(connectToRemoteReader(context), Gives(SCARD_E_NO_SERVICE))
        << "the daemon is still asked, as while it was there";
}

TEST_F(MonitorTest, FirstCallsAtOnceStartItOnce) {
    startDaemon();
    constexpr int kCallers = 8;
    Latch ready(kCallers);
    std::vector<SCARDCONTEXT> contexts(kCallers);
    std::vector<std::thread> callers;
    callers.reserve(kCallers);
    for (SCARDCONTEXT& made : contexts) {
        callers.emplace_back([&] {
            ready.arriveAndWait();
            made = establish();
        });
    }
    for (std::thread& caller : callers) {
        caller.join();
    }
    waitForWatch();
    EXPECT_THAT(contexts, UnorderedElementsAre(1, 2, 3, 4, 5, 6, 7, 8));
    EXPECT_EQ(transport().opens(), 2U) << "one check, one watch";
    EXPECT_THAT(log().messages("pollServiceAvailability"),
                ElementsAre("Started poll thread for protocol pipe"));
}

TEST_F(MonitorTest, EveryFirstCallWaitsForTheFirstCheck) {
    daemon.setReplyVersion(false);
    startDaemon();
    std::atomic<int> established = 0;
    const auto establishOne = [&] {
        establish();
        ++established;
    };
    std::thread first(establishOne);
    ASSERT_TRUE(eventually([&] { return daemon.handshakes().size() == 1; }));
    std::thread second(establishOne);
    ASSERT_TRUE(eventually([&] { return log().messages("SCardEstablishContext").size() == 2; }))
        << "both calls have logged their arguments";
    ::Sleep(200);
    EXPECT_EQ(established, 0);
    daemon.setReplyVersion(true);
    Bytes version(8);
    putU32(version, 0, 1);
    ASSERT_TRUE(daemon.send(1, {version}));
    first.join();
    second.join();
    EXPECT_EQ(established, 2);
}

TEST_F(MonitorTest, IsStartedByTheStartedEventToo) {
    startDaemon();
    const HANDLE event = SCardAccessStartedEvent();
    ASSERT_NE(event, nullptr);
    waitForWatch();
    EXPECT_TRUE(isSet(event));
    EXPECT_THAT(log().messages("pollServiceAvailability"),
                ElementsAre("Started poll thread for protocol pipe"));
    SCardReleaseStartedEvent();
}

TEST_F(MonitorTest, StartedEventsAreSetWhileTheDaemonIsThere) {
    host.startedEvent().setStarted(false);
    const HANDLE event = SCardAccessStartedEvent();
    ASSERT_NE(event, nullptr);
    EXPECT_FALSE(isSet(event));
    startDaemon();
    EXPECT_TRUE(waitForSignal(event));
    waitForWatch();
    EXPECT_TRUE(isSet(event));
    stopDaemon();
    EXPECT_TRUE(eventually([&] { return !isSet(event); })) << "it follows the host's again";
    host.startedEvent().setStarted(true);
    EXPECT_TRUE(waitForSignal(event));
    SCardReleaseStartedEvent();
}

TEST_F(MonitorTest, TheNamesOfTheHostsReadersAreForgottenWhenTheDaemonComes) {
    context = establish();
    listReaders(context);
    startDaemon();
    waitForWatch();
    SCARD_READERSTATEA state = {};
    state.szReader = kHostReader;
    EXPECT_THAT(SCardGetStatusChangeA(context, 0, &state, 1), Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(log().messages("SCardGetStatusChangeA", 'D'),
                Contains("List readers was never called, let's call it to update the list of local "
                         "and remote readers"));
}

TEST_F(MonitorTest, TheNamesOfTheRemoteReadersAreForgottenWhenTheDaemonGoes) {
    context = establishWithDaemon();
    listReaders(context);
    const auto known = log().messages("SCardListReadersA", 'D');
    EXPECT_THAT(known, Contains(std::string("    ") + kRemoteReader));
    stopDaemon();
    listReaders(context);
    std::vector<std::string> since = log().messages("SCardListReadersA", 'D');
    since.erase(since.begin(), since.begin() + static_cast<std::ptrdiff_t>(known.size()));
    EXPECT_THAT(since, Contains(std::string("    ") + kHostReader));
    EXPECT_THAT(since, Not(Contains(std::string("    ") + kRemoteReader)));
}

TEST_F(MonitorTest, WaitsForTheHostsReadersAreCancelledWhenTheDaemonComes) {
    context = establish();
    listReaders(context);
    std::thread waiter([this] {
        SCARD_READERSTATEA state = {};
        state.szReader = kHostReader;
        state.dwCurrentState = SCARD_STATE_PRESENT;
        SCardGetStatusChangeA(context, INFINITE, &state, 1);
    });
    ASSERT_TRUE(host.pcsc().waitForStatusWaits(1, kPatience));
    EXPECT_CALL(host, SCardCancel(kHostContext)).Times(testing::AtLeast(1));
    startDaemon();
    waiter.join();
    waitForWatch();
}

/// Tells a test of each pipe that the library opens, on the thread that does.
class PipeOpens {
  public:
    explicit PipeOpens(std::function<void(HANDLE pipe)> opened)
        : create_(libraryModule(), "KERNEL32.dll", "CreateFileA",
                  [this, opened = std::move(opened)](LPCSTR name, DWORD access, DWORD share,
                                                     LPSECURITY_ATTRIBUTES security, DWORD creation,
                                                     DWORD flags, HANDLE file) {
                      const HANDLE pipe =
                          create_.original()(name, access, share, security, creation, flags, file);
                      opened(pipe);
                      return pipe;
                  }) {}

  private:
    ImportPatch<decltype(::CreateFileA)> create_;
};

TEST_F(MonitorTest, AByteFromTheDaemonClosesTheConnectionBeforeTheNextOneIsOpened) {
    std::mutex mutex;
    std::vector<std::string> done;  // by the monitor's thread, to the connections that it watches
    HANDLE watched = nullptr;
    const auto note = [&, caller = GetCurrentThreadId()](const char* what, auto isMeant) {
        const std::scoped_lock lock(mutex);
        if (GetCurrentThreadId() != caller && isMeant()) {
            done.emplace_back(what);
        }
    };
    const PipeOpens opens([&](HANDLE pipe) {
        note("open", [&] {
            watched = pipe;
            return true;
        });
    });
    const ImportPatch<decltype(::CloseHandle)> close(
        libraryModule(), "KERNEL32.dll", "CloseHandle", [&](HANDLE handle) {
            note("close", [&] { return handle == watched; });
            return ::CloseHandle(handle);
        });
    context = establishWithDaemon();
    ASSERT_TRUE(daemon.send(kWatch, {{0x55}}));
    ASSERT_TRUE(transport().waitForWatches(2));
    const std::scoped_lock lock(mutex);
    EXPECT_THAT(done, ElementsAre("open", "close", "open"));
}

TEST_F(MonitorTest, TheStateIsSetBeforePoolAndContextsAreClearedWhenTheDaemonGoes) {
    std::mutex mutex;
    std::set<HANDLE> pooled;  // opened by this thread's calls
    std::vector<std::string> done;
    const auto isMonitor = [caller = GetCurrentThreadId()] {
        return GetCurrentThreadId() != caller;
    };
    // Of a card's call that cannot get further than its arguments: it touches none of what the
    // monitor has locked meanwhile.
    const auto noteWithState = [&](const std::string& what) {
        const LONG rv = SCardReconnect(card.handle, SCARD_SHARE_SHARED, SCARD_PROTOCOL_Tx,
                                       SCARD_LEAVE_CARD, nullptr);
        const std::scoped_lock lock(mutex);
        done.push_back(what + (rv == SCARD_E_INVALID_HANDLE ? " without" : " with") + " a daemon");
    };
    const PipeOpens opens([&](HANDLE pipe) {
        const std::scoped_lock lock(mutex);
        if (!isMonitor()) {
            pooled.insert(pipe);
        }
    });
    const auto takePooled = [&](HANDLE handle) {
        const std::scoped_lock lock(mutex);
        return pooled.erase(handle) != 0;
    };
    const ImportPatch<decltype(::CloseHandle)> close(libraryModule(), "KERNEL32.dll", "CloseHandle",
                                                     [&](HANDLE handle) {
                                                         if (takePooled(handle) && isMonitor()) {
                                                             noteWithState("connection closed");
                                                         }
                                                         return ::CloseHandle(handle);
                                                     });
    const ImportPatch<std::size_t(const void*, std::size_t, std::size_t, std::FILE*)> write(
        libraryModule(), "msvcrt.dll", "fwrite",
        [&](const void* data, std::size_t size, std::size_t count, std::FILE* stream) {
            const std::string_view text(static_cast<const char*>(data), size * count);
            if (text.starts_with("Removed mapping of local context")) {
                noteWithState("context cleared");
            }
            return write.original()(data, size, count, stream);
        });
    connectCard();
    stopDaemon();
    const std::scoped_lock lock(mutex);
    EXPECT_THAT(done, ElementsAre("connection closed without a daemon",
                                  "context cleared without a daemon"));
}

}  // namespace
}  // namespace tez::test
