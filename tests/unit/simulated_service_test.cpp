#include "simulated/simulated_service.h"

#include <chrono>
#include <future>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <vector>

namespace tez::test {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr DWORD kBothProtocols = SCARD_PROTOCOL_T0 | SCARD_PROTOCOL_T1;
constexpr auto kPatience = 10s;  // for what is bound to happen
constexpr const char* kFull = "Full";
constexpr const char* kEmpty = "Empty";
const Bytes kChallenge{0x00, 0x84, 0x00, 0x00, 0x04};

class SimulatedServiceTest : public testing::Test {
  protected:
    SimulatedServiceTest() {
        service_.addReader(kFull);
        service_.addReader(kEmpty);
        service_.insertCard(kFull, makeDemoCard("Ada"));
        EXPECT_EQ(service_.establishContext(SCARD_SCOPE_USER, context_), SCARD_S_SUCCESS);
    }

    LONG connect(const char* reader, DWORD share, DWORD protocols = kBothProtocols) {
        return service_.connect(context_, reader, share, protocols, card_, protocol_);
    }

    SimulatedService::Card connected(DWORD share = SCARD_SHARE_SHARED) {
        EXPECT_EQ(connect(kFull, share), SCARD_S_SUCCESS);
        return card_;
    }

    LONG challenge(SimulatedService::Card card) {
        return service_.transmit(card, SCARD_PROTOCOL_T1, kChallenge, 256, response_);
    }

    LONG wait(std::vector<ReaderState>& states, DWORD timeout) {
        return service_.getStatusChange(context_, timeout, states);
    }

    /// Runs a wait on a thread of its own; when it returns the wait is in progress.
    std::future<LONG> waitInBackground(std::vector<ReaderState>& states) {
        constexpr DWORD kLongWait = 10000;
        auto result = std::async(std::launch::async, [&] { return wait(states, kLongWait); });
        EXPECT_TRUE(service_.waitForStatusWaits(1, kPatience));
        return result;
    }

    SimulatedService service_;
    SimulatedService::Context context_ = 0;
    SimulatedService::Card card_ = 0;
    DWORD protocol_ = 0;
    Bytes response_;
};

TEST_F(SimulatedServiceTest, HandlesCountUpFromTheirBases) {
    SimulatedService service({0x7A000001, 0x7B000001});
    SimulatedService::Context first = 0;
    SimulatedService::Context second = 0;
    ASSERT_EQ(service.establishContext(SCARD_SCOPE_SYSTEM, first), SCARD_S_SUCCESS);
    ASSERT_EQ(service.establishContext(SCARD_SCOPE_SYSTEM, second), SCARD_S_SUCCESS);
    EXPECT_EQ(first, 0x7A000001U);
    EXPECT_EQ(second, 0x7A000002U);
}

TEST_F(SimulatedServiceTest, ReleasedContextIsInvalidAndItsCardsAreClosed) {
    const auto card = connected();
    EXPECT_EQ(service_.isValidContext(context_), SCARD_S_SUCCESS);
    EXPECT_EQ(service_.releaseContext(context_), SCARD_S_SUCCESS);
    EXPECT_EQ(service_.isValidContext(context_), SCARD_E_INVALID_HANDLE);
    EXPECT_EQ(service_.releaseContext(context_), SCARD_E_INVALID_HANDLE);
    EXPECT_EQ(challenge(card), SCARD_E_INVALID_HANDLE);
    EXPECT_EQ(service_.cardCount(), 0U);
}

TEST_F(SimulatedServiceTest, ReadersAreListedInTheOrderOfTheirArrival) {
    EXPECT_FALSE(service_.addReader(kFull)) << "a second one of that name";
    EXPECT_TRUE(service_.addReader("Another"));
    EXPECT_TRUE(service_.removeReader(kEmpty));
    EXPECT_FALSE(service_.removeReader(kEmpty));
    std::vector<std::string> names;
    EXPECT_EQ(service_.listReaders(context_, names), SCARD_S_SUCCESS);
    EXPECT_THAT(names, ElementsAre(kFull, "Another"));
    EXPECT_EQ(service_.listReaders(context_ + 1, names), SCARD_E_INVALID_HANDLE);
    EXPECT_EQ(service_.listReaderGroups(0, names), SCARD_S_SUCCESS);
    EXPECT_THAT(names, ElementsAre("SCard$DefaultReaders"));
}

TEST_F(SimulatedServiceTest, ConnectRefusesWhatIsNotThere) {
    EXPECT_EQ(service_.connect(99, kFull, SCARD_SHARE_SHARED, kBothProtocols, card_, protocol_),
              SCARD_E_INVALID_HANDLE);
    EXPECT_EQ(connect("full", SCARD_SHARE_SHARED), SCARD_E_UNKNOWN_READER) << "case matters";
    EXPECT_EQ(connect(kEmpty, SCARD_SHARE_SHARED), SCARD_E_NO_SMARTCARD);
    EXPECT_EQ(connect(kEmpty, SCARD_SHARE_EXCLUSIVE), SCARD_E_NO_SMARTCARD);
    EXPECT_EQ(connect(kFull, 0), SCARD_E_INVALID_VALUE);
    EXPECT_EQ(service_.cardCount(), 0U);
}

TEST_F(SimulatedServiceTest, ConnectNegotiatesAProtocolOfTheCard) {
    EXPECT_EQ(connect(kFull, SCARD_SHARE_SHARED, kBothProtocols), SCARD_S_SUCCESS);
    EXPECT_EQ(protocol_, DWORD{SCARD_PROTOCOL_T1});
    EXPECT_EQ(connect(kFull, SCARD_SHARE_SHARED, SCARD_PROTOCOL_T0), SCARD_E_PROTO_MISMATCH);
    EXPECT_EQ(connect(kFull, SCARD_SHARE_SHARED, 0), SCARD_E_PROTO_MISMATCH);
}

TEST_F(SimulatedServiceTest, RawIsTheLastChoiceAndThenTheOnlyOne) {
    EXPECT_EQ(connect(kFull, SCARD_SHARE_SHARED, SCARD_PROTOCOL_T0 | SCARD_PROTOCOL_RAW),
              SCARD_S_SUCCESS);
    EXPECT_EQ(protocol_, DWORD{SCARD_PROTOCOL_RAW});
    EXPECT_EQ(connect(kFull, SCARD_SHARE_SHARED, kBothProtocols), SCARD_E_PROTO_MISMATCH)
        << "the card speaks one protocol at a time";
}

TEST_F(SimulatedServiceTest, DirectConnectionNeedsNeitherCardNorProtocol) {
    EXPECT_EQ(connect(kEmpty, SCARD_SHARE_DIRECT, 0), SCARD_S_SUCCESS);
    EXPECT_EQ(protocol_, DWORD{SCARD_PROTOCOL_UNDEFINED});
    CardStatus status;
    EXPECT_EQ(service_.status(card_, status), SCARD_S_SUCCESS);
    EXPECT_FALSE(status.present);
    EXPECT_EQ(challenge(card_), SCARD_E_NO_SMARTCARD);
}

TEST_F(SimulatedServiceTest, SharedConnectionsGoTogetherAndExclusiveOnesDoNot) {
    const auto first = connected();
    const auto second = connected();
    EXPECT_NE(first, second);
    EXPECT_EQ(connect(kFull, SCARD_SHARE_EXCLUSIVE), SCARD_E_SHARING_VIOLATION);
    EXPECT_EQ(connect(kFull, SCARD_SHARE_DIRECT), SCARD_E_SHARING_VIOLATION);
    ASSERT_EQ(service_.disconnect(first, SCARD_LEAVE_CARD), SCARD_S_SUCCESS);
    ASSERT_EQ(service_.disconnect(second, SCARD_LEAVE_CARD), SCARD_S_SUCCESS);
    connected(SCARD_SHARE_EXCLUSIVE);
    EXPECT_EQ(connect(kFull, SCARD_SHARE_SHARED), SCARD_E_SHARING_VIOLATION);
}

TEST_F(SimulatedServiceTest, ConnectionToACardThatIsGoneKeepsNobodyOut) {
    connected(SCARD_SHARE_EXCLUSIVE);
    service_.removeCard(kFull);
    service_.insertCard(kFull, makeDemoCard("Bob"));
    EXPECT_EQ(connect(kFull, SCARD_SHARE_EXCLUSIVE), SCARD_S_SUCCESS);
}

TEST_F(SimulatedServiceTest, StatusTellsReaderStateProtocolAndAtr) {
    CardStatus status;
    ASSERT_EQ(service_.status(connected(), status), SCARD_S_SUCCESS);
    EXPECT_EQ(status.reader, kFull);
    EXPECT_TRUE(status.present && status.powered && !status.negotiable);
    EXPECT_EQ(status.protocol, DWORD{SCARD_PROTOCOL_T1});
    EXPECT_EQ(status.atr, makeDemoCard("").atr());
    EXPECT_EQ(service_.status(99, status), SCARD_E_INVALID_HANDLE);
}

TEST_F(SimulatedServiceTest, TransmitReachesTheCardAndIsCounted) {
    const auto card = connected();
    EXPECT_EQ(challenge(card), SCARD_S_SUCCESS);
    EXPECT_EQ(response_.size(), 6U);
    EXPECT_EQ(service_.transmit(card, SCARD_PROTOCOL_T0, kChallenge, 256, response_),
              SCARD_E_PROTO_MISMATCH);
    EXPECT_EQ(service_.transmit(card, SCARD_PROTOCOL_T1, kChallenge, 5, response_),
              SCARD_E_INSUFFICIENT_BUFFER);
    EXPECT_EQ(service_.transmit(card, SCARD_PROTOCOL_T1, kChallenge, 6, response_),
              SCARD_S_SUCCESS);
    DWORD count = 0;
    EXPECT_EQ(service_.transmitCount(card, count), SCARD_S_SUCCESS);
    EXPECT_EQ(count, 2U);
}

TEST_F(SimulatedServiceTest, RemovedCardStaysRemovedUntilReconnected) {
    const auto card = connected();
    CardStatus status;
    ASSERT_TRUE(service_.removeCard(kFull));
    EXPECT_FALSE(service_.removeCard(kFull));
    EXPECT_EQ(challenge(card), SCARD_W_REMOVED_CARD);
    EXPECT_EQ(service_.status(card, status), SCARD_W_REMOVED_CARD);
    EXPECT_EQ(
        service_.reconnect(card, SCARD_SHARE_SHARED, kBothProtocols, SCARD_LEAVE_CARD, protocol_),
        SCARD_E_NO_SMARTCARD);
    ASSERT_TRUE(service_.insertCard(kFull, makeDemoCard("Bob")));
    EXPECT_FALSE(service_.insertCard(kFull, makeDemoCard("Eve")));
    EXPECT_EQ(challenge(card), SCARD_W_REMOVED_CARD) << "another card is not that card";
    EXPECT_EQ(
        service_.reconnect(card, SCARD_SHARE_SHARED, kBothProtocols, SCARD_LEAVE_CARD, protocol_),
        SCARD_S_SUCCESS);
    EXPECT_EQ(challenge(card), SCARD_S_SUCCESS);
}

TEST_F(SimulatedServiceTest, RemovalOfTheReaderEndsItsConnections) {
    const auto card = connected();
    ASSERT_TRUE(service_.removeReader(kFull));
    EXPECT_EQ(challenge(card), SCARD_E_READER_UNAVAILABLE);
    EXPECT_EQ(service_.disconnect(card, SCARD_RESET_CARD), SCARD_S_SUCCESS);
}

TEST_F(SimulatedServiceTest, CardPulledInTheMiddleOfACommandEndsIt) {
    const auto card = connected();
    ASSERT_TRUE(service_.holdCommands(kFull));
    auto result = std::async(std::launch::async, [&] { return challenge(card); });
    ASSERT_TRUE(service_.waitForHeldCommands(1, kPatience));
    service_.removeCard(kFull);
    EXPECT_EQ(result.get(), SCARD_W_REMOVED_CARD);
}

TEST_F(SimulatedServiceTest, HeldCommandIsAnsweredWhenReleased) {
    const auto card = connected();
    ASSERT_TRUE(service_.holdCommands(kFull));
    auto result = std::async(std::launch::async, [&] { return challenge(card); });
    ASSERT_TRUE(service_.waitForHeldCommands(1, kPatience));
    ASSERT_TRUE(service_.releaseCommands(kFull));
    EXPECT_EQ(result.get(), SCARD_S_SUCCESS);
    EXPECT_EQ(response_.size(), 6U);
}

TEST_F(SimulatedServiceTest, ResetIsToldToTheOtherConnectionsUntilTheyReconnect) {
    const auto resetting = connected();
    const auto other = connected();
    EXPECT_EQ(service_.reconnect(resetting, SCARD_SHARE_SHARED, kBothProtocols, SCARD_RESET_CARD,
                                 protocol_),
              SCARD_S_SUCCESS);
    EXPECT_EQ(challenge(resetting), SCARD_S_SUCCESS);
    EXPECT_EQ(challenge(other), SCARD_W_RESET_CARD);
    EXPECT_EQ(
        service_.reconnect(other, SCARD_SHARE_SHARED, kBothProtocols, SCARD_LEAVE_CARD, protocol_),
        SCARD_S_SUCCESS);
    EXPECT_EQ(challenge(other), SCARD_S_SUCCESS);
}

TEST_F(SimulatedServiceTest, ReconnectHonoursTheOtherConnections) {
    const auto card = connected();
    connected();
    EXPECT_EQ(service_.reconnect(card, SCARD_SHARE_EXCLUSIVE, kBothProtocols, SCARD_LEAVE_CARD,
                                 protocol_),
              SCARD_E_SHARING_VIOLATION);
    EXPECT_EQ(service_.reconnect(card, SCARD_SHARE_SHARED, SCARD_PROTOCOL_RAW, SCARD_LEAVE_CARD,
                                 protocol_),
              SCARD_E_PROTO_MISMATCH);
    EXPECT_EQ(service_.reconnect(card, SCARD_SHARE_SHARED, kBothProtocols, 4, protocol_),
              SCARD_E_INVALID_VALUE);
}

TEST_F(SimulatedServiceTest, TransactionKeepsTheOthersWaiting) {
    const auto owner = connected();
    const auto other = connected();
    EXPECT_EQ(service_.endTransaction(owner, SCARD_LEAVE_CARD), SCARD_E_NOT_TRANSACTED);
    ASSERT_EQ(service_.beginTransaction(owner), SCARD_S_SUCCESS);
    ASSERT_EQ(service_.beginTransaction(owner), SCARD_S_SUCCESS) << "transactions nest";
    auto begun = std::async(std::launch::async, [&] { return service_.beginTransaction(other); });
    ASSERT_TRUE(service_.waitForTransactionWaits(1, kPatience));
    EXPECT_EQ(challenge(owner), SCARD_S_SUCCESS);
    EXPECT_EQ(service_.endTransaction(owner, SCARD_LEAVE_CARD), SCARD_S_SUCCESS);
    EXPECT_EQ(begun.wait_for(0s), std::future_status::timeout) << "one of two has ended";
    EXPECT_EQ(service_.endTransaction(other, SCARD_LEAVE_CARD), SCARD_E_NOT_TRANSACTED);
    EXPECT_EQ(service_.endTransaction(owner, SCARD_LEAVE_CARD), SCARD_S_SUCCESS);
    EXPECT_EQ(begun.get(), SCARD_S_SUCCESS);
    EXPECT_EQ(service_.endTransaction(owner, SCARD_LEAVE_CARD), SCARD_E_NOT_TRANSACTED);
}

TEST_F(SimulatedServiceTest, TransmitWaitsForAnothersTransaction) {
    const auto owner = connected();
    const auto other = connected();
    ASSERT_EQ(service_.beginTransaction(owner), SCARD_S_SUCCESS);
    auto result = std::async(std::launch::async, [&] { return challenge(other); });
    ASSERT_TRUE(service_.waitForTransactionWaits(1, kPatience));
    ASSERT_EQ(service_.disconnect(owner, SCARD_LEAVE_CARD), SCARD_S_SUCCESS);
    EXPECT_EQ(result.get(), SCARD_S_SUCCESS) << "the disconnection ended the transaction";
}

TEST_F(SimulatedServiceTest, WaitForATurnEndsWithTheCardOrTheContext) {
    connected();
    const auto other = connected();
    ASSERT_EQ(service_.beginTransaction(other - 1), SCARD_S_SUCCESS);
    auto first = std::async(std::launch::async, [&] { return service_.beginTransaction(other); });
    ASSERT_TRUE(service_.waitForTransactionWaits(1, kPatience));
    service_.removeCard(kFull);
    EXPECT_EQ(first.get(), SCARD_W_REMOVED_CARD);

    service_.insertCard(kFull, makeDemoCard("Bob"));
    const auto owner = connected();
    const auto waiting = connected();
    ASSERT_EQ(service_.beginTransaction(owner), SCARD_S_SUCCESS);
    auto second =
        std::async(std::launch::async, [&] { return service_.beginTransaction(waiting); });
    ASSERT_TRUE(service_.waitForTransactionWaits(1, kPatience));
    service_.releaseAll();
    EXPECT_EQ(second.get(), SCARD_E_INVALID_HANDLE);
}

TEST_F(SimulatedServiceTest, ControlEchoesAndNamesTheReader) {
    const auto card = connected();
    const Bytes input{1, 2, 3};
    EXPECT_EQ(service_.control(card, kControlEcho, input, 3, response_), SCARD_S_SUCCESS);
    EXPECT_EQ(response_, input);
    EXPECT_EQ(service_.control(card, kControlEcho, input, 2, response_),
              SCARD_E_INSUFFICIENT_BUFFER);
    EXPECT_EQ(service_.control(card, kControlReaderName, {}, 99, response_), SCARD_S_SUCCESS);
    EXPECT_THAT(response_, ElementsAre('F', 'u', 'l', 'l'));
    EXPECT_EQ(service_.control(card, kControlFeatures, {}, 99, response_), SCARD_S_SUCCESS);
    EXPECT_THAT(response_, IsEmpty());
    EXPECT_EQ(service_.control(card, 1, {}, 99, response_), SCARD_E_UNSUPPORTED_FEATURE);
}

TEST_F(SimulatedServiceTest, AttributesAreComputedOrStored) {
    const auto card = connected();
    EXPECT_EQ(service_.getAttribute(card, SCARD_ATTR_ATR_STRING, response_), SCARD_S_SUCCESS);
    EXPECT_EQ(response_, makeDemoCard("").atr());
    EXPECT_EQ(service_.getAttribute(card, SCARD_ATTR_DEVICE_FRIENDLY_NAME_A, response_),
              SCARD_S_SUCCESS);
    EXPECT_THAT(response_, ElementsAre('F', 'u', 'l', 'l', 0));
    EXPECT_EQ(service_.getAttribute(card, SCARD_ATTR_DEVICE_FRIENDLY_NAME_W, response_),
              SCARD_S_SUCCESS);
    EXPECT_THAT(response_, ElementsAre('F', 0, 'u', 0, 'l', 0, 'l', 0, 0, 0));
    EXPECT_EQ(service_.getAttribute(card, SCARD_ATTR_DEVICE_UNIT, response_), SCARD_S_SUCCESS);
    EXPECT_THAT(response_, ElementsAre(0, 0, 0, 0));
    EXPECT_EQ(service_.getAttribute(card, SCARD_ATTR_MAXINPUT, response_),
              SCARD_E_UNSUPPORTED_FEATURE);
    EXPECT_EQ(service_.setAttribute(card, SCARD_ATTR_MAXINPUT, Bytes(300, 7)), SCARD_S_SUCCESS);
    EXPECT_EQ(service_.getAttribute(card, SCARD_ATTR_MAXINPUT, response_), SCARD_S_SUCCESS);
    EXPECT_EQ(response_, Bytes(300, 7));
    EXPECT_EQ(service_.setAttribute(card, SCARD_ATTR_ATR_STRING, response_),
              SCARD_E_UNSUPPORTED_FEATURE);
}

TEST_F(SimulatedServiceTest, UnawareEntriesAreToldTheStateAtOnce) {
    std::vector<ReaderState> states{{kFull}, {kEmpty}, {"Nowhere"}};
    EXPECT_EQ(wait(states, 0), SCARD_S_SUCCESS);
    EXPECT_EQ(states[0].eventState, DWORD{SCARD_STATE_CHANGED | SCARD_STATE_PRESENT | 1 << 16});
    EXPECT_EQ(states[0].atr, makeDemoCard("").atr());
    EXPECT_EQ(states[1].eventState, DWORD{SCARD_STATE_CHANGED | SCARD_STATE_EMPTY});
    EXPECT_THAT(states[1].atr, IsEmpty());
    EXPECT_EQ(states[2].eventState,
              DWORD{SCARD_STATE_CHANGED | SCARD_STATE_UNKNOWN | SCARD_STATE_IGNORE});
}

TEST_F(SimulatedServiceTest, NothingNewIsATimeoutThatStillTellsTheState) {
    std::vector<ReaderState> states{{kFull, SCARD_STATE_PRESENT | 1 << 16},
                                    {"Nowhere", SCARD_STATE_UNKNOWN},
                                    {kEmpty, SCARD_STATE_IGNORE}};
    EXPECT_EQ(wait(states, 0), SCARD_E_TIMEOUT);
    EXPECT_EQ(states[0].eventState, DWORD{SCARD_STATE_PRESENT | 1 << 16});
    EXPECT_EQ(states[2].eventState, DWORD{SCARD_STATE_IGNORE});
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(wait(states, 50), SCARD_E_TIMEOUT);
    EXPECT_GE(std::chrono::steady_clock::now() - begin, 50ms);
}

TEST_F(SimulatedServiceTest, UseOfTheCardIsAChange) {
    std::vector<ReaderState> states{{kFull, SCARD_STATE_PRESENT}};
    connected(SCARD_SHARE_EXCLUSIVE);
    EXPECT_EQ(wait(states, 0), SCARD_S_SUCCESS);
    EXPECT_EQ(states[0].eventState, DWORD{SCARD_STATE_CHANGED | SCARD_STATE_PRESENT |
                                          SCARD_STATE_INUSE | SCARD_STATE_EXCLUSIVE | 1 << 16});
}

TEST_F(SimulatedServiceTest, CounterTellsThatAnotherCardCameMeanwhile) {
    std::vector<ReaderState> states{{kFull, SCARD_STATE_PRESENT | 1 << 16}};
    service_.removeCard(kFull);
    service_.insertCard(kFull, makeDemoCard("Bob"));
    EXPECT_EQ(wait(states, 0), SCARD_S_SUCCESS);
    EXPECT_EQ(states[0].eventState, DWORD{SCARD_STATE_CHANGED | SCARD_STATE_PRESENT | 3 << 16});
    states[0].currentState = SCARD_STATE_PRESENT;
    EXPECT_EQ(wait(states, 0), SCARD_E_TIMEOUT) << "who gives no counter asks for none";
}

TEST_F(SimulatedServiceTest, InsertionEndsAWait) {
    std::vector<ReaderState> states{{kEmpty, SCARD_STATE_EMPTY}};
    auto result = waitInBackground(states);
    service_.insertCard(kEmpty, makeDemoCard("Bob"));
    EXPECT_EQ(result.get(), SCARD_S_SUCCESS);
    EXPECT_EQ(states[0].eventState, DWORD{SCARD_STATE_CHANGED | SCARD_STATE_PRESENT | 1 << 16});
}

TEST_F(SimulatedServiceTest, PseudoReaderCountsTheReaders) {
    std::vector<ReaderState> states{{kPnpReader, 1 << 16}};
    EXPECT_EQ(wait(states, 0), SCARD_S_SUCCESS);
    EXPECT_EQ(states[0].eventState, DWORD{SCARD_STATE_CHANGED | 2 << 16});
    states[0].currentState = 2 << 16;
    auto result = waitInBackground(states);
    service_.addReader("Another");
    EXPECT_EQ(result.get(), SCARD_S_SUCCESS);
    EXPECT_EQ(states[0].eventState, DWORD{SCARD_STATE_CHANGED | 3 << 16});
}

TEST_F(SimulatedServiceTest, CancelEndsTheWaitInProgress) {
    std::vector<ReaderState> states{{kEmpty, SCARD_STATE_EMPTY}};
    auto result = waitInBackground(states);
    EXPECT_EQ(service_.cancel(context_), SCARD_S_SUCCESS);
    EXPECT_EQ(result.get(), SCARD_E_CANCELLED);
    EXPECT_EQ(states[0].eventState, DWORD{SCARD_STATE_EMPTY});
    EXPECT_EQ(service_.cancel(context_ + 1), SCARD_E_INVALID_HANDLE);
}

TEST_F(SimulatedServiceTest, CancelForWhichNothingWaitsIsForgotten) {
    ASSERT_EQ(service_.cancel(context_), SCARD_S_SUCCESS);
    std::vector<ReaderState> states{{kEmpty, SCARD_STATE_EMPTY}};
    EXPECT_EQ(wait(states, 20), SCARD_E_TIMEOUT);
}

TEST_F(SimulatedServiceTest, CancelOfOneContextLeavesTheOthersWaiting) {
    SimulatedService::Context other = 0;
    ASSERT_EQ(service_.establishContext(SCARD_SCOPE_USER, other), SCARD_S_SUCCESS);
    std::vector<ReaderState> states{{kEmpty, SCARD_STATE_EMPTY}};
    auto result = waitInBackground(states);
    EXPECT_EQ(service_.cancel(other), SCARD_S_SUCCESS);
    service_.insertCard(kEmpty, makeDemoCard("Bob"));
    EXPECT_EQ(result.get(), SCARD_S_SUCCESS);
}

TEST_F(SimulatedServiceTest, ReleaseEndsTheWaitInProgress) {
    std::vector<ReaderState> states{{kEmpty, SCARD_STATE_EMPTY}};
    auto result = waitInBackground(states);
    EXPECT_EQ(service_.releaseContext(context_), SCARD_S_SUCCESS);
    EXPECT_EQ(result.get(), SCARD_E_CANCELLED);
    EXPECT_EQ(wait(states, 0), SCARD_E_INVALID_HANDLE);
}

}  // namespace
}  // namespace tez::test
