#include "simulated/simulated_service.h"

#include <chrono>
#include <future>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <vector>

#include "patience.h"

namespace tez::pcscd {
namespace {

using namespace std::chrono_literals;
using test::kPatience;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::uint32_t kBothProtocols = protocol::kT0 | protocol::kT1;
constexpr const char* kFull = "Full";
constexpr const char* kEmpty = "Empty";
const Bytes kChallenge{0x00, 0x84, 0x00, 0x00, 0x04};

class SimulatedServiceTest : public testing::Test {
  protected:
    SimulatedServiceTest() {
        service_.addReader(kFull);
        service_.addReader(kEmpty);
        service_.insertCard(kFull, makeDemoCard("Ada"));
        EXPECT_EQ(service_.establishContext(scope::kUser, context_), result::kSuccess);
    }

    Result connect(const char* reader, std::uint32_t share,
                   std::uint32_t protocols = kBothProtocols) {
        return service_.connect(context_, reader, share, protocols, card_, protocol_);
    }

    Card connected(std::uint32_t share = share::kShared) {
        EXPECT_EQ(connect(kFull, share), result::kSuccess);
        return card_;
    }

    Result challenge(Card card) {
        return service_.transmit(card, protocol::kT1, kChallenge, 256, response_);
    }

    Result wait(std::vector<ReaderState>& states, std::uint32_t timeout) {
        return service_.getStatusChange(context_, timeout, states);
    }

    /// Runs a wait on a thread of its own; when it returns the wait is in progress.
    std::future<Result> waitInBackground(std::vector<ReaderState>& states) {
        constexpr std::uint32_t kLongWait = 10000;
        auto result = std::async(std::launch::async, [&] { return wait(states, kLongWait); });
        EXPECT_TRUE(service_.waitForStatusWaits(1, kPatience));
        return result;
    }

    SimulatedService service_;
    Context context_ = 0;
    Card card_ = 0;
    std::uint32_t protocol_ = 0;
    Bytes response_;
};

TEST_F(SimulatedServiceTest, HandlesCountUpFromTheirBases) {
    SimulatedService service({0x7A000001, 0x7B000001});
    Context first = 0;
    Context second = 0;
    ASSERT_EQ(service.establishContext(scope::kSystem, first), result::kSuccess);
    ASSERT_EQ(service.establishContext(scope::kSystem, second), result::kSuccess);
    EXPECT_EQ(first, 0x7A000001U);
    EXPECT_EQ(second, 0x7A000002U);
}

TEST_F(SimulatedServiceTest, ReleasedContextIsInvalidAndItsCardsAreClosed) {
    const auto card = connected();
    EXPECT_EQ(service_.isValidContext(context_), result::kSuccess);
    EXPECT_EQ(service_.releaseContext(context_), result::kSuccess);
    EXPECT_EQ(service_.isValidContext(context_), result::kInvalidHandle);
    EXPECT_EQ(service_.releaseContext(context_), result::kInvalidHandle);
    EXPECT_EQ(challenge(card), result::kInvalidHandle);
    EXPECT_EQ(service_.cardCount(), 0U);
}

TEST_F(SimulatedServiceTest, ReadersAreListedInTheOrderOfTheirArrival) {
    EXPECT_FALSE(service_.addReader(kFull)) << "a second one of that name";
    EXPECT_TRUE(service_.addReader("Another"));
    EXPECT_TRUE(service_.removeReader(kEmpty));
    EXPECT_FALSE(service_.removeReader(kEmpty));
    std::vector<std::string> names;
    EXPECT_EQ(service_.listReaders(context_, names), result::kSuccess);
    EXPECT_THAT(names, ElementsAre(kFull, "Another"));
    EXPECT_EQ(service_.listReaders(context_ + 1, names), result::kInvalidHandle);
    EXPECT_EQ(service_.listReaderGroups(0, names), result::kSuccess);
    EXPECT_THAT(names, ElementsAre("SCard$DefaultReaders"));
}

TEST_F(SimulatedServiceTest, ConnectRefusesWhatIsNotThere) {
    EXPECT_EQ(service_.connect(99, kFull, share::kShared, kBothProtocols, card_, protocol_),
              result::kInvalidHandle);
    EXPECT_EQ(connect("full", share::kShared), result::kUnknownReader) << "case matters";
    EXPECT_EQ(connect(kEmpty, share::kShared), result::kNoSmartcard);
    EXPECT_EQ(connect(kEmpty, share::kExclusive), result::kNoSmartcard);
    EXPECT_EQ(connect(kFull, 0), result::kInvalidValue);
    EXPECT_EQ(service_.cardCount(), 0U);
}

TEST_F(SimulatedServiceTest, ConnectNegotiatesAProtocolOfTheCard) {
    EXPECT_EQ(connect(kFull, share::kShared, kBothProtocols), result::kSuccess);
    EXPECT_EQ(protocol_, protocol::kT1);
    EXPECT_EQ(connect(kFull, share::kShared, protocol::kT0), result::kProtocolMismatch);
    EXPECT_EQ(connect(kFull, share::kShared, 0), result::kProtocolMismatch);
}

TEST_F(SimulatedServiceTest, RawIsTheLastChoiceAndThenTheOnlyOne) {
    EXPECT_EQ(connect(kFull, share::kShared, protocol::kT0 | protocol::kRaw), result::kSuccess);
    EXPECT_EQ(protocol_, protocol::kRaw);
    EXPECT_EQ(connect(kFull, share::kShared, kBothProtocols), result::kProtocolMismatch)
        << "the card speaks one protocol at a time";
}

TEST_F(SimulatedServiceTest, DirectConnectionNeedsNeitherCardNorProtocol) {
    EXPECT_EQ(connect(kEmpty, share::kDirect, 0), result::kSuccess);
    EXPECT_EQ(protocol_, protocol::kUndefined);
    CardStatus status;
    EXPECT_EQ(service_.status(card_, status), result::kSuccess);
    EXPECT_FALSE(status.present);
    EXPECT_EQ(challenge(card_), result::kNoSmartcard);
}

TEST_F(SimulatedServiceTest, SharedConnectionsGoTogetherAndExclusiveOnesDoNot) {
    const auto first = connected();
    const auto second = connected();
    EXPECT_NE(first, second);
    EXPECT_EQ(connect(kFull, share::kExclusive), result::kSharingViolation);
    EXPECT_EQ(connect(kFull, share::kDirect), result::kSharingViolation);
    ASSERT_EQ(service_.disconnect(first, disposition::kLeave), result::kSuccess);
    ASSERT_EQ(service_.disconnect(second, disposition::kLeave), result::kSuccess);
    connected(share::kExclusive);
    EXPECT_EQ(connect(kFull, share::kShared), result::kSharingViolation);
}

TEST_F(SimulatedServiceTest, ConnectionToACardThatIsGoneKeepsNobodyOut) {
    connected(share::kExclusive);
    service_.removeCard(kFull);
    service_.insertCard(kFull, makeDemoCard("Bob"));
    EXPECT_EQ(connect(kFull, share::kExclusive), result::kSuccess);
}

TEST_F(SimulatedServiceTest, StatusTellsReaderStateProtocolAndAtr) {
    CardStatus status;
    ASSERT_EQ(service_.status(connected(), status), result::kSuccess);
    EXPECT_EQ(status.reader, kFull);
    EXPECT_TRUE(status.present && status.powered && !status.negotiable);
    EXPECT_EQ(status.protocol, protocol::kT1);
    EXPECT_EQ(status.atr, makeDemoCard("").atr());
    EXPECT_EQ(service_.status(99, status), result::kInvalidHandle);
}

TEST_F(SimulatedServiceTest, TransmitReachesTheCardAndIsCounted) {
    const auto card = connected();
    EXPECT_EQ(challenge(card), result::kSuccess);
    EXPECT_EQ(response_.size(), 6U);
    EXPECT_EQ(service_.transmit(card, protocol::kT0, kChallenge, 256, response_),
              result::kProtocolMismatch);
    EXPECT_EQ(service_.transmit(card, protocol::kT1, kChallenge, 5, response_),
              result::kInsufficientBuffer);
    EXPECT_EQ(service_.transmit(card, protocol::kT1, kChallenge, 6, response_), result::kSuccess);
    std::uint32_t count = 0;
    EXPECT_EQ(service_.transmitCount(card, count), result::kSuccess);
    EXPECT_EQ(count, 2U);
}

TEST_F(SimulatedServiceTest, RemovedCardStaysRemovedUntilReconnected) {
    const auto card = connected();
    CardStatus status;
    ASSERT_TRUE(service_.removeCard(kFull));
    EXPECT_FALSE(service_.removeCard(kFull));
    EXPECT_EQ(challenge(card), result::kRemovedCard);
    EXPECT_EQ(service_.status(card, status), result::kRemovedCard);
    EXPECT_EQ(
        service_.reconnect(card, share::kShared, kBothProtocols, disposition::kLeave, protocol_),
        result::kNoSmartcard);
    ASSERT_TRUE(service_.insertCard(kFull, makeDemoCard("Bob")));
    EXPECT_FALSE(service_.insertCard(kFull, makeDemoCard("Eve")));
    EXPECT_EQ(challenge(card), result::kRemovedCard) << "another card is not that card";
    EXPECT_EQ(
        service_.reconnect(card, share::kShared, kBothProtocols, disposition::kLeave, protocol_),
        result::kSuccess);
    EXPECT_EQ(challenge(card), result::kSuccess);
}

TEST_F(SimulatedServiceTest, RemovalOfTheReaderEndsItsConnections) {
    const auto card = connected();
    ASSERT_TRUE(service_.removeReader(kFull));
    EXPECT_EQ(challenge(card), result::kReaderUnavailable);
    EXPECT_EQ(service_.disconnect(card, disposition::kReset), result::kSuccess);
}

TEST_F(SimulatedServiceTest, CardPulledInTheMiddleOfACommandEndsIt) {
    const auto card = connected();
    ASSERT_TRUE(service_.holdCommands(kFull));
    auto result = std::async(std::launch::async, [&] { return challenge(card); });
    ASSERT_TRUE(service_.waitForHeldCommands(1, kPatience));
    service_.removeCard(kFull);
    EXPECT_EQ(result.get(), result::kRemovedCard);
}

TEST_F(SimulatedServiceTest, HeldCommandIsAnsweredWhenReleased) {
    const auto card = connected();
    ASSERT_TRUE(service_.holdCommands(kFull));
    auto result = std::async(std::launch::async, [&] { return challenge(card); });
    ASSERT_TRUE(service_.waitForHeldCommands(1, kPatience));
    ASSERT_TRUE(service_.releaseCommands(kFull));
    EXPECT_EQ(result.get(), result::kSuccess);
    EXPECT_EQ(response_.size(), 6U);
}

TEST_F(SimulatedServiceTest, ResetIsToldToTheOtherConnectionsUntilTheyReconnect) {
    const auto resetting = connected();
    const auto other = connected();
    EXPECT_EQ(service_.reconnect(resetting, share::kShared, kBothProtocols, disposition::kReset,
                                 protocol_),
              result::kSuccess);
    EXPECT_EQ(challenge(resetting), result::kSuccess);
    EXPECT_EQ(challenge(other), result::kResetCard);
    EXPECT_EQ(
        service_.reconnect(other, share::kShared, kBothProtocols, disposition::kLeave, protocol_),
        result::kSuccess);
    EXPECT_EQ(challenge(other), result::kSuccess);
}

TEST_F(SimulatedServiceTest, ReconnectHonoursTheOtherConnections) {
    const auto card = connected();
    connected();
    EXPECT_EQ(
        service_.reconnect(card, share::kExclusive, kBothProtocols, disposition::kLeave, protocol_),
        result::kSharingViolation);
    EXPECT_EQ(
        service_.reconnect(card, share::kShared, protocol::kRaw, disposition::kLeave, protocol_),
        result::kProtocolMismatch);
    EXPECT_EQ(service_.reconnect(card, share::kShared, kBothProtocols, 4, protocol_),
              result::kInvalidValue);
}

TEST_F(SimulatedServiceTest, TransactionKeepsTheOthersWaiting) {
    const auto owner = connected();
    const auto other = connected();
    EXPECT_EQ(service_.endTransaction(owner, disposition::kLeave), result::kNotTransacted);
    ASSERT_EQ(service_.beginTransaction(owner), result::kSuccess);
    ASSERT_EQ(service_.beginTransaction(owner), result::kSuccess) << "transactions nest";
    auto begun = std::async(std::launch::async, [&] { return service_.beginTransaction(other); });
    ASSERT_TRUE(service_.waitForTransactionWaits(1, kPatience));
    EXPECT_EQ(challenge(owner), result::kSuccess);
    EXPECT_EQ(service_.endTransaction(owner, disposition::kLeave), result::kSuccess);
    EXPECT_EQ(begun.wait_for(0s), std::future_status::timeout) << "one of two has ended";
    EXPECT_EQ(service_.endTransaction(other, disposition::kLeave), result::kNotTransacted);
    EXPECT_EQ(service_.endTransaction(owner, disposition::kLeave), result::kSuccess);
    EXPECT_EQ(begun.get(), result::kSuccess);
    EXPECT_EQ(service_.endTransaction(owner, disposition::kLeave), result::kNotTransacted);
}

TEST_F(SimulatedServiceTest, TransmitWaitsForAnothersTransaction) {
    const auto owner = connected();
    const auto other = connected();
    ASSERT_EQ(service_.beginTransaction(owner), result::kSuccess);
    auto result = std::async(std::launch::async, [&] { return challenge(other); });
    ASSERT_TRUE(service_.waitForTransactionWaits(1, kPatience));
    ASSERT_EQ(service_.disconnect(owner, disposition::kLeave), result::kSuccess);
    EXPECT_EQ(result.get(), result::kSuccess) << "the disconnection ended the transaction";
}

TEST_F(SimulatedServiceTest, WaitForATurnEndsWithTheCardOrTheContext) {
    const auto first = connected();
    const auto other = connected();
    ASSERT_EQ(service_.beginTransaction(first), result::kSuccess);
    auto ended = std::async(std::launch::async, [&] { return service_.beginTransaction(other); });
    ASSERT_TRUE(service_.waitForTransactionWaits(1, kPatience));
    service_.removeCard(kFull);
    EXPECT_EQ(ended.get(), result::kRemovedCard);

    service_.insertCard(kFull, makeDemoCard("Bob"));
    const auto owner = connected();
    const auto waiting = connected();
    ASSERT_EQ(service_.beginTransaction(owner), result::kSuccess);
    auto second =
        std::async(std::launch::async, [&] { return service_.beginTransaction(waiting); });
    ASSERT_TRUE(service_.waitForTransactionWaits(1, kPatience));
    service_.releaseAll();
    EXPECT_EQ(second.get(), result::kInvalidHandle);
}

TEST_F(SimulatedServiceTest, ControlEchoesAndNamesTheReader) {
    const auto card = connected();
    const Bytes input{1, 2, 3};
    EXPECT_EQ(service_.control(card, kControlEcho, input, 3, response_), result::kSuccess);
    EXPECT_EQ(response_, input);
    EXPECT_EQ(service_.control(card, kControlEcho, input, 2, response_),
              result::kInsufficientBuffer);
    EXPECT_EQ(service_.control(card, kControlReaderName, {}, 99, response_), result::kSuccess);
    EXPECT_THAT(response_, ElementsAre('F', 'u', 'l', 'l'));
    EXPECT_EQ(service_.control(card, kControlFeatures, {}, 99, response_), result::kSuccess);
    EXPECT_THAT(response_, IsEmpty());
    EXPECT_EQ(service_.control(card, 1, {}, 99, response_), result::kUnsupportedFeature);
}

TEST_F(SimulatedServiceTest, AttributesAreComputedOrStored) {
    const auto card = connected();
    EXPECT_EQ(service_.getAttribute(card, attribute::kAtrString, response_), result::kSuccess);
    EXPECT_EQ(response_, makeDemoCard("").atr());
    EXPECT_EQ(service_.getAttribute(card, attribute::kDeviceFriendlyNameA, response_),
              result::kSuccess);
    EXPECT_THAT(response_, ElementsAre('F', 'u', 'l', 'l', 0));
    EXPECT_EQ(service_.getAttribute(card, attribute::kDeviceFriendlyNameW, response_),
              result::kSuccess);
    EXPECT_THAT(response_, ElementsAre('F', 0, 'u', 0, 'l', 0, 'l', 0, 0, 0));
    EXPECT_EQ(service_.getAttribute(card, attribute::kDeviceUnit, response_), result::kSuccess);
    EXPECT_THAT(response_, ElementsAre(0, 0, 0, 0));
    EXPECT_EQ(service_.getAttribute(card, attribute::kMaxInput, response_),
              result::kUnsupportedFeature);
    EXPECT_EQ(service_.setAttribute(card, attribute::kMaxInput, Bytes(300, 7)), result::kSuccess);
    EXPECT_EQ(service_.getAttribute(card, attribute::kMaxInput, response_), result::kSuccess);
    EXPECT_EQ(response_, Bytes(300, 7));
    EXPECT_EQ(service_.setAttribute(card, attribute::kAtrString, response_),
              result::kUnsupportedFeature);
}

TEST_F(SimulatedServiceTest, UnawareEntriesAreToldTheStateAtOnce) {
    std::vector<ReaderState> states{{kFull}, {kEmpty}, {"Nowhere"}};
    EXPECT_EQ(wait(states, 0), result::kSuccess);
    EXPECT_EQ(states[0].eventState, std::uint32_t{state::kChanged | state::kPresent | 1 << 16});
    EXPECT_EQ(states[0].atr, makeDemoCard("").atr());
    EXPECT_EQ(states[1].eventState, std::uint32_t{state::kChanged | state::kEmpty});
    EXPECT_THAT(states[1].atr, IsEmpty());
    EXPECT_EQ(states[2].eventState,
              std::uint32_t{state::kChanged | state::kUnknown | state::kIgnore});
}

TEST_F(SimulatedServiceTest, NothingNewIsATimeoutThatStillTellsTheState) {
    std::vector<ReaderState> states{
        {kFull, state::kPresent | 1 << 16}, {"Nowhere", state::kUnknown}, {kEmpty, state::kIgnore}};
    EXPECT_EQ(wait(states, 0), result::kTimeout);
    EXPECT_EQ(states[0].eventState, std::uint32_t{state::kPresent | 1 << 16});
    EXPECT_EQ(states[2].eventState, state::kIgnore);
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(wait(states, 50), result::kTimeout);
    EXPECT_GE(std::chrono::steady_clock::now() - begin, 50ms);
}

TEST_F(SimulatedServiceTest, UseOfTheCardIsAChange) {
    std::vector<ReaderState> states{{kFull, state::kPresent}};
    connected(share::kExclusive);
    EXPECT_EQ(wait(states, 0), result::kSuccess);
    EXPECT_EQ(states[0].eventState, std::uint32_t{state::kChanged | state::kPresent |
                                                  state::kInUse | state::kExclusive | 1 << 16});
}

TEST_F(SimulatedServiceTest, CounterTellsThatAnotherCardCameMeanwhile) {
    std::vector<ReaderState> states{{kFull, state::kPresent | 1 << 16}};
    service_.removeCard(kFull);
    service_.insertCard(kFull, makeDemoCard("Bob"));
    EXPECT_EQ(wait(states, 0), result::kSuccess);
    EXPECT_EQ(states[0].eventState, std::uint32_t{state::kChanged | state::kPresent | 3 << 16});
    states[0].currentState = state::kPresent;
    EXPECT_EQ(wait(states, 0), result::kTimeout) << "who gives no counter asks for none";
}

TEST_F(SimulatedServiceTest, InsertionEndsAWait) {
    std::vector<ReaderState> states{{kEmpty, state::kEmpty}};
    auto result = waitInBackground(states);
    service_.insertCard(kEmpty, makeDemoCard("Bob"));
    EXPECT_EQ(result.get(), result::kSuccess);
    EXPECT_EQ(states[0].eventState, std::uint32_t{state::kChanged | state::kPresent | 1 << 16});
}

TEST_F(SimulatedServiceTest, PseudoReaderCountsTheReaders) {
    std::vector<ReaderState> states{{kPnpReader, 1 << 16}};
    EXPECT_EQ(wait(states, 0), result::kSuccess);
    EXPECT_EQ(states[0].eventState, std::uint32_t{state::kChanged | 2 << 16});
    states[0].currentState = 2 << 16;
    auto result = waitInBackground(states);
    service_.addReader("Another");
    EXPECT_EQ(result.get(), result::kSuccess);
    EXPECT_EQ(states[0].eventState, std::uint32_t{state::kChanged | 3 << 16});
}

TEST_F(SimulatedServiceTest, CancelEndsTheWaitInProgress) {
    std::vector<ReaderState> states{{kEmpty, state::kEmpty}};
    auto result = waitInBackground(states);
    EXPECT_EQ(service_.cancel(context_), result::kSuccess);
    EXPECT_EQ(result.get(), result::kCancelled);
    EXPECT_EQ(states[0].eventState, state::kEmpty);
    EXPECT_EQ(service_.cancel(context_ + 1), result::kInvalidHandle);
}

TEST_F(SimulatedServiceTest, CancelForWhichNothingWaitsIsForgotten) {
    ASSERT_EQ(service_.cancel(context_), result::kSuccess);
    std::vector<ReaderState> states{{kEmpty, state::kEmpty}};
    EXPECT_EQ(wait(states, 20), result::kTimeout);
}

TEST_F(SimulatedServiceTest, CancelOfOneContextLeavesTheOthersWaiting) {
    Context other = 0;
    ASSERT_EQ(service_.establishContext(scope::kUser, other), result::kSuccess);
    std::vector<ReaderState> states{{kEmpty, state::kEmpty}};
    auto result = waitInBackground(states);
    EXPECT_EQ(service_.cancel(other), result::kSuccess);
    service_.insertCard(kEmpty, makeDemoCard("Bob"));
    EXPECT_EQ(result.get(), result::kSuccess);
}

TEST_F(SimulatedServiceTest, ReleaseEndsTheWaitInProgress) {
    std::vector<ReaderState> states{{kEmpty, state::kEmpty}};
    auto result = waitInBackground(states);
    EXPECT_EQ(service_.releaseContext(context_), result::kSuccess);
    EXPECT_EQ(result.get(), result::kCancelled);
    EXPECT_EQ(wait(states, 0), result::kInvalidHandle);
}

}  // namespace
}  // namespace tez::pcscd
