#include "protocol/wait_cancel.h"

#include <memory>
#include <new>

#include "common/thread.h"
#include "context/routing.h"
#include "daemon/exchange.h"
#include "local/local_calls.h"
#include "state/repeat_until.h"
#include "state/status_waits.h"
#include "wire/card_records.h"

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

/// One thread for each wait: a daemon that does not answer a cancel holds up no other wait's.
bool startRepeating(SCARDCONTEXT context, const std::shared_ptr<StatusWait>& wait) noexcept {
    Thread thread;
    const bool isStarted = thread.start([context, wait]() noexcept {
        repeatUntil([&](DWORD timeout) { return wait->awaitEnd(timeout); },
                    [&] { cancelAgain(*wait, context); });
    });
    thread.detach();
    return isStarted;
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
        for (const auto& wait : findStatusWaits(context)) {
            wait->markCancelled();
            if (wait->claimCancel() && !startRepeating(context, wait)) {
                wait->giveClaimBack();
                cancelLog.warning("Could not see to it that the wait ends");
            }
        }
    } catch (const std::bad_alloc&) {
        cancelLog.warning("Could not see to it that the waits end");
    }
}

}  // namespace tez
