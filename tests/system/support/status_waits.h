// What the tests of SCardGetStatusChangeA share.
#pragma once

#include <chrono>
#include <memory>
#include <vector>

#include "import_patch.h"
#include "reader_states.h"
#include "record_codec.h"
#include "record_layout.h"
#include "request_matchers.h"
#include "system_test.h"

namespace tez::test {

// Under which names the library logs the call.
constexpr const char* kStatusChange = "SCardGetStatusChangeA";
constexpr const char* kLocalStatusChange = "LocalSCardGetStatusChange";

// What it logs when one side ends the other's wait.
constexpr const char* kCancelLocal =
    "canceling local SCardGetStatusChange by invoking local SCardCancel";
constexpr const char* kCancelRemote =
    "canceling remote SCardGetStatusChange by invoking remote SCardCancel";
constexpr const char* kCancelLocalAgain = "canceling local SCardGetStatusChange again";
constexpr const char* kCancelRemoteAgain = "canceling remote SCardGetStatusChange again";

/// Milliseconds in which most waits are over whose ends were not lost: repeats that grow to this
/// have missed several times. A busy machine may hold any one of them up, but not most.
constexpr ULONGLONG kSoon = 900;
ULONGLONG median(std::vector<ULONGLONG> values);

/// Milliseconds in which any one of them is over, however busy the machine.
constexpr ULONGLONG kInTime = 5000;

/// The bytes of a status-change request: header, record and reader records, as they are to stand on
/// the pipe.
Bytes statusChangeHeader(std::size_t readers);
Bytes statusChangeBody(std::uint64_t remoteContext, DWORD timeout,
                       const std::vector<SCARD_READERSTATEA>& readers);

/// A call of SCardGetStatusChangeA on a thread of its own. Thread-safe.
class BackgroundWait {
  public:
    BackgroundWait(SCARDCONTEXT context, DWORD timeout, std::vector<SCARD_READERSTATEA> states);

    /// Whether the call has returned, or does so within the time.
    bool isOver(std::chrono::milliseconds timeout = std::chrono::milliseconds(0)) const;
    /// The call's result; throws std::runtime_error when it does not return within kPatience.
    LONG result() const;
    /// The entries that it left; to be asked for after result.
    const SCARD_READERSTATEA& state(std::size_t index) const;
    /// How long the call took, in milliseconds; to be asked for after result.
    ULONGLONG duration() const;

  private:
    struct Call;
    std::shared_ptr<Call> call_;
};

/// A place where one thread is held until another one lets it go on. Copies are the same place, so
/// that a handler which outlives the test can hold it.
class Gate {
  public:
    Gate();

    /// Waits until the gate is open, kPatience at most.
    void pass() const;
    void open() const;
    /// Waits until someone has come to the gate; false when nobody does within kPatience.
    bool waitUntilReached() const;

  private:
    struct State;
    std::shared_ptr<State> state_;
};

/// Lets the pauses of a wait for the daemon's context, of a second at most each, be over at once,
/// and tells how long they were to be.
class SkippedPauses {
  public:
    SkippedPauses();

    /// In milliseconds.
    const std::vector<DWORD>& durations() const noexcept { return durations_; }

  private:
    DWORD thread_ = GetCurrentThreadId();
    std::vector<DWORD> durations_;
    ULONGLONG skipped_ = 0;
    ImportPatch<decltype(::GetTickCount64)> clock_;
    ImportPatch<decltype(::WaitForMultipleObjects)> wait_;
};

/// Tests of status-change calls: both readers hold a card at first.
class StatusChangeTest : public SystemTest {
  protected:
    static constexpr std::uint64_t kFirstRemoteContext = kFirstDaemonContext;
    static constexpr SCARDCONTEXT kFirstHostContext = 0x7A000001;

    /// establishWithDaemon and the readers listed, so that the daemon's context is there and the
    /// requests on record are the test's own.
    SCARDCONTEXT establishAndList();

    /// Entries that do not differ from how the readers are at first.
    static SCARD_READERSTATEA unchangedHost();
    static SCARD_READERSTATEA unchangedRemote();

    /// A wait without limit on both readers, with both sides inside of it.
    BackgroundWait waitOnBothSides(SCARDCONTEXT context);
    /// Throw std::runtime_error when no wait begins there.
    void waitForRemoteWait(std::size_t waits = 1) const;
    void waitForHostWait(std::size_t waits = 1);

    /// Releases a context. @return a wait on the daemon's reader that has begun meanwhile.
    BackgroundWait beginWaitInRelease(SCARDCONTEXT context);

    /// Lets the host's waits begin only behind a gate.
    Gate holdHostWaits();

    /// Lets the monitor's first pass, which repeats the check of the first call, find the daemon
    /// only behind a gate.
    Gate holdFirstPass();

    std::size_t remoteCancels() const { return daemon.requests(Command::kCancel).size(); }
};

}  // namespace tez::test
