#pragma once

#include <memory>
#include <vector>

#include "common/scard_api.h"
#include "state/status_wait.h"

namespace tez {

/// A status-change call that waits, known by its context, process-wide, for as long as the object
/// lives. Made and destroyed by the call's thread.
class StatusWaitInProgress {
  public:
    /// @param context  the application's. Throws std::bad_alloc.
    explicit StatusWaitInProgress(SCARDCONTEXT context);
    StatusWaitInProgress(const StatusWaitInProgress&) = delete;
    StatusWaitInProgress& operator=(const StatusWaitInProgress&) = delete;
    ~StatusWaitInProgress();

    StatusWait& operator*() const noexcept { return *wait_; }

  private:
    SCARDCONTEXT context_;
    std::shared_ptr<StatusWait> wait_;
};

/// The waits of a context; they may end at any time. Any thread may call. Throws std::bad_alloc.
std::vector<std::shared_ptr<StatusWait>> findStatusWaits(SCARDCONTEXT context);

}  // namespace tez
