// The daemon's core on streams in memory: how it speaks, and how it treats its clients.
#include "core/daemon.h"

#include <algorithm>
#include <chrono>
#include <future>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <new>
#include <random>
#include <vector>

#include "daemon_client.h"
#include "packed_record.h"
#include "patience.h"
#include "simulated/simulated_service.h"
#include "wire/database_records.h"

namespace tez::pcscd {
namespace {

using namespace std::chrono_literals;
using test::copyOf;
using test::eventually;
using test::kPatience;
using test::resultOf;
using testing::ElementsAre;
using testing::Optional;
using testing::SizeIs;
using Clock = std::chrono::steady_clock;

constexpr const char* kDaemonReader = "Reader";
constexpr Clients::Process kProgram = 100;
constexpr Clients::Process kOtherProgram = 200;

class DaemonTest : public testing::Test {
  public:
    DaemonTest(const DaemonTest&) = delete;
    DaemonTest& operator=(const DaemonTest&) = delete;

  protected:
    DaemonTest() {
        service_.addReader(kDaemonReader);
        service_.insertCard(kDaemonReader, makeDemoCard("Ada"));
    }
    ~DaemonTest() override { service_.releaseAll(); }

    /// A connection that has shaken hands.
    std::unique_ptr<DaemonClient> connected(Clients::Process process = kProgram) {
        auto client = std::make_unique<DaemonClient>(daemon_, process);
        EXPECT_TRUE(client->shakeHands());
        return client;
    }

    /// A wait for a change of the reader, which is as it was told.
    static void sendWait(DaemonClient& client, Context context) {
        ReaderStateRecord entry{};
        std::strncpy(entry.szReader, kDaemonReader, sizeof entry.szReader - 1);
        entry.dwCurrentState = state::kPresent;
        client.send(CMD_GET_STATUS_CHANGE, StatusChangeRecord{context, kInfinite, 1, 0},
                    std::span(reinterpret_cast<const std::uint8_t*>(&entry), sizeof entry));
    }

    /// Asks without waiting for the states of so many readers that there are not.
    static std::optional<StatusChangeRecord> askForStates(DaemonClient& client, Context context,
                                                          std::uint32_t count) {
        return client.call(CMD_GET_STATUS_CHANGE, StatusChangeRecord{context, 0, count, 0},
                           Bytes(count * sizeof(ReaderStateRecord)));
    }

    /// How long the end of a connection takes: the shortest of three times, as a busy machine may
    /// hold any one of them up.
    /// @param prepare  gives the connection that is to end.
    template <typename Prepare>
    static Clock::duration timeOfEnd(Prepare prepare) {
        Clock::duration shortest = Clock::duration::max();
        for (int round = 0; round < 3; ++round) {
            std::unique_ptr<DaemonClient> client = prepare();
            const auto end = Clock::now();
            client.reset();
            shortest = std::min(shortest, Clock::now() - end);
        }
        return shortest;
    }

    SimulatedService service_;
    Daemon daemon_{service_};
};

TEST_F(DaemonTest, TellsItsVersionInOnePiece) {
    DaemonClient client(daemon_, kProgram);
    EXPECT_THAT(client.shakeHands(), Optional(ElementsAre(1, 0, 0, 0, 4, 0, 0, 0)));
}

TEST_F(DaemonTest, WaitsForTheWholeOfARequestHoweverItIsCut) {
    const auto client = connected();
    const EstablishRecord record{};
    client->stream().send(Bytes{sizeof record, 0});
    client->stream().send(Bytes{0, 0, CMD_ESTABLISH_CONTEXT, 0, 0, 0, 0, 0, 0, 0, 1});
    for (std::size_t i = 1; i < sizeof record; ++i) {
        client->stream().send(Bytes{0});
    }
    // A scope that is none: the answer has the request's own bytes.
    const auto answer = client->receive<EstablishRecord>();
    ASSERT_TRUE(answer);
    EXPECT_EQ(copyOf(answer->dwScope), 1U);
    EXPECT_EQ(resultOf(answer), 0U);
}

TEST_F(DaemonTest, WritesRecordAndDataInAPieceEach) {
    const auto client = connected();
    const ListReadersRecord request{client->establish(), 0, 0};
    const auto record = client->call(CMD_LIST_READERS, request);
    ASSERT_TRUE(record);
    EXPECT_EQ(copyOf(record->cchReaders), 8U);
    EXPECT_THAT(client->stream().takePiece(), Optional(SizeIs(8)));
}

TEST_F(DaemonTest, ClosesOnWhatItDoesNotUnderstand) {
    for (const auto& [command, size] :
         std::vector<std::pair<std::uint32_t, std::size_t>>{{14, 16},
                                                            {17, 16},
                                                            {0x80C, 16},
                                                            {CMD_ESTABLISH_CONTEXT, 15},
                                                            {CMD_ESTABLISH_CONTEXT, 17},
                                                            {CMD_TRANSMIT, 29},
                                                            {CMD_LIST_READERS, 0}}) {
        const auto client = connected();
        client->sendHeader(command, size);
        client->stream().send(Bytes(size));
        EXPECT_EQ(client->stream().takePiece(), std::nullopt) << command << ", " << size;
        EXPECT_TRUE(client->stream().closed());
    }
}

TEST_F(DaemonTest, TakesNoMemoryForWhatIsOnlyAnnounced) {
    const auto client = connected();
    client->sendHeader(CMD_TRANSMIT, std::size_t{16} << 20);
    client->stream().send(Bytes(100));
    client->stream().hangUp();
    EXPECT_EQ(client->stream().takePiece(), std::nullopt);
    const auto tooLong = connected();
    tooLong->sendHeader(CMD_TRANSMIT, (std::size_t{16} << 20) + 1);
    EXPECT_EQ(tooLong->stream().takePiece(), std::nullopt);
}

TEST_F(DaemonTest, ClosesOnAClientThatSendsAndSendsAndTakesNoAnswer) {
    const auto client = connected();
    sendWait(*client, client->establish());
    ASSERT_TRUE(service_.waitForStatusWaits(1, kPatience));
    for (int i = 0; i < 100 && !client->stream().closed(); ++i) {
        client->send(CMD_RELEASE_CONTEXT, ReleaseRecord{1, 0});
    }
    EXPECT_TRUE(eventually([&] { return client->stream().closed(); }));
}

TEST_F(DaemonTest, OutlivesRandomBytes) {
    std::mt19937 random(4711);  // the same bytes in every run
    const auto below = [&](std::uint32_t limit) {
        return std::uniform_int_distribution<std::uint32_t>(0, limit - 1)(random);
    };
    for (Clients::Process round = 0; round < 200; ++round) {
        const auto client = connected(kProgram + round);
        for (int i = 0; i < 4; ++i) {
            Bytes body(below(400));
            std::ranges::generate(body, [&] { return static_cast<std::uint8_t>(below(256)); });
            const std::uint32_t command = below(2) == 0 ? below(18) : 0x800 + below(13);
            client->sendHeader(command, below(8) == 0 ? below(0xFFFFFFFF) : body.size());
            client->stream().send(body);
        }
    }
    EXPECT_NE(connected()->establish(), 0U);
}

TEST_F(DaemonTest, RefusesAWaitForTooManyReaders) {
    const auto client = connected();
    const Context context = client->establish();
    const auto most = askForStates(*client, context, 256);
    ASSERT_TRUE(most);
    EXPECT_EQ(resultOf(most), 0U);
    EXPECT_THAT(client->stream().takePiece(), Optional(SizeIs(256 * sizeof(ReaderStateRecord))));
    const auto tooMany = askForStates(*client, context, 257);
    ASSERT_TRUE(tooMany);
    EXPECT_EQ(resultOf(tooMany), static_cast<std::uint32_t>(result::kInvalidParameter));
    EXPECT_EQ(copyOf(tooMany->cReaders), 0U) << "no states follow";
    EXPECT_NE(client->establish(), 0U);
}

TEST_F(DaemonTest, ContextsBelongToTheProgramAndNotToAConnection) {
    auto first = connected();
    const auto second = connected();
    const Context context = first->establish();
    first.reset();
    EXPECT_EQ(resultOf(second->connect(context, kDaemonReader)), 0U);
}

TEST_F(DaemonTest, GivesBackWhatAVanishedProgramHeldExclusively) {
    const auto other = connected(kOtherProgram);
    const Context otherContext = other->establish();
    Context context = 0;
    EXPECT_LT(timeOfEnd([&] {
                  auto vanishing = connected();
                  context = vanishing->establish();
                  EXPECT_EQ(resultOf(vanishing->connect(context, kDaemonReader, share::kExclusive)),
                            0U);
                  EXPECT_EQ(resultOf(other->connect(otherContext, kDaemonReader)),
                            static_cast<std::uint32_t>(result::kSharingViolation));
                  return vanishing;
              }),
              1s);
    EXPECT_EQ(service_.isValidContext(context), result::kInvalidHandle);
    EXPECT_EQ(resultOf(other->connect(otherContext, kDaemonReader)), 0U);
    EXPECT_EQ(service_.isValidContext(otherContext), result::kSuccess);
}

TEST_F(DaemonTest, EndsTheTransactionOfAVanishedProgram) {
    auto vanishing = connected();
    const auto other = connected(kOtherProgram);
    const auto card = vanishing->connect(vanishing->establish(), kDaemonReader);
    ASSERT_EQ(resultOf(vanishing->call(CMD_BEGIN_TRANSACTION, HandleRecord{card.hCard, 1})), 0U);
    const auto otherCard = other->connect(other->establish(), kDaemonReader);
    other->send(CMD_BEGIN_TRANSACTION, HandleRecord{otherCard.hCard, 0});
    ASSERT_TRUE(service_.waitForTransactionWaits(1, kPatience));
    vanishing.reset();
    const auto begun = other->receive<HandleRecord>();
    ASSERT_TRUE(begun);
    EXPECT_EQ(resultOf(begun), static_cast<std::uint32_t>(result::kResetCard))
        << "nobody has said that the card may be left as it is";
}

TEST_F(DaemonTest, LeavesTheCardsOfAReleasedContextAsTheyAre) {
    const auto releasing = connected();
    const auto other = connected(kOtherProgram);
    const Context context = releasing->establish();
    ASSERT_EQ(resultOf(releasing->connect(context, kDaemonReader)), 0U);
    const auto shared = other->connect(other->establish(), kDaemonReader);
    EXPECT_EQ(resultOf(releasing->call(CMD_RELEASE_CONTEXT, ReleaseRecord{context, 1})), 0U);
    EXPECT_EQ(resultOf(other->call(CMD_BEGIN_TRANSACTION, HandleRecord{shared.hCard, 1})), 0U);
}

TEST_F(DaemonTest, NoticesTheEndOfAProgramThatWaits) {
    EXPECT_LT(timeOfEnd([&] {
                  auto waiting = connected();
                  sendWait(*waiting, waiting->establish());
                  EXPECT_TRUE(service_.waitForStatusWaits(1, kPatience));
                  return waiting;
              }),
              1s);
    EXPECT_EQ(service_.contextCount(), 0U);
}

TEST_F(DaemonTest, WaitsForAProgramThatOnlyChangesItsConnection) {
    auto first = std::make_unique<DaemonClient>(daemon_, kProgram);
    ASSERT_TRUE(first->shakeHands());
    const Context context = first->establish();
    first->stream().hangUp();
    const auto second = connected();
    first.reset();
    EXPECT_EQ(resultOf(second->connect(context, kDaemonReader)), 0U);
}

TEST_F(DaemonTest, ReleasedContextsAreNotKeptInMind) {
    EXPECT_LT(
        timeOfEnd([&] {
            auto client = connected();
            const Context context = client->establish();
            EXPECT_EQ(resultOf(client->call(CMD_RELEASE_CONTEXT, ReleaseRecord{context, 1})), 0U);
            return client;
        }),
        400ms)
        << "there was nothing to wait for";
}

TEST_F(DaemonTest, ReleaseEndsTheWaitOfItsContext) {
    const auto waiting = connected();
    const auto other = connected();
    const Context context = waiting->establish();
    sendWait(*waiting, context);
    ASSERT_TRUE(service_.waitForStatusWaits(1, kPatience));
    EXPECT_EQ(resultOf(other->call(CMD_RELEASE_CONTEXT, ReleaseRecord{context, 1})), 0U);
    const auto answer = waiting->receive<StatusChangeRecord>();
    ASSERT_TRUE(answer);
    EXPECT_EQ(resultOf(answer), static_cast<std::uint32_t>(result::kCancelled));
}

TEST_F(DaemonTest, CancelEndsTheWaitsInProgressAndIsThenForgotten) {
    const auto waiting = connected();
    const auto other = connected();
    const Context context = waiting->establish();
    EXPECT_EQ(resultOf(other->call(CMD_CANCEL, HandleRecord{context, 1})), 0U);
    sendWait(*waiting, context);
    ASSERT_TRUE(service_.waitForStatusWaits(1, kPatience)) << "the cancel came before";
    EXPECT_EQ(resultOf(other->call(CMD_CANCEL, HandleRecord{context, 1})), 0U);
    const auto answer = waiting->receive<StatusChangeRecord>();
    ASSERT_TRUE(answer);
    EXPECT_EQ(resultOf(answer), static_cast<std::uint32_t>(result::kCancelled));
}

TEST_F(DaemonTest, HandlesAreOfThisRunAlone) {
    SimulatedService nextRun;
    const auto client = connected();
    std::vector<Context> seen;
    for (int i = 0; i < 100; ++i) {
        const Context context = client->establish();
        EXPECT_GT(context, 0xFFFFFFFFU);
        EXPECT_THAT(seen, testing::Not(testing::Contains(context)));
        seen.push_back(context);
        EXPECT_EQ(resultOf(client->call(CMD_RELEASE_CONTEXT, ReleaseRecord{context, 1})), 0U);
        Context other = 0;
        ASSERT_EQ(nextRun.establishContext(scope::kUser, other), result::kSuccess);
        EXPECT_THAT(seen, testing::Not(testing::Contains(other)));
    }
}

/// A daemon without memory for audits, nor for the greeting of a client with a token.
class ShortOfMemory final : public Daemon {
  public:
    using Daemon::Daemon;

  protected:
    Reply greet(const Handshake& handshake) override {
        return handshake.token.size() == 1 ? Daemon::greet(handshake) : throw std::bad_alloc();
    }
    Reply answer(const Request& request, Clients::Process process) override {
        return request.command == Command::kAudit ? throw std::bad_alloc()
                                                  : Daemon::answer(request, process);
    }
};

TEST_F(DaemonTest, EndsOnlyTheConnectionInWhoseServiceSomethingGoesWrong) {
    ShortOfMemory daemon(service_);
    DaemonClient other(daemon, kOtherProgram);
    ASSERT_TRUE(other.shakeHands());
    DaemonClient unlucky(daemon, kProgram);
    ASSERT_TRUE(unlucky.shakeHands());
    const Context context = unlucky.establish();
    EXPECT_FALSE(unlucky.call(CMD_AUDIT, AuditRecord{context, 0, 0}));
    EXPECT_TRUE(unlucky.stream().closed());
    EXPECT_TRUE(unlucky.awaitEnd());
    EXPECT_EQ(service_.isValidContext(context), result::kInvalidHandle);
    DaemonClient ungreeted(daemon, kProgram);
    ungreeted.stream().send(Bytes{'t', 0, 0xFF, 0xFF, 0xFF, 0xFF});
    EXPECT_EQ(ungreeted.stream().takePiece(), std::nullopt);
    EXPECT_TRUE(ungreeted.awaitEnd());
    EXPECT_NE(other.establish(), 0U);
    EXPECT_FALSE(other.awaitEnd());
}

TEST_F(DaemonTest, HandlesDoNotTellTheNextOnes) {
    const auto client = connected();
    const Context context = client->establish();
    const ConnectRecord card = client->connect(context, kDaemonReader);
    const auto apart = [](std::uint64_t one, std::uint64_t other) {
        return std::max(one, other) - std::min(one, other);
    };
    EXPECT_GT(apart(client->establish(), context), 0xFFFFFFFFU);
    EXPECT_GT(apart(client->connect(context, kDaemonReader).hCard, card.hCard), 0xFFFFFFFFU);
}

TEST_F(DaemonTest, ServesSixteenProgramsAtOnce) {
    std::vector<std::future<int>> programs;
    for (Clients::Process process = 1; process <= 16; ++process) {
        programs.push_back(std::async(std::launch::async, [this, process] {
            const auto client = connected(process);
            const Context context = client->establish();
            const auto card = client->connect(context, kDaemonReader);
            const Bytes command{0x00, 0x84, 0x00, 0x00, 0x08};
            int answers = 0;
            for (int i = 0; i < 50; ++i) {
                const TransmitRecord request{card.hCard, card.dwActiveProtocol, 5, 0, 258, 0};
                if (resultOf(client->call(CMD_TRANSMIT, request, command)) == 0U) {
                    const auto data = client->stream().takePiece();
                    answers += data && data->size() == 10 ? 1 : 0;
                }
            }
            // Or else the card that the others still use would be reset once this one is gone.
            client->call(CMD_RELEASE_CONTEXT, ReleaseRecord{context, 1});
            return answers;
        }));
    }
    for (auto& program : programs) {
        EXPECT_EQ(program.get(), 50);
    }
}

}  // namespace
}  // namespace tez::pcscd
