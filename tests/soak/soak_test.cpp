// What decides whether a soak fails.
#include <gmock/gmock.h>
#include <memory>
#include <vector>

#include "holdings.h"
#include "judge.h"
#include "tagged_card.h"

namespace tez::soak {
namespace {

std::vector<double> seriesOf(std::size_t count, double (*valueAt)(std::size_t)) {
    std::vector<double> series;
    for (std::size_t i = 0; i < count; ++i) {
        series.push_back(valueAt(i));
    }
    return series;
}

TEST(Growth, IsSeenWhenItGoesOnUntilTheEnd) {
    EXPECT_TRUE(growsSteadily(
        seriesOf(200, [](std::size_t i) { return 20 + static_cast<double>(i) / 50; }), 2));
}

TEST(Growth, IsNotWhatEndsWithTheWarmUp) {
    EXPECT_FALSE(growsSteadily(
        seriesOf(200, [](std::size_t i) { return i < 40 ? static_cast<double>(i) : 40; }), 2));
}

TEST(Growth, IsNotWhatComesAndGoes) {
    EXPECT_FALSE(
        growsSteadily(seriesOf(200, [](std::size_t i) { return static_cast<double>(i % 40); }), 2));
}

TEST(Growth, IsNotWithinTheTolerance) {
    EXPECT_FALSE(growsSteadily(
        seriesOf(200, [](std::size_t i) { return 20 + static_cast<double>(i) / 200; }), 2));
}

TEST(Growth, IsNotInNothing) {
    EXPECT_FALSE(growsSteadily({}, 0));
}

TEST(Holdings, AreThoseOfTheProcess) {
    const DWORD processes[] = {GetCurrentProcessId(), 0};
    const Holdings before = holdingsOf(processes)[0];
    std::vector<pcscd::UniqueHandle> events;
    events.reserve(50);
    for (int i = 0; i < 50; ++i) {
        events.emplace_back(CreateEventA(nullptr, TRUE, FALSE, nullptr));
    }
    const std::vector<Holdings> after = holdingsOf(processes);
    EXPECT_GE(after[0].handles, before.handles + 50);
    EXPECT_GE(after[0].threads, 1);
    EXPECT_GT(after[0].memory, 0);
    EXPECT_EQ(after[1].handles, 0);
}

TEST(Events, AreNumberedOnWhereAReadersStateBeginsAnew) {
    const auto events = std::make_unique<Events>();
    for (const std::uint32_t last : {2U, 0x7FFFU, 0x8001U, 0xFFFFU, 0x10000U, 0x2C001U}) {
        events->count = last;
        EXPECT_EQ(events->numberIn(DWORD{last} << 16U | SCARD_STATE_PRESENT), last);
        EXPECT_EQ(events->numberIn(DWORD{last - 1} << 16U | SCARD_STATE_EMPTY), last - 1);
    }
}

TEST(TaggedCard, AnswersWithItsTag) {
    VirtualCard card = makeTaggedCard(kRemoteCardReader);
    card.transmit(selectTaggedApplication());
    card.transmit(selectTaggedFile());
    for (const std::size_t length : {4U, 256U, 257U, 1000U}) {
        const Bytes answer = card.transmit(readTaggedFile(0x1234, length));
        EXPECT_TRUE(isAnswerOf(kRemoteCardReader, 0x1234, length, answer)) << length;
        EXPECT_FALSE(isAnswerOf(kRemoteCardReader, 0x1235, length, answer)) << length;
        EXPECT_FALSE(isAnswerOf(kHostCardReader, 0x1234, length, answer)) << length;
        EXPECT_FALSE(isAnswerOf(kRemoteCardReader, 0x1234, length + 1, answer)) << length;
    }
}

/// One client that has been well for a long time.
class JudgeTest : public testing::Test {
  protected:
    JudgeTest() {
        board->stableSince = kLongAgo;
        board->patience = kHung;
        client.process = 1;
        client.born = kLongAgo;
        client.contexts[kQuietWaiter] = 8;
    }

    const Milliseconds kLongAgo = now() - kHung - 1000;
    const std::unique_ptr<BoardContent> board = std::make_unique<BoardContent>();
    ClientBoard& client = board->clients[1];
    PatientClock clock;

    void tellAll() {
        for (Waiter& waiter : client.waiters) {
            waiter.hostKnown = client.host.count.load();
            waiter.remoteKnown = board->remote.count.load();
        }
    }
    static void beginEvent(Events& events, Milliseconds time) {
        events.times[events.beginNext() & 0xFFFF] = time;
    }
};

TEST_F(JudgeTest, IsContentWhenAllIsTold) {
    beginEvent(client.host, kLongAgo);
    beginEvent(board->remote, kLongAgo);
    tellAll();
    EXPECT_EQ(findLost(*board, clock), std::nullopt);
    EXPECT_EQ(findHung(*board, clock), std::nullopt);
}

TEST_F(JudgeTest, FindsTheLostEventsOfBothSides) {
    beginEvent(client.host, kLongAgo);
    EXPECT_THAT(findLost(*board, clock),
                testing::Optional(testing::HasSubstr("event of the host's")));
    tellAll();
    beginEvent(board->remote, kLongAgo);
    EXPECT_THAT(findLost(*board, clock),
                testing::Optional(testing::HasSubstr("event of the daemon's")));
}

TEST_F(JudgeTest, IsPatient) {
    beginEvent(client.host, now());
    beginEvent(board->remote, now());
    EXPECT_EQ(findLost(*board, clock), std::nullopt);
}

TEST_F(JudgeTest, LetsTimePassForOthersWhenItIsKeptFromLooking) {
    const Milliseconds begin = now();
    EXPECT_LE(clock.age(begin - 1000), now() - begin + 1000);
    EXPECT_GE(clock.age(begin - 1000), 1000);
    Sleep(1000);
    clock.look();
    EXPECT_LE(clock.age(begin), now() - begin - 700);
    EXPECT_GE(clock.age(begin), 0);
}

TEST_F(JudgeTest, WantsNoEventOfADaemonThatIsAwayOrHasJustComeBack) {
    beginEvent(board->remote, kLongAgo);
    board->stableSince = 0;
    EXPECT_EQ(findLost(*board, clock), std::nullopt);
    board->stableSince = now();
    EXPECT_EQ(findLost(*board, clock), std::nullopt);
}

TEST_F(JudgeTest, WantsEventsOfALostConnectionOfWaitsWithStandardAnswersOnly) {
    beginEvent(board->remote, kLongAgo);
    ClientBoard& byDefault = board->clients[2];
    byDefault.process = 1;
    byDefault.born = kLongAgo;
    tellAll();
    board->connectionsLost = kLongAgo;
    byDefault.waiters[kEventWaiter].since = kLongAgo;
    byDefault.waiters[kBusyWaiter].remoteKnown = 1;
    EXPECT_EQ(findLost(*board, clock), std::nullopt);
    byDefault.waiters[kEventWaiter].since = kLongAgo + 1;
    EXPECT_THAT(findLost(*board, clock),
                testing::Optional(testing::HasSubstr("waiter 1 of client 2")));
    client.waiters[kEventWaiter].since = kLongAgo;
    client.waiters[kEventWaiter].remoteKnown = 0;
    EXPECT_THAT(findLost(*board, clock),
                testing::Optional(testing::HasSubstr("waiter 1 of client 1")));
}

TEST_F(JudgeTest, FindsLostCancelsAndReleases) {
    Waiter& waiter = client.waiters[kQuietWaiter];
    waiter.since = kLongAgo;
    waiter.context = 8;
    EXPECT_EQ(findLost(*board, clock), std::nullopt);
    waiter.cancelled = kLongAgo;
    EXPECT_THAT(findLost(*board, clock), testing::Optional(testing::HasSubstr("a cancel")));
    waiter.cancelled = 0;
    client.contexts[kQuietWaiter] = 9;
    EXPECT_THAT(findLost(*board, clock),
                testing::Optional(testing::HasSubstr("release of its context")));
}

TEST_F(JudgeTest, FindsCallsThatHangButForWaits) {
    Activity& activity = client.activities[3];
    activity.since = kLongAgo;
    activity.call = Call::kGetStatusChange;
    EXPECT_EQ(findHung(*board, clock), std::nullopt);
    activity.call = Call::kTransmit;
    EXPECT_THAT(findHung(*board, clock), testing::Optional(testing::HasSubstr("SCardTransmit")));
}

TEST_F(JudgeTest, LooksAtNoClientThatHasEnded) {
    beginEvent(client.host, kLongAgo);
    client.activities[3].since = kLongAgo;
    client.process = 0;
    EXPECT_EQ(findLost(*board, clock), std::nullopt);
    EXPECT_EQ(findHung(*board, clock), std::nullopt);
}

}  // namespace
}  // namespace tez::soak
