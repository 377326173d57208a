#include "daemon/overlapped_transfer.h"

#include <new>
#include <utility>

#include "common/never_destroyed.h"
#include "common/slim_lock.h"

namespace tez {

std::unique_ptr<OverlappedTransfer> OverlappedTransfer::create(
    std::unique_ptr<OverlappedTransfer> spare) noexcept {
    OwnedHandle event(CreateEventA(nullptr, TRUE, FALSE, nullptr));
    if (event == nullptr) {
        return nullptr;
    }
    if (spare == nullptr) {
        spare.reset(new (std::nothrow) OverlappedTransfer);
    }
    if (spare == nullptr) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return nullptr;
    }
    spare->event_ = std::move(event);
    spare->overlapped_ = {};
    spare->overlapped_.hEvent = spare->event();
    spare->isPending_ = false;
    return spare;
}

void OverlappedTransfer::push(std::unique_ptr<OverlappedTransfer>& list,
                              std::unique_ptr<OverlappedTransfer> transfer) noexcept {
    transfer->next_ = std::move(list);
    list = std::move(transfer);
}

void OverlappedTransfer::retire(std::unique_ptr<OverlappedTransfer> list) noexcept {
    static SlimLock lock;
    static NeverDestroyed<std::unique_ptr<OverlappedTransfer>> left;

    std::unique_ptr<OverlappedTransfer>& unfinished = *left;  // made before the lock is taken
    const SlimGuard guard(lock);
    std::unique_ptr<OverlappedTransfer>* lists[] = {&list, &unfinished};
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
    unfinished = std::move(kept);
}

}  // namespace tez
