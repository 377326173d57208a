// With standard answers the first change ends a wait, whatever its time-out, and every entry comes
// back with its present state.
#include "standard_calls.h"

namespace tez::test {
namespace {

using testing::_;
using testing::Return;

class FirstChange : public StandardTest {
  protected:
    BackgroundWait waitFor(DWORD timeout) {
        context = establishAndList();
        BackgroundWait wait(context, timeout, {unchangedHost(), unchangedRemote()});
        waitForRemoteWait();
        waitForHostWait();
        return wait;
    }

    SCARDCONTEXT context = 0;
};

TEST_F(FirstChange, OfTheHostEndsAFiniteWait) {
    const BackgroundWait wait = waitFor(60000);
    host.pcsc().removeCard(kHostReader);
    EXPECT_THAT(wait.result(), Gives(SCARD_S_SUCCESS));
    EXPECT_LT(wait.duration(), 30000U);
    EXPECT_EQ(wait.state(0).dwEventState, kFirstCardPulled | kChanged);
    EXPECT_EQ(wait.state(1).dwEventState, kFirstCard);
    EXPECT_GT(wait.state(1).cbAtr, 0U);
    EXPECT_GE(remoteCancels(), 1U);
    ASSERT_EQ(remoteAsks(), 2U);
    EXPECT_EQ(askedTimeout(1), 0U) << "the side that was cut short is asked once more";
}

TEST_F(FirstChange, OfTheDaemonEndsAFiniteWait) {
    const BackgroundWait wait = waitFor(60000);
    remote.removeCard(kRemoteReader);
    EXPECT_THAT(wait.result(), Gives(SCARD_S_SUCCESS));
    EXPECT_LT(wait.duration(), 30000U);
    EXPECT_EQ(wait.state(0).dwEventState, kFirstCard);
    EXPECT_GT(wait.state(0).cbAtr, 0U);
    EXPECT_EQ(wait.state(1).dwEventState, kFirstCardPulled | kChanged);
    EXPECT_EQ(remoteAsks(), 1U);
}

TEST_F(FirstChange, EndsAnUnboundedWaitAsWell) {
    const BackgroundWait wait = waitFor(INFINITE);
    remote.removeCard(kRemoteReader);
    EXPECT_THAT(wait.result(), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(wait.state(0).dwEventState, kFirstCard);
    EXPECT_EQ(wait.state(1).dwEventState, kFirstCardPulled | kChanged);
}

TEST_F(FirstChange, LeavesTheToldStateToASideThatCannotTell) {
    daemon.setVersion({1, 0});
    const BackgroundWait wait = waitFor(60000);
    host.pcsc().removeCard(kHostReader);
    EXPECT_THAT(wait.result(), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(wait.state(0).dwEventState, kFirstCardPulled | kChanged);
    EXPECT_EQ(wait.state(1).dwEventState, DWORD{SCARD_STATE_PRESENT});
}

TEST_F(FirstChange, IsAskedForOnBothSidesWithoutATimeout) {
    context = establishAndList();
    EXPECT_CALL(host, SCardCancel).Times(0);
    SCARD_READERSTATEA states[] = {unchangedHost(), unchangedRemote()};
    EXPECT_THAT(SCardGetStatusChangeA(context, 0, states, 2), Gives(SCARD_E_TIMEOUT));
    EXPECT_EQ(states[0].dwEventState, kFirstCard);
    EXPECT_EQ(states[1].dwEventState, kFirstCard);
    remote.removeCard(kRemoteReader);
    host.pcsc().removeCard(kHostReader);
    EXPECT_THAT(SCardGetStatusChangeA(context, 0, states, 2), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(states[0].dwEventState, kFirstCardPulled | kChanged);
    EXPECT_EQ(states[1].dwEventState, kFirstCardPulled | kChanged);
    EXPECT_EQ(remoteCancels(), 0U);
}

TEST_F(FirstChange, OfTheDaemonIsSeenWhileTheHostHasNoService) {
    context = establishAndList();
    ON_CALL(host, SCardGetStatusChangeA).WillByDefault(Return(SCARD_E_NO_SERVICE));
    const BackgroundWait wait(context, 60000, {unchangedHost(), unchangedRemote()});
    waitForRemoteWait();
    EXPECT_FALSE(wait.isOver(std::chrono::milliseconds(50)));
    remote.removeCard(kRemoteReader);
    EXPECT_THAT(wait.result(), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(wait.state(0).dwEventState, DWORD{SCARD_STATE_PRESENT});
    EXPECT_EQ(wait.state(1).dwEventState, kFirstCardPulled | kChanged);
}

TEST_F(FirstChange, IsAwaitedToTheTimeoutWhileTheHostHasNoService) {
    context = establishAndList();
    ON_CALL(host, SCardGetStatusChangeA).WillByDefault(Return(SCARD_E_NO_SERVICE));
    SCARD_READERSTATEA states[] = {unchangedHost(), unchangedRemote()};
    EXPECT_THAT(SCardGetStatusChangeA(context, 120, states, 2), Gives(SCARD_E_TIMEOUT));
}

TEST_F(FirstChange, IsTheCodeOfASideThatIsAlone) {
    context = establishAndList();
    ON_CALL(host, SCardGetStatusChangeA).WillByDefault(Return(SCARD_E_SERVICE_STOPPED));
    SCARD_READERSTATEA state = unchangedHost();
    EXPECT_THAT(SCardGetStatusChangeA(context, 60000, &state, 1), Gives(SCARD_E_SERVICE_STOPPED));
}

TEST_F(FirstChange, IsNotMadeUpByAHalfThatWasCancelledForNobody) {
    context = establishAndList();
    EXPECT_CALL(host, SCardGetStatusChangeA)
        .WillOnce(Return(SCARD_E_CANCELLED))
        .WillRepeatedly(
            [this](SCARDCONTEXT system, DWORD timeout, LPSCARD_READERSTATEA states, DWORD number) {
                return host.service().SCardGetStatusChangeA(system, timeout, states, number);
            });
    const BackgroundWait wait(context, 60000, {unchangedHost(), unchangedRemote()});
    waitForHostWait();
    EXPECT_FALSE(wait.isOver());
    host.pcsc().removeCard(kHostReader);
    EXPECT_THAT(wait.result(), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(wait.state(0).dwEventState, kFirstCardPulled | kChanged);
}

}  // namespace
}  // namespace tez::test
