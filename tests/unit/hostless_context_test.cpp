// A context that the host's library has no counterpart of, while there is a host: what an
// application sees of one that could not be made when the daemon left.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "common/scard_api.h"
#include "context/context_registry.h"
#include "daemon/service_state.h"
#include "fake_system_library.h"
#include "log_matchers.h"

using namespace tez;
using test::FakeSystemLibrary;
using test::FreshLog;
using test::LogLine;
using testing::Contains;
using testing::Not;
using testing::StartsWith;

/// With no daemon on the pipe, in both states that know a host. Every call of the host fails the
/// test.
class HostlessContext : public testing::TestWithParam<ServiceState> {
  protected:
    void SetUp() override { setServiceState(GetParam()); }

    FreshLog log;
    SCARDCONTEXT context = registerContext(0, SCARD_SCOPE_SYSTEM);
    DWORD length = 77;

  private:
    FakeSystemLibrary system_;
};

TEST_P(HostlessContext, IsNotValid) {
    EXPECT_EQ(SCardIsValidContext(context), SCARD_E_INVALID_HANDLE);
}

TEST_P(HostlessContext, ListsNoReaders) {
    EXPECT_EQ(SCardListReadersA(context, nullptr, nullptr, &length), SCARD_E_INVALID_HANDLE);
    EXPECT_EQ(length, 77U);
}

TEST_P(HostlessContext, KnowsTheDefaultGroupAlone) {
    EXPECT_EQ(SCardListReaderGroupsA(context, nullptr, &length), SCARD_S_SUCCESS);
    EXPECT_EQ(length, 22U);
    EXPECT_EQ(SCardListReaderGroupsA(context, nullptr, nullptr), SCARD_E_INVALID_HANDLE);
}

TEST_P(HostlessContext, ConnectsOnNeitherSide) {
    SCARDHANDLE card = 77;
    EXPECT_EQ(
        SCardConnectA(context, "Reader", SCARD_SHARE_SHARED, SCARD_PROTOCOL_Tx, &card, &length),
        SCARD_E_INVALID_HANDLE);
    EXPECT_EQ(card, 77U);
    EXPECT_THAT(log.entries(),
                Not(Contains(LogLine('D', "SCardConnectA", StartsWith("local call failed")))));
}

TEST_P(HostlessContext, HasNothingToCancelOnTheHost) {
    EXPECT_EQ(SCardCancel(context), SCARD_E_INVALID_HANDLE);
}

TEST_P(HostlessContext, IsReleasedAllTheSame) {
    EXPECT_EQ(SCardReleaseContext(context), SCARD_S_SUCCESS);
    EXPECT_FALSE(isContextKnown(context));
}

INSTANTIATE_TEST_SUITE_P(State, HostlessContext,
                         testing::Values(ServiceState::LocalOnly, ServiceState::LocalFirst),
                         [](const auto& given) {
                             return given.param == ServiceState::LocalOnly ? "LocalOnly"
                                                                           : "LocalFirst";
                         });
