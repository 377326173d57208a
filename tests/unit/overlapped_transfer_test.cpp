#include "daemon/overlapped_transfer.h"

#include <gtest/gtest.h>
#include <memory>

using namespace tez;

namespace {

constexpr ULONG_PTR kStatusPending = 0x103;  // as the platform marks a transfer in progress

bool isOpen(HANDLE handle) {
    DWORD flags = 0;
    return GetHandleInformation(handle, &flags) != FALSE;
}

}  // namespace

TEST(OverlappedTransfer, BeginsCompleteWithItsEventNotSignalled) {
    const std::unique_ptr<OverlappedTransfer> transfer = OverlappedTransfer::create();
    ASSERT_NE(transfer, nullptr);
    EXPECT_EQ(transfer->overlapped()->hEvent, transfer->event());
    EXPECT_EQ(transfer->overlapped()->Offset, 0U);
    EXPECT_EQ(WaitForSingleObject(transfer->event(), 0), WAIT_TIMEOUT);
}

TEST(OverlappedTransfer, HasAnEventThatStaysSignalled) {
    const std::unique_ptr<OverlappedTransfer> transfer = OverlappedTransfer::create();
    ASSERT_NE(transfer, nullptr);
    SetEvent(transfer->event());
    EXPECT_EQ(WaitForSingleObject(transfer->event(), 0), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(transfer->event(), 0), WAIT_OBJECT_0);
}

TEST(OverlappedTransfer, RetiredIsFreedAtOnceWhenTheKernelIsDoneWithIt) {
    std::unique_ptr<OverlappedTransfer> list;
    HANDLE events[3];
    for (HANDLE& event : events) {
        std::unique_ptr<OverlappedTransfer> transfer = OverlappedTransfer::create();
        event = transfer->event();
        OverlappedTransfer::push(list, std::move(transfer));
    }
    OverlappedTransfer::retire(std::move(list));
    for (const HANDLE event : events) {
        EXPECT_FALSE(isOpen(event));
    }
}

TEST(OverlappedTransfer, RetiredLivesOnUntilTheKernelIsDoneWithIt) {
    std::unique_ptr<OverlappedTransfer> list;
    std::unique_ptr<OverlappedTransfer> pending = OverlappedTransfer::create();
    OVERLAPPED* const overlapped = pending->overlapped();
    const HANDLE pendingEvent = pending->event();
    overlapped->Internal = kStatusPending;
    OverlappedTransfer::push(list, std::move(pending));
    std::unique_ptr<OverlappedTransfer> done = OverlappedTransfer::create();
    const HANDLE doneEvent = done->event();
    OverlappedTransfer::push(list, std::move(done));

    OverlappedTransfer::retire(std::move(list));
    EXPECT_FALSE(isOpen(doneEvent));
    EXPECT_TRUE(isOpen(pendingEvent));
    OverlappedTransfer::retire(nullptr);
    EXPECT_TRUE(isOpen(pendingEvent));

    overlapped->Internal = 0;
    OverlappedTransfer::retire(nullptr);
    EXPECT_FALSE(isOpen(pendingEvent));
}
