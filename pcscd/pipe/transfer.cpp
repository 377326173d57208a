#include "pipe/transfer.h"

#include <algorithm>
#include <array>

#include "pipe/system_failure.h"

namespace tez::pcscd {

UniqueHandle makeEvent() {
    UniqueHandle event(CreateEventA(nullptr, TRUE, FALSE, nullptr));
    if (!event) {
        throw systemFailure("no event");
    }
    return event;
}

bool isSet(HANDLE event) {
    return WaitForSingleObject(event, 0) == WAIT_OBJECT_0;
}

Outcome Transfer::finish(HANDLE file, Interrupts interrupts, Limit limit) {
    std::array<HANDLE, 3> events = {};
    *std::copy(interrupts.begin(), interrupts.end(), events.begin()) = done_.get();
    const auto count = static_cast<DWORD>(interrupts.size());
    const DWORD wait = limit == kNoLimit ? INFINITE : static_cast<DWORD>(limit.count());
    // An interruption comes before success: peers that keep each other busy must not go on for
    // ever.
    const DWORD woken = WaitForMultipleObjects(count + 1, events.data(), FALSE, wait);
    if (woken != WAIT_OBJECT_0 + count) {
        CancelIoEx(file, &overlapped_);
    }
    Outcome outcome;
    if (GetOverlappedResult(file, &overlapped_, &outcome.count, TRUE) == FALSE) {
        outcome.error = woken == WAIT_TIMEOUT ? DWORD{ERROR_TIMEOUT} : GetLastError();
    }
    if (woken < WAIT_OBJECT_0 + count) {
        outcome.error = ERROR_OPERATION_ABORTED;
    }
    return outcome;
}

}  // namespace tez::pcscd
