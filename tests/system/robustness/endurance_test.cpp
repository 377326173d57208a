// What months of use must not add up to: blocks, handles or threads for each time that the daemon
// comes and goes, and for each call.
#include <windows.h>

#include <tlhelp32.h>

#include "handle_spy.h"
#include "heap_spy.h"
#include "pipe/unique_handle.h"
#include "remote_card_test.h"

namespace tez::test {
namespace {

/// What the process holds that could grow.
struct Holdings {
    std::size_t blocks;
    std::size_t handles;
    std::size_t threads;
};

class EnduranceTest : public RemoteCardTest {
  protected:
    static std::size_t threads() {
        const UniqueHandle snapshot(CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0));
        THREADENTRY32 entry = {};
        entry.dwSize = sizeof entry;
        std::size_t count = 0;
        for (BOOL more = Thread32First(snapshot.get(), &entry); more != FALSE;
             more = Thread32Next(snapshot.get(), &entry)) {
            count += entry.th32OwnerProcessID == GetCurrentProcessId() ? 1U : 0U;
        }
        return count;
    }

    Holdings holdings() const { return {heap_.outstanding(), handles_.outstanding(), threads()}; }

    /// An application's day: waits, cards of the daemon, a started event, while the daemon is there
    /// and when it has gone. Cards of the host are left out: their handles stay known for good.
    void liveThroughADay() {
        startDaemon();
        waitForWatch();
        context = establish();
        EXPECT_THAT(listReaders(context), testing::ElementsAre(kRemoteReader, kHostReader));
        card = connect(context, kRemoteReader);
        EXPECT_EQ(transmit(card, getChallenge()).size(), 10U);
        waitForCards();
        EXPECT_NE(SCardAccessStartedEvent(), nullptr);
        SCardReleaseStartedEvent();
        EXPECT_THAT(SCardCancel(context), Gives(SCARD_S_SUCCESS));
        EXPECT_THAT(SCardDisconnect(card.handle, SCARD_LEAVE_CARD), Gives(SCARD_S_SUCCESS));
        stopDaemon();
        EXPECT_THAT(listReaders(context), testing::ElementsAre(kHostReader));
        waitForCards();
        EXPECT_NE(SCardAccessStartedEvent(), nullptr);
        SCardReleaseStartedEvent();
        EXPECT_THAT(SCardReleaseContext(context), Gives(SCARD_S_SUCCESS));
    }

    void waitForCards() const {
        SCARD_READERSTATEA states[2] = {};
        states[0].szReader = kHostReader;
        states[1].szReader = kRemoteReader;
        EXPECT_THAT(SCardGetStatusChangeA(context, 60000, states, 2), Gives(SCARD_S_SUCCESS));
    }

  private:
    HeapSpy heap_{HeapSpy::Threads::All};  // most is done on the monitor's and on workers
    HandleSpy handles_;
};

TEST_F(EnduranceTest, LeavesNothingBehindOfDaysThatTheDaemonComesAndGoes) {
    establish();
    for (int day = 0; day < 3; ++day) {
        liveThroughADay();
    }
    const Holdings before = holdings();
    for (int day = 0; day < 15; ++day) {
        liveThroughADay();
    }
    // A thread of the daemon in this process may still be ending.
    EXPECT_TRUE(eventually([&] {
        const Holdings after = holdings();
        return after.blocks <= before.blocks && after.handles <= before.handles &&
               after.threads <= before.threads;
    })) << holdings().blocks
        << " of " << before.blocks << " blocks, " << holdings().handles << " of " << before.handles
        << " handles, " << holdings().threads << " of " << before.threads << " threads";
}

}  // namespace
}  // namespace tez::test
