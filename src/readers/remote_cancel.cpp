#include "readers/remote_cancel.h"

#include <windows.h>

#include <new>

namespace tez {

namespace {

// The daemon answers the wait and its cancel at nearly the same time, in either order. A pipe that
// is closed between the two costs the next call a new one, and the cancel may be carried out when
// another wait is there to end.
constexpr DWORD kPatience = 50;  // milliseconds

}  // namespace

RemoteCancel::~RemoteCancel() {
    if (isUnderWay() && WaitForSingleObject(answered(), kPatience) == WAIT_OBJECT_0) {
        finish();
    }
}

void RemoteCancel::send(const FunctionLog& log, std::uint64_t remoteContext) noexcept {
    try {
        mark_.emplace(WaitSide::Remote, remoteContext);
        exchange_.emplace(log);
        record_ = {remoteContext, 0};
        if (!exchange_->hasConnection() ||
            exchange_->sendHeader(CMD_CANCEL, sizeof(record_), 0) != SCARD_S_SUCCESS ||
            exchange_->send(&record_, sizeof(record_), "Failed to send header") !=
                SCARD_S_SUCCESS ||
            exchange_->startReceive(record_) != SCARD_S_SUCCESS) {
            exchange_.reset();
        }
    } catch (const std::bad_alloc&) {
        log.warning("Failed to send data");
        exchange_.reset();
    }
    if (!exchange_) {
        mark_.reset();
    }
}

void RemoteCancel::finish() noexcept {
    static_cast<void>(exchange_->finishReceive());
    exchange_.reset();
    mark_.reset();
}

}  // namespace tez
