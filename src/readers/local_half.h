#pragma once

#include <string>
#include <vector>

#include "common/deadline.h"
#include "common/scard_api.h"
#include "common/workers.h"
#include "readers/reader_states.h"
#include "state/waits.h"

namespace tez {

/// The local half of a status-change call: the system library's wait, over copies of the
/// application's entries. It runs on a worker where the remote half is to run beside it, else on
/// the call's own thread. The wait tells when it is over; the object outlives that.
class LocalHalf final : private Job {
  public:
    /// @param systemContext  of the call's context.
    LocalHalf(SCARDCONTEXT systemContext, DWORD timeout, Wait& wait)
        : Job([](Job& job) noexcept {
              auto& half = static_cast<LocalHalf&>(job);
              half.wait(half.timeout_, false);
          }),
          systemContext_(systemContext),
          timeout_(timeout),
          wait_(wait) {}
    LocalHalf(const LocalHalf&) = delete;
    LocalHalf& operator=(const LocalHalf&) = delete;
    ~LocalHalf() = default;

    /// Copies the local entries; until then, and without any, there is no local half. Throws
    /// std::bad_alloc.
    void prepare(const SideEntries& entries);
    bool isEmpty() const noexcept { return copies_.empty(); }

    /// Starts the wait on a worker. Throws std::bad_alloc, with nothing started, when there is
    /// none.
    void startOnWorker();
    /// Waits on the calling thread, unless that is over or a worker has begun to.
    void runHere() noexcept;
    /// Whether it was started on a worker, where it may be over by now.
    bool isOnWorker() const noexcept { return isOnWorker_; }

    SCARDCONTEXT systemContext() const noexcept { return systemContext_; }

    // For a half that is over:

    /// The system library's code; SCARD_E_TIMEOUT when the service monitor interrupted the wait.
    [[nodiscard]] LONG result() const noexcept { return result_; }
    /// Logs the states that the system library left.
    void logNewStates() const noexcept { logStates("NEW LOCAL READER STATE"); }
    /// Adds what the system library reported to the application's entries.
    void merge(SCARD_READERSTATEA* entries) const;

  private:
    void wait(DWORD timeout, bool isOwnThread) noexcept;
    [[nodiscard]] LONG waitInSystem(DWORD timeout, bool isOwnThread) noexcept;
    void logStates(const char* title) const noexcept;

    SCARDCONTEXT systemContext_;
    DWORD timeout_;
    Deadline deadline_{timeout_};
    Wait& wait_;
    ReaderIndexes indexes_;
    std::vector<SCARD_READERSTATEA> copies_;
    /// Theirs on a worker, which may outlive the calling thread, and the names on its stack.
    std::vector<std::string> names_;
    LONG result_ = SCARD_S_SUCCESS;
    bool isOnWorker_ = false;
};

}  // namespace tez
