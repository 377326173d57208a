#include "remote_only_test.h"

using namespace tez;
using testing::IsEmpty;

/// Establishing starts the poll thread, which looks for the daemon's pipe.
class RemoteOnlyEstablish : public test::RemoteOnlyTest {};

TEST_F(RemoteOnlyEstablish, MakesAContextWithoutASystemSideOrARequest) {
    SCARDCONTEXT first = 0;
    SCARDCONTEXT second = 0;
    EXPECT_EQ(SCardEstablishContext(SCARD_SCOPE_SYSTEM, nullptr, nullptr, &first), SCARD_S_SUCCESS);
    EXPECT_EQ(SCardEstablishContext(SCARD_SCOPE_USER, nullptr, nullptr, &second), SCARD_S_SUCCESS);
    EXPECT_EQ(first, 1U);
    EXPECT_EQ(second, 2U);
    EXPECT_EQ(getLocalContext(first), 0U);
    EXPECT_EQ(unregisterContext(first)->scope, static_cast<DWORD>(SCARD_SCOPE_SYSTEM));
    EXPECT_EQ(unregisterContext(second)->scope, static_cast<DWORD>(SCARD_SCOPE_USER));
    EXPECT_THAT(daemon().requests, IsEmpty());
}

TEST_F(RemoteOnlyEstablish, RefusesAMissingPlaceForTheHandle) {
    EXPECT_EQ(SCardEstablishContext(SCARD_SCOPE_SYSTEM, nullptr, nullptr, nullptr),
              SCARD_E_INVALID_PARAMETER);
    EXPECT_FALSE(isContextKnown(1));
}
