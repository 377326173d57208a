// What all calls on a card handle have in common: which side they go to, and what they log.
#include "call_catalogue.h"
#include "failing_writes.h"
#include "remote_card_test.h"

namespace tez::test {
namespace {

using testing::Contains;
using testing::EndsWith;
using testing::IsEmpty;
using testing::SizeIs;

class CardCallTest : public RemoteCardTest {
  protected:
    void SetUp() override { connectCard(); }

    /// Makes each call, the one that disconnects last. The wide forms log as the narrow ones.
    static void forEachCall(const std::function<void(const ExportedCall&)>& check) {
        for (const ExportedCall& call : cardCalls()) {
            SCOPED_TRACE(call.name);
            if (!call.name.ends_with('W')) {
                check(call);
            }
        }
    }

    void expectResult(const ExportedCall& call, LONG result) const {
        EXPECT_THAT(call.make({card.handle}), Gives(result));
    }

    /// Whether each line that warns in the call is this one.
    void expectWarning(const ExportedCall& call, const char* warning) const {
        EXPECT_THAT(log().messages(call.name, 'W'), testing::Each(warning));
        EXPECT_THAT(log().messages(call.name, 'W'), Contains(warning));
    }
};

TEST_F(CardCallTest, EveryCallGoesThroughToTheRemoteCardOverTheSameIdleConnection) {
    const std::size_t opens = transport().opens();
    forEachCall([&](const ExportedCall& call) {
        expectResult(call, SCARD_S_SUCCESS);
        EXPECT_THAT(daemon.requests(call.answer->command), SizeIs(1));
        EXPECT_THAT(log().messages(call.name, 'D'), Contains(EndsWith(" RV: 0x00000000")));
        EXPECT_THAT(log().messages(call.name, 'W'), IsEmpty());
    });
    EXPECT_EQ(transport().opens(), opens);
}

TEST_F(CardCallTest, EveryCallLogsTheDaemonsResult) {
    forEachCall([&](const ExportedCall& call) {
        daemon.on(call.answer->command,
                  answering(call.answer->recordSize, {{call.answer->resultOffset(), 0xC0FFEE01}}));
        expectResult(call, static_cast<LONG>(0xC0FFEE01));
        EXPECT_THAT(log().messages(call.name, 'D'), Contains(EndsWith(" RV: 0xC0FFEE01")));
    });
}

TEST_F(CardCallTest, EveryCallLogsThatItDoesNotKnowAHandle) {
    forEachCall([&](const ExportedCall& call) {
        EXPECT_THAT(call.make({kDaemonCard}), Gives(SCARD_E_INVALID_HANDLE));
        EXPECT_THAT(log().messages(call.name, 'D'), Contains(EndsWith(" RV: 0x80100003")));
    });
}

TEST_F(CardCallTest, NoCallReachesARemoteCardWhileTheDaemonIsAway) {
    stopDaemon();
    forEachCall([&](const ExportedCall& call) { expectResult(call, SCARD_E_INVALID_HANDLE); });
    EXPECT_THAT(daemon.requests(), IsEmpty());
}

TEST_F(CardCallTest, NoCallButStatusIsSentForAContextThatWasReleased) {
    ASSERT_THAT(SCardReleaseContext(context), Gives(SCARD_S_SUCCESS));
    daemon.clearRecords();
    forEachCall([&](const ExportedCall& call) {
        expectResult(call, SCARD_E_INVALID_HANDLE);
        EXPECT_THAT(daemon.requests(call.answer->command),
                    SizeIs(call.answer->command == Command::kStatus ? 1U : 0U));
    });
}

TEST_F(CardCallTest, EveryCallWarnsWhenTheDaemonHangsUpInsteadOfAnsweringOrInTheMiddleOfItsRecord) {
    forEachCall([&](const ExportedCall& call) {
        const Command command = call.answer->command;
        for (const auto& leavingOff :
             {closing(), answeringAndClosing(call.answer->recordSize - 1, {})}) {
            daemon.on(command, leavingOff);
            expectResult(call, SCARD_E_NO_SERVICE);
        }
        expectWarning(call, "Failed to receive data");
        daemon.restore(command);
        expectResult(call, SCARD_S_SUCCESS);
    });
}

TEST_F(CardCallTest, EveryCallWarnsWhenItsHeaderCannotBeSent) {
    forEachCall([&](const ExportedCall& call) {
        {
            const FailingWrites broken([](DWORD /*size*/) { return true; });
            expectResult(call, SCARD_E_NO_SERVICE);
        }
        expectWarning(call, "Failed to send header");
        expectResult(call, SCARD_S_SUCCESS);
    });
    EXPECT_THAT(daemon.requests(Command::kDisconnect), SizeIs(1));
}

}  // namespace
}  // namespace tez::test
