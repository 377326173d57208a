// Transmits side by side, and cards that go in the middle of one.
#include <future>
#include <set>

#include "remote_card_test.h"

namespace tez::test {
namespace {

using testing::ElementsAre;
using testing::SizeIs;

constexpr const char* kSecondReader = "Remote Reader 1";

/// What a transmit gave.
struct Outcome {
    LONG result = SCARD_S_SUCCESS;
    Bytes response;
};

class CardPulledTest : public RemoteCardTest {
  protected:
    /// Connects to the cards in both of the remote user's readers.
    void connectCards() {
        remote.addReader(kSecondReader);
        remote.insertCard(kSecondReader, makeDemoCard(kRemoteCardHolder));
        connectCard();
        second = connect(context, kSecondReader);
    }

    /// Transmits on a thread of its own.
    static std::future<Outcome> transmitAside(const ConnectedCard& on) {
        return std::async(std::launch::async, [on] {
            Outcome outcome{SCARD_S_SUCCESS, Bytes(258)};
            auto length = static_cast<DWORD>(outcome.response.size());
            outcome.result = SCardTransmit(on.handle, on.pci(), getChallenge().data(), 5, nullptr,
                                           outcome.response.data(), &length);
            outcome.response.resize(length);
            return outcome;
        });
    }

    ConnectedCard second;
};

TEST_F(CardPulledTest, ACardPulledInTheMiddleOfATransmitEndsThatTransmitOnly) {
    connectCards();
    ASSERT_TRUE(remote.holdCommands(kRemoteReader));
    ASSERT_TRUE(remote.holdCommands(kSecondReader));
    auto first = transmitAside(card);
    auto other = transmitAside(second);
    ASSERT_TRUE(remote.waitForHeldCommands(2, kPatience));

    ASSERT_TRUE(remote.removeCard(kRemoteReader));
    EXPECT_THAT(first.get().result, Gives(SCARD_W_REMOVED_CARD));
    EXPECT_TRUE(remote.waitForHeldCommands(1, kPatience));
    EXPECT_EQ(other.wait_for(std::chrono::seconds(0)), std::future_status::timeout);

    ASSERT_TRUE(remote.releaseCommands(kSecondReader));
    const Outcome rest = other.get();
    EXPECT_THAT(rest.result, Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(rest.response, SizeIs(10));
    EXPECT_THAT(SCardBeginTransaction(second.handle), Gives(SCARD_S_SUCCESS));
}

TEST_F(CardPulledTest, ACardPulledLeavesItsConnectionForAReconnect) {
    connectCard();
    ASSERT_TRUE(remote.removeCard(kRemoteReader));
    EXPECT_THAT(transmitAside(card).get().result, Gives(SCARD_W_REMOVED_CARD));
    ASSERT_TRUE(remote.insertCard(kRemoteReader, makeDemoCard(kRemoteCardHolder)));
    EXPECT_THAT(transmitAside(card).get().result, Gives(SCARD_W_REMOVED_CARD));
    EXPECT_THAT(SCardReconnect(card.handle, SCARD_SHARE_SHARED, SCARD_PROTOCOL_Tx, SCARD_LEAVE_CARD,
                               &card.protocol),
                Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(transmit(card, getChallenge()), SizeIs(10));
}

TEST_F(CardPulledTest, AReaderPulledInTheMiddleOfATransmitEndsIt) {
    connectCard();
    ASSERT_TRUE(remote.holdCommands(kRemoteReader));
    auto transmitting = transmitAside(card);
    ASSERT_TRUE(remote.waitForHeldCommands(1, kPatience));
    ASSERT_TRUE(remote.removeReader(kRemoteReader));
    EXPECT_THAT(transmitting.get().result, Gives(SCARD_E_READER_UNAVAILABLE));
}

TEST_F(CardPulledTest, ADaemonThatGoesInTheMiddleOfATransmitEndsIt) {
    connectCard();
    ASSERT_TRUE(remote.holdCommands(kRemoteReader));
    auto transmitting = transmitAside(card);
    ASSERT_TRUE(remote.waitForHeldCommands(1, kPatience));
    stopDaemon();
    EXPECT_THAT(transmitting.get().result, Gives(SCARD_E_NO_SERVICE));
    EXPECT_THAT(log().messages("SCardTransmit", 'W'), ElementsAre("Failed to receive data"));
}

TEST_F(CardPulledTest, TransmitsOnSeveralThreadsUseAPipeEach) {
    connectCard();
    std::vector<ConnectedCard> cards{card};
    while (cards.size() < 4) {
        cards.push_back(connect(context, kRemoteReader));
    }
    ASSERT_TRUE(remote.holdCommands(kRemoteReader));
    std::vector<std::future<Outcome>> transmits;
    transmits.reserve(cards.size());
    for (const ConnectedCard& one : cards) {
        transmits.push_back(transmitAside(one));
    }
    // All of them are at the card at once: none waits for another's pipe.
    ASSERT_TRUE(remote.waitForHeldCommands(cards.size(), kPatience));
    std::set<std::uint64_t> connections;
    for (const Request& request : daemon.requests(Command::kTransmit)) {
        connections.insert(request.connection);
    }
    EXPECT_THAT(connections, SizeIs(cards.size()));
    ASSERT_TRUE(remote.releaseCommands(kRemoteReader));
    for (auto& one : transmits) {
        EXPECT_THAT(one.get().result, Gives(SCARD_S_SUCCESS));
    }
}

TEST_F(CardPulledTest, TransmitsOnManyThreadsEachGetTheirOwnAnswer) {
    establishContext();
    // The daemon answers with what it was sent, so that answers of others are told apart.
    daemon.on(Command::kTransmit, [](const Request& request) {
        const Bytes command(request.body.begin() + TransmitLayout::kSize, request.body.end());
        return Reply::of(answerBlocks(
            request, TransmitLayout::kSize,
            {{TransmitLayout::kReceiveLength, static_cast<std::uint32_t>(command.size())}},
            command));
    });
    std::vector<std::future<int>> threads;
    for (std::uint8_t number = 0; number < 12; ++number) {
        const ConnectedCard own = connect(context, kRemoteReader);
        threads.push_back(std::async(std::launch::async, [own, number] {
            int wrong = 0;
            for (std::uint8_t round = 0; round < 20; ++round) {
                const Bytes command(5U + number, static_cast<std::uint8_t>(number * 20 + round));
                wrong += transmit(own, command) == command ? 0 : 1;
            }
            return wrong;
        }));
    }
    for (auto& thread : threads) {
        EXPECT_EQ(thread.get(), 0);
    }
}

}  // namespace
}  // namespace tez::test
