#include "readers/remote_cancel.h"

#include <new>

namespace tez {

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
