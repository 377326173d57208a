#pragma once

#include <gmock/gmock.h>

#include "system_library/host_service.h"

namespace tez::test {

/// The system library as a test wants it to be: what the test does not say goes to a HostService of
/// the mock's own, so that a test states only what differs, and sees every call with its arguments:
///
///     EXPECT_CALL(host, SCardConnectA(_, StrEq("Host Reader 0"), _, _, _, _))
///         .WillOnce(Return(SCARD_E_SHARING_VIOLATION));
class MockSystemCalls : public SystemCalls {
  public:
    MockSystemCalls();
    ~MockSystemCalls() override;

    /// What answers by default.
    HostService& service() noexcept { return service_; }
    SimulatedService& pcsc() noexcept { return service_.pcsc(); }
    /// Answers that the test makes up take auto-allocated buffers from here.
    SystemHeap& heap() noexcept { return service_.heap(); }
    StartedEvent& startedEvent() noexcept { return service_.startedEvent(); }

// NOLINTNEXTLINE(bugprone-macro-parentheses): names and parameter lists are no expressions
#define TEZ_MOCK_CALL(Result, name, parameters, arguments) \
    MOCK_METHOD(Result, name, parameters, (override));
    TEZ_FOR_EACH_SYSTEM_CALL(TEZ_MOCK_CALL)
#undef TEZ_MOCK_CALL

  private:
    HostService service_;
};

}  // namespace tez::test
