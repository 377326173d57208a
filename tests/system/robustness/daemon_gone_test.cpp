// The whole daemon gone before a call, or at any moment between two of the transfers that a call
// makes: the call ends with its code, and with the next daemon it is served as ever.
#include <utility>

#include "catalogue_test.h"
#include "failing_writes.h"

namespace tez::test {
namespace {

using testing::AnyOf;
using testing::SizeIs;

enum class Transfer : std::uint8_t { kWrite, kRead };

/// Shows a test each transfer that the library begins on the test's thread.
class Transfers {
  public:
    explicit Transfers(std::function<void(Transfer)> begins) : begins_(std::move(begins)) {}

  private:
    const std::function<void(Transfer)> begins_;
    const FailingWrites writes_{[this](DWORD /*size*/) {
        begins_(Transfer::kWrite);
        return false;  // none fails
    }};
    const ImportPatch<decltype(::ReadFile)> reads_{
        libraryModule(), "KERNEL32.dll", "ReadFile",
        [this, thread = GetCurrentThreadId()](HANDLE file, LPVOID data, DWORD size, LPDWORD read,
                                              LPOVERLAPPED overlapped) {
            if (GetCurrentThreadId() == thread) {
                begins_(Transfer::kRead);
            }
            return ::ReadFile(file, data, size, read, overlapped);
        }};
};

class DaemonGoneTest : public CatalogueTest {
  protected:
    /// The next daemon is there, and gives contexts of its own.
    void bringDaemonBack() {
        daemon.clearRecords();
        startDaemon();
        waitForWatch();
        card = connect(context, kRemoteReader);
        EXPECT_THAT(daemon.requests(Command::kEstablishContext), SizeIs(1));
        EXPECT_THAT(call(), Gives(SCARD_S_SUCCESS)) << "with the next daemon";
    }

    /// What a call gives that was under way with the daemon.
    /// @param mayHaveAnswered  whether all that the call asked may have been asked by then
    static testing::Matcher<LONG> givesAnEnd(bool mayHaveAnswered) {
        const LONG failure = GetParam().failure(SCARD_E_NO_SERVICE);
        if (GetParam().name.starts_with("SCardConnect") ||
            GetParam().name == "SCardEstablishContext") {
            // Or what it has opened cannot be closed any more, or need not be.
            return AnyOf(Gives(failure), Gives(SCARD_E_INVALID_HANDLE), Gives(SCARD_S_SUCCESS));
        }
        return AnyOf(Gives(failure), Gives(mayHaveAnswered ? SCARD_S_SUCCESS : failure));
    }

  private:
    /// The monitor looks for the daemon at once, so that it may go often.
    const ImportPatch<decltype(::Sleep)> rest_{
        libraryModule(), "KERNEL32.dll", "Sleep",
        [](DWORD time) { ::Sleep(std::min<DWORD>(time, 2)); }};
};

TEST_P(DaemonGoneTest, BeforeTheCallLeavesTheHostAlone) {
    redirectDatabaseCalls();
    context = establish();
    closeHostsCache(host);
    const LONG alone = GetParam().isCardCall() ? SCARD_E_INVALID_HANDLE : call();
    startDaemon();
    waitForWatch();
    serveAnswers(daemon, callsWith(reachesDaemon));
    card = connect(context, kRemoteReader);
    const Target on = target();
    stopDaemon();
    EXPECT_THAT(GetParam().make(on), Gives(alone)) << "as if there had never been one";
    bringDaemonBack();
}

TEST_P(DaemonGoneTest, BetweenTwoTransfersEndsTheCall) {
    connectBothSides();
    bool isGone = true;
    for (std::size_t last = 1; isGone && !HasFailure(); ++last) {
        SCOPED_TRACE("before transfer " + std::to_string(last));
        const Target on = target();
        const std::size_t looks = transport().monitorOpens();
        std::size_t count = 0;
        bool mayHaveAnswered = true;
        LONG rv = SCARD_S_SUCCESS;
        {
            const Transfers transfers([&](Transfer transfer) {
                if (++count == last) {
                    mayHaveAnswered = transfer == Transfer::kRead;
                    daemon.stop();
                }
            });
            rv = GetParam().make(on);
        }
        isGone = count >= last;
        EXPECT_TRUE(isGone || last > 1) << "the daemon was not asked";
        EXPECT_THAT(rv, givesAnEnd(mayHaveAnswered));
        if (isGone) {
            EXPECT_TRUE(transport().waitForMonitorOpens(looks + 1));
            bringDaemonBack();
        }
    }
}

INSTANTIATE_TEST_SUITE_P(EveryCall, DaemonGoneTest, testing::ValuesIn(callsWith(reachesDaemon)),
                         nameOfCall);

}  // namespace
}  // namespace tez::test
