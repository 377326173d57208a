#include "remote_only_test.h"

using namespace tez;
using test::Bytes;
using test::Command;
using test::establishAnswer;
using test::HandleLayout;
using test::IsSent;
using test::LogLine;
using test::RecordBytes;
using testing::IsEmpty;

class RemoteOnlyContext : public test::RemoteOnlyTest {};

TEST_F(RemoteOnlyContext, IsValidWhileItIsKnown) {
    const SCARDCONTEXT context = registerContext(0, 2);
    EXPECT_EQ(SCardIsValidContext(context), SCARD_S_SUCCESS);
    EXPECT_EQ(SCardIsValidContext(context + 1), SCARD_E_INVALID_HANDLE);
    EXPECT_THAT(daemon().requests, IsEmpty());
}

TEST_F(RemoteOnlyContext, ReleasesNothingThatWasNeverBound) {
    const SCARDCONTEXT context = registerContext(0, 2);
    EXPECT_EQ(SCardReleaseContext(context), SCARD_S_SUCCESS);
    EXPECT_FALSE(isContextKnown(context));
    EXPECT_THAT(daemon().requests, IsEmpty());
    EXPECT_EQ(SCardReleaseContext(context), SCARD_E_INVALID_HANDLE);
}

TEST_F(RemoteOnlyContext, DoesNotReleaseASystemContextOfAnEarlierState) {
    EXPECT_EQ(SCardReleaseContext(registerContext(0x7A000001, 2)), SCARD_S_SUCCESS);
}

TEST_F(RemoteOnlyContext, ReleasesBothOfItsBindings) {
    const SCARDCONTEXT context = registerContext(0, 2);
    daemon().answers = {establishAnswer(0x5000001), establishAnswer(0x5000002)};
    std::uint64_t remoteContext = 0;
    EXPECT_EQ(getRemoteContextVolatile(context, remoteContext, true), SCARD_S_SUCCESS);
    EXPECT_EQ(getRemoteContextVolatile(context, remoteContext, false), SCARD_S_SUCCESS);
    daemon().requests.clear();
    daemon().answers = {RecordBytes(HandleLayout::kSize).u64(HandleLayout::kHandle, 0x5000001),
                        RecordBytes(HandleLayout::kSize).u64(HandleLayout::kHandle, 0x5000002)};
    EXPECT_EQ(SCardReleaseContext(context), SCARD_S_SUCCESS);
    EXPECT_THAT(
        takeRequest(),
        IsSent(Command::kReleaseContext,
               RecordBytes(HandleLayout::kSize).u64(HandleLayout::kHandle, 0x5000001), true));
    EXPECT_THAT(
        takeRequest(),
        IsSent(Command::kReleaseContext,
               RecordBytes(HandleLayout::kSize).u64(HandleLayout::kHandle, 0x5000002), false));
    EXPECT_THAT(daemon().requests, IsEmpty());
}

TEST_F(RemoteOnlyContext, LeavesItsRemoteLocalBindingToTheDaemonInOtherStates) {
    for (const ServiceState state : {ServiceState::LocalOnly, ServiceState::LocalFirst}) {
        setServiceState(ServiceState::RemoteOnly);
        const SCARDCONTEXT context = registerContext(0, 2);
        daemon().answers = {establishAnswer(kDaemonContext)};
        std::uint64_t remoteContext = 0;
        EXPECT_EQ(getRemoteContextVolatile(context, remoteContext, false), SCARD_S_SUCCESS);
        setServiceState(state);
        EXPECT_EQ(SCardReleaseContext(context), SCARD_S_SUCCESS);
        EXPECT_FALSE(isContextKnown(context));
    }
    EXPECT_THAT(log().messages("releaseRemoteContext"), IsEmpty());
}

TEST_F(RemoteOnlyContext, SwallowsTheFailureOfARemoteRelease) {
    const SCARDCONTEXT context = boundContext();
    daemon().answers = {RecordBytes(HandleLayout::kSize).u32(HandleLayout::kResult, 0x80100003)};
    EXPECT_EQ(SCardReleaseContext(context), SCARD_S_SUCCESS);
    EXPECT_THAT(log().entries(),
                testing::Contains(
                    LogLine('D', "releaseRemoteContext", "RELEASE REMOTE CONTEXT RV: 0x80100003")));
    EXPECT_FALSE(isContextKnown(context));
}

TEST_F(RemoteOnlyContext, IsCancelledAtTheDaemonAlone) {
    const SCARDCONTEXT context = boundContext();
    daemon().answers = {
        RecordBytes(HandleLayout::kSize).u64(HandleLayout::kHandle, kDaemonContext)};
    EXPECT_EQ(SCardCancel(context), SCARD_S_SUCCESS);
    EXPECT_THAT(
        takeRequest(),
        IsSent(Command::kCancel,
               RecordBytes(HandleLayout::kSize).u64(HandleLayout::kHandle, kDaemonContext)));
    EXPECT_TRUE(unregisterContext(context)->cancelled);
}

TEST_F(RemoteOnlyContext, ReturnsTheDaemonsResultOfACancel) {
    const SCARDCONTEXT context = boundContext();
    daemon().answers = {RecordBytes(HandleLayout::kSize)
                            .u64(HandleLayout::kHandle, kDaemonContext)
                            .u32(HandleLayout::kResult, 0x80100003)};
    EXPECT_EQ(SCardCancel(context), SCARD_E_INVALID_HANDLE);
}

TEST_F(RemoteOnlyContext, TakesACancelWithoutTheDaemonForDone) {
    const SCARDCONTEXT context = boundContext();  // and there is no answer to the cancel
    EXPECT_EQ(SCardCancel(context), SCARD_S_SUCCESS);
    EXPECT_EQ(takeRequest().command, Command::kCancel);
}

TEST_F(RemoteOnlyContext, IsNotCancelledWhenItIsUnknown) {
    EXPECT_EQ(SCardCancel(1), SCARD_E_INVALID_HANDLE);
    EXPECT_THAT(daemon().requests, IsEmpty());
}
