#include "daemon/overlapped_transfer.h"

#include <new>
#include <utility>

#include "common/never_destroyed.h"
#include "common/slim_lock.h"

namespace tez {

OverlappedTransfer::OverlappedTransfer(OwnedHandle event) noexcept : event_(std::move(event)) {
    overlapped_.hEvent = event_.get();
}

std::unique_ptr<OverlappedTransfer> OverlappedTransfer::create() noexcept {
    OwnedHandle event(CreateEventA(nullptr, TRUE, FALSE, nullptr));
    if (event == nullptr) {
        return nullptr;
    }
    std::unique_ptr<OverlappedTransfer> transfer(new (std::nothrow)
                                                     OverlappedTransfer(std::move(event)));
    if (transfer == nullptr) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    }
    return transfer;
}

void OverlappedTransfer::push(std::unique_ptr<OverlappedTransfer>& list,
                              std::unique_ptr<OverlappedTransfer> transfer) noexcept {
    transfer->next_ = std::move(list);
    list = std::move(transfer);
}

void OverlappedTransfer::retire(std::unique_ptr<OverlappedTransfer> list) noexcept {
    static SlimLock lock;
    static NeverDestroyed<std::unique_ptr<OverlappedTransfer>> unfinished;

    const SlimGuard guard(lock);
    std::unique_ptr<OverlappedTransfer>* lists[] = {&list, &*unfinished};
    std::unique_ptr<OverlappedTransfer> kept;
    for (std::unique_ptr<OverlappedTransfer>* source : lists) {
        while (*source != nullptr) {
            std::unique_ptr<OverlappedTransfer> transfer = std::move(*source);
            *source = std::move(transfer->next_);
            if (!HasOverlappedIoCompleted(transfer->overlapped())) {
                push(kept, std::move(transfer));
            }
        }
    }
    *unfinished = std::move(kept);
}

}  // namespace tez
