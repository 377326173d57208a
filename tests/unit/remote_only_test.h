#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "common/scard_api.h"
#include "context/card_handle_registry.h"
#include "context/context_registry.h"
#include "fake_daemon.h"
#include "fake_system_library.h"
#include "log_matchers.h"

namespace tez::test {

/// The exported calls in the state in which all of them go to the daemon. The system library is
/// there, and a call of any of its entry points fails the test.
class RemoteOnlyTest : public testing::Test {
  protected:
    static constexpr std::uint64_t kDaemonContext = 0x5000001;
    static constexpr std::uint64_t kDaemonCard = 0x6000001;

    FakeDaemonState& daemon() { return service_.daemon(); }
    SentRequest takeRequest() { return service_.takeRequest(); }
    const FreshLog& log() const { return log_; }

    /// A context without a system side, as this state makes them, that is bound to kDaemonContext.
    SCARDCONTEXT boundContext() {
        const SCARDCONTEXT context = registerContext(0, 2);
        daemon().answers.push_back(establishAnswer(kDaemonContext));
        std::uint64_t remoteContext = 0;
        EXPECT_EQ(getRemoteContextVolatile(context, remoteContext, true), SCARD_S_SUCCESS);
        takeRequest();
        return context;
    }

    /// A card that the daemon serves as kDaemonCard.
    SCARDHANDLE remoteCard() {
        return registerCardHandle(kDaemonCard, boundContext(), "Reader A", false);
    }

  private:
    FakeSystemLibrary system_;
    FreshLog log_;
    RemoteOnlyService service_;
};

}  // namespace tez::test
