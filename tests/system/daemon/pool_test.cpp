// Idle connections to the daemon: which calls share one, how many are kept, and when none is.
#include <algorithm>
#include <atomic>
#include <thread>

#include "daemon_records.h"
#include "latch.h"
#include "pipes_closed.h"
#include "remote_card_test.h"

namespace tez::test {
namespace {

using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

class PoolTest : public RemoteCardTest {
  protected:
    void countTransmits() {
        DWORD count = 0;
        EXPECT_THAT(SCardGetTransmitCount(card.handle, &count), Gives(SCARD_S_SUCCESS));
    }

    /// Makes calls at once, all of which are with the daemon at the same time.
    void callAtOnce(std::ptrdiff_t calls) {
        Latch allAsked(calls);
        daemon.on(Command::kGetTransmitCount, [&](const Request&) -> std::optional<Reply> {
            allAsked.arriveAndWait();
            return std::nullopt;
        });
        std::vector<std::thread> callers;
        for (std::ptrdiff_t i = 0; i < calls; ++i) {
            callers.emplace_back([this] { countTransmits(); });
        }
        for (std::thread& caller : callers) {
            caller.join();
        }
        daemon.restore(Command::kGetTransmitCount);
    }

    bool waitForOpenConnections(std::size_t count) {
        return daemon.waitUntil([&] { return daemon.openConnections().size() == count; },
                                kPatience);
    }

    std::vector<std::uint64_t> requestConnections() const {
        std::vector<std::uint64_t> connections;
        for (const Request& request : daemon.requests()) {
            connections.push_back(request.connection);
        }
        return connections;
    }
};

TEST_F(PoolTest, CallsOneAfterTheOtherShareAConnection) {
    connectCard();
    const std::uint64_t accepted = daemon.acceptedConnections();
    const std::size_t opens = transport().opens();
    for (int i = 0; i < 10; ++i) {
        countTransmits();
    }
    EXPECT_THAT(requestConnections(), Each(accepted));
    EXPECT_THAT(requestConnections(), SizeIs(10));
    EXPECT_EQ(daemon.acceptedConnections(), accepted);
    EXPECT_EQ(transport().opens(), opens) << "an open connection is not opened again";
    EXPECT_THAT(daemon.handshakes(), IsEmpty());
}

TEST_F(PoolTest, TheMonitorsConnectionIsNotShared) {
    establishContext();
    card = connect(context, kRemoteReader);
    countTransmits();
    EXPECT_THAT(requestConnections(), Each(kWatch + 1));
}

TEST_F(PoolTest, CallsAtOnceHaveAConnectionEach) {
    connectCard();
    callAtOnce(5);
    std::vector<std::uint64_t> connections = requestConnections();
    std::ranges::sort(connections);
    EXPECT_TRUE(std::ranges::adjacent_find(connections) == connections.end());
    EXPECT_THAT(connections, SizeIs(5));
}

TEST_F(PoolTest, NineCallsAtOnceLeaveEightIdleConnections) {
    connectCard();
    callAtOnce(9);
    EXPECT_TRUE(waitForOpenConnections(1 + 8)) << "the monitor's and the idle ones";
    const std::uint64_t accepted = daemon.acceptedConnections();
    callAtOnce(8);
    EXPECT_EQ(daemon.acceptedConnections(), accepted);
    callAtOnce(9);
    EXPECT_EQ(daemon.acceptedConnections(), accepted + 1);
    EXPECT_TRUE(waitForOpenConnections(1 + 8));
}

TEST_F(PoolTest, TheFirstIdleConnectionIsTakenEachTime) {
    connectCard();
    callAtOnce(8);
    daemon.clearRecords();
    for (int i = 0; i < 5; ++i) {
        countTransmits();
    }
    EXPECT_THAT(requestConnections(), Each(requestConnections().front()));
}

TEST_F(PoolTest, AConnectionThatFailedIsOpenedAnewByTheNextCall) {
    connectCard();
    const std::uint64_t failed = daemon.acceptedConnections();
    daemon.on(Command::kGetTransmitCount, closing());
    DWORD count = 0;
    EXPECT_THAT(SCardGetTransmitCount(card.handle, &count), Gives(SCARD_E_NO_SERVICE));
    daemon.restore(Command::kGetTransmitCount);
    countTransmits();
    EXPECT_THAT(requestConnections(), ElementsAre(failed, failed + 1));
    EXPECT_THAT(daemon.handshakes(), SizeIs(1));
}

TEST_F(PoolTest, AConnectionFromBeforeTheDaemonWentIsNotUsedAgain) {
    connectCard();
    countTransmits();
    stopDaemon();
    startDaemon();
    waitForWatch();
    daemon.clearRecords();
    const std::uint64_t accepted = daemon.acceptedConnections();
    listReaders(context);
    EXPECT_THAT(requestConnections(), Each(accepted + 1));
    EXPECT_THAT(log().messages("DaemonConnectionTEZ::sendHeader"), IsEmpty())
        << "no stale pipe was tried";
}

TEST_F(PoolTest, IsEmptiedWhenThePipeComesUpAnew) {
    connectCard();
    const std::uint64_t idle = daemon.acceptedConnections();
    ASSERT_THAT(daemon.openConnections(), Contains(idle));
    // A byte from the daemon ends the watch; the monitor then connects anew.
    ASSERT_TRUE(daemon.send(kWatch, {{0}}));
    ASSERT_TRUE(transport().waitForWatches(2));
    EXPECT_TRUE(waitForOpenConnections(1));
    EXPECT_THAT(daemon.openConnections(), Not(Contains(idle)));
}

TEST_F(PoolTest, AConnectionGivenBackAfterThePipeBrokeIsClosed) {
    connectCard();
    Latch broken(1);
    daemon.on(Command::kGetTransmitCount, [&](const Request&) -> std::optional<Reply> {
        broken.wait();
        return std::nullopt;
    });
    std::thread caller([this] { countTransmits(); });
    ASSERT_TRUE(daemon.waitForRequest(Command::kGetTransmitCount, 1, kPatience));
    // The pipe stays out of the monitor's reach until the call has ended.
    const PipesClosed closed(ERROR_FILE_NOT_FOUND);
    ASSERT_TRUE(daemon.closeConnection(kWatch));
    EXPECT_TRUE(eventually([&] { return closed.attempts() != 0; }));
    broken.countDown();
    caller.join();
    EXPECT_TRUE(waitForOpenConnections(0));
}

TEST_F(PoolTest, WithoutADaemonNoCallLooksForThePipe) {
    std::atomic<int> opens = 0;
    const ImportPatch<decltype(::CreateFileA)> create(
        libraryModule(), "KERNEL32.dll", "CreateFileA",
        [&, thread = GetCurrentThreadId()](LPCSTR name, DWORD access, DWORD share,
                                           LPSECURITY_ATTRIBUTES security, DWORD creation,
                                           DWORD flags, HANDLE file) {
            opens += GetCurrentThreadId() == thread ? 1 : 0;
            return ::CreateFileA(name, access, share, security, creation, flags, file);
        });
    context = establish();
    EXPECT_EQ(opens, 1) << "the first call's own check";
    EXPECT_THAT(listReaders(context), ElementsAre(kHostReader));
    establish();
    EXPECT_EQ(opens, 1);
    EXPECT_THAT(log().messages("establishRemoteContext"),
                ElementsAre("ESTABLISH REMOTE CONTEXT IN-PARAMS: 0",
                            "ESTABLISH REMOTE CONTEXT RV: 0x8010001D"));
}

}  // namespace
}  // namespace tez::test
