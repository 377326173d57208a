#include "protocol/wait_cancel.h"

#include <new>
#include <utility>
#include <vector>

#include "common/thread.h"
#include "context/routing.h"
#include "daemon/exchange.h"
#include "local/local_calls.h"
#include "protocol/wire/card_records.h"
#include "readers/state/repeat_interval.h"
#include "readers/state/status_waits.h"

namespace tez {

namespace {

constexpr FunctionLog cancelLog("SCardCancel");

/// Repeats the cancel on whichever side of the wait has not ended.
void cancelAgain(StatusWait& wait, SCARDCONTEXT context) noexcept {
    if (const auto remoteContext = wait.remoteContextInUse()) {
        cancelLog.debug("canceling remote SCardGetStatusChange again");
        cancelRemoteWait(cancelLog, *remoteContext);
    }
    if (wait.isLocalInProgress()) {
        cancelLog.debug("canceling local SCardGetStatusChange again");
        withLocalContext(context, LocalSCardCancel);
    }
}

}  // namespace

void cancelRemoteWait(const FunctionLog& log, std::uint64_t remoteContext) noexcept {
    try {
        HandleRecord record = {remoteContext, 0};
        exchangeRecord(log, CMD_CANCEL, record);
    } catch (const std::bad_alloc&) {
        log.warning("Failed to send data");
    }
}

void keepCancelling(SCARDCONTEXT context) noexcept {
    try {
        auto waits = findStatusWaits(context);
        std::erase_if(waits, [](const auto& wait) { return !wait->claimCancel(); });
        if (waits.empty()) {
            return;
        }
        Thread thread;
        if (thread.start([context, waits = std::move(waits)]() noexcept {
                for (const auto& wait : waits) {
                    RepeatInterval interval;
                    while (!wait->awaitEnd(interval.next())) {
                        cancelAgain(*wait, context);
                    }
                }
            })) {
            thread.detach();
            return;
        }
    } catch (const std::bad_alloc&) {
        // as when there is no thread
    }
    cancelLog.warning("Could not see to it that the wait ends");
}

}  // namespace tez
