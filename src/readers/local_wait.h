#pragma once

#include <vector>

#include "common/scard_api.h"
#include "common/thread.h"
#include "readers/reader_states.h"
#include "state/status_wait.h"

namespace tez {

/// The local half of a status-change call: the system library's wait, on a thread of its own, over
/// copies of the application's entries. start, then finish; the object outlives the thread.
class LocalWait {
  public:
    /// @param context        the application's context; systemContext: its system counterpart.
    /// @param interruptions  countInterruptions() at the start of the call.
    LocalWait(SCARDCONTEXT context, SCARDCONTEXT systemContext, DWORD timeout, StatusWait& wait,
              std::uint64_t interruptions);
    LocalWait(const LocalWait&) = delete;
    LocalWait& operator=(const LocalWait&) = delete;
    ~LocalWait() = default;

    /// Copies the entries and starts the wait. Throws std::bad_alloc, with nothing started.
    /// @param remoteIndexes  the number of entries that the remote half has.
    void start(const SCARD_READERSTATEA* entries, const ReaderIndexes& indexes,
               std::size_t remoteIndexes);

    bool isStarted() const noexcept { return thread_.joinable(); }

    /// Cancels the wait, if asked to, and waits for its end.
    /// @param cancelNow  whether the remote half has a change to report that ends the call.
    /// @return the system library's code; SCARD_E_TIMEOUT when the service monitor interrupted it.
    LONG finish(const FunctionLog& log, bool cancelNow);

    /// Adds what the system library reported to the application's entries.
    void merge(SCARD_READERSTATEA* entries) const;

  private:
    void run() noexcept;
    LONG waitInSystem() noexcept;
    void cancelRemote() noexcept;
    void logStates(const char* title) const;

    SCARDCONTEXT context_;
    SCARDCONTEXT systemContext_;
    DWORD timeout_;
    StatusWait& wait_;
    std::uint64_t interruptions_;
    ReaderIndexes indexes_;
    std::vector<SCARD_READERSTATEA> copies_;
    LONG result_ = SCARD_S_SUCCESS;
    Thread thread_;
};

}  // namespace tez
