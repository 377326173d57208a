// The agent program between relays of the test's making and a PC/SC service with virtual readers.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <fstream>
#include <future>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <list>
#include <memory>
#include <random>
#include <sys/resource.h>
#include <sys/stat.h>
#include <thread>

#include "agent/service_context.h"
#include "agent/token_file.h"
#include "card_machine.h"
#include "core/text.h"
#include "link/hello.h"
#include "link_client.h"
#include "packed_record.h"
#include "patience.h"
#include "simulated/virtual_card.h"
#include "wire/attribute_records.h"

namespace tez::agent {
namespace {

using namespace std::chrono_literals;
using pcscd::Bytes;
using pcscd::multiString;
using test::copyOf;
using test::eventually;
using test::resultOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Pair;
using testing::SizeIs;
namespace result = pcscd::result;
namespace state = pcscd::state;

constexpr std::uint32_t kProgram = 100;
constexpr std::uint32_t kOtherProgram = 200;
const Bytes kChallenge{0x00, 0x84, 0x00, 0x00, 0x08};

std::uint32_t code(pcscd::Result value) {
    return static_cast<std::uint32_t>(value);
}

class AgentTest : public testing::Test {
  protected:
    /// A connection of a program of the relay's machine, ready for requests.
    std::unique_ptr<LinkClient> connected(std::uint32_t process = kProgram,
                                          std::uint32_t relay = 1) {
        auto client = std::make_unique<LinkClient>(machine_.socket());
        EXPECT_TRUE(client->sayHello(readTokenFile(machine_.token()), process, relay));
        EXPECT_TRUE(client->shakeHands());
        return client;
    }

    /// Waits, from the state that the application knows on, until the reader's state has the bit.
    static bool awaitState(const LinkClient& client, std::uint64_t context, const char* reader,
                           std::uint32_t from, std::uint32_t awaited) {
        while ((from & awaited) == 0) {
            client.sendWait(context, reader, from);
            const auto [answer, now] = client.receiveWait();
            if (answer != result::kSuccess || (now & state::kChanged) == 0) {
                return false;
            }
            from = now & ~state::kChanged;
        }
        return true;
    }

    CardMachine machine_;
};

TEST_F(AgentTest, ServesTheReadersAndCardsOfTheService) {
    machine_.startAgent();
    const auto client = connected();
    const auto context = client->establish();
    EXPECT_EQ(client->listReaders(context), multiString({kFirstReader, kSecondReader}));
    const ConnectRecord card = client->connect(context, kFirstReader);
    ASSERT_EQ(resultOf(card), 0U);
    EXPECT_EQ(copyOf(card.dwActiveProtocol), pcscd::protocol::kT1);
    EXPECT_THAT(client->transmit(card, kChallenge), SizeIs(10));
    const auto status = client->call(CMD_STATUS, StatusRecord{card.hCard, 0, 0, {}, 33, 1});
    EXPECT_EQ(resultOf(status), 0U);
    EXPECT_EQ(copyOf(status.dwState), unsigned{kWirePresent | kWirePowered | kWireNegotiable});
    EXPECT_EQ(Bytes(status.pbAtr, status.pbAtr + status.cbAtrLen), pcscd::makeDemoCard("").atr());
    EXPECT_EQ(resultOf(client->connect(context, kSecondReader)), code(result::kNoSmartcard));
    EXPECT_EQ(resultOf(client->connect(context, "No Such Reader")), code(result::kUnknownReader));
    EXPECT_EQ(resultOf(client->call(CMD_DISCONNECT, DisconnectRecord{card.hCard, 0, 1})), 0U);
    EXPECT_EQ(machine_.stopAgent(), 0);
}

TEST_F(AgentTest, TellsOfTheReaderWhatTheServiceTellsUnderTheServedName) {
    machine_.startAgent({"--name-prefix", "Home: ", "--reader", "Virtual*", "--deny", "*01"});
    const auto client = connected();
    const auto context = client->establish();
    const std::string name = std::string("Home: ") + kFirstReader;
    EXPECT_EQ(client->listReaders(context), multiString({name}));
    const ConnectRecord card = client->connect(context, name.c_str());
    ASSERT_EQ(resultOf(card), 0U);
    const auto attribute = [&](std::uint32_t id) {
        const auto answer = client->call(CMD_GET_ATTRIB, AttribRecord{card.hCard, id, {}, 0, 1});
        return answer.rv == 0 ? client->receiveFrame().value_or(Bytes{}) : Bytes{};
    };
    EXPECT_EQ(attribute(pcscd::attribute::kDeviceFriendlyNameA), pcscd::terminated(name));
    EXPECT_EQ(attribute(pcscd::attribute::kDeviceSystemNameW), pcscd::terminatedWide(name));
    EXPECT_EQ(attribute(pcscd::attribute::kAtrString), pcscd::makeDemoCard("").atr());
    const auto control = client->call(CMD_CONTROL, ControlRecord{card.hCard, 3400, 0, 100, 0, 0});
    EXPECT_EQ(resultOf(control), code(result::kUnsupportedFeature))
        << "the service has another code";
    const AttribRecord unknown{card.hCard, pcscd::attribute::kMaxInput, {}, 1, 0};
    EXPECT_EQ(resultOf(client->call(CMD_SET_ATTRIB, unknown, Bytes{7})),
              code(result::kUnsupportedFeature));
}

TEST_F(AgentTest, SaysOfAnAttributeThatTheDriverCannotTellThatItIsNotThere) {
    machine_.startAgent();
    const auto client = connected();
    const ConnectRecord reader =
        client->connect(client->establish(), kSecondReader, pcscd::share::kDirect);
    ASSERT_EQ(resultOf(reader), 0U);
    constexpr std::uint32_t kAtrOfTheDriver = 0x303;  // there is no card in the reader
    EXPECT_EQ(resultOf(client->call(CMD_GET_ATTRIB,
                                    AttribRecord{reader.hCard, kAtrOfTheDriver, {}, 0, 1})),
              code(result::kUnsupportedFeature));
}

TEST_F(AgentTest, TellsOfAReaderWhoseNameIsTooLong) {
    machine_.stopService();
    const std::string name(80, 'R');
    const std::filesystem::path readers = machine_.folder() / "readers";
    std::ofstream(readers / "vpcd") << "FRIENDLYNAME \"" << name << "\"\n"
                                    << "DEVICENAME /dev/null:0x8C7B\n"
                                    << "LIBPATH /usr/lib/pcsc/drivers/serial/libifdvpcd.so\n"
                                    << "CHANNELID 0x8C7B\n";
    Child service("/usr/sbin/pcscd", {"--foreground", "--config", readers.string()},
                  machine_.folder() / "pcscd.log");
    machine_.startAgent({"--name-prefix", std::string(60, 'P')});
    EXPECT_TRUE(eventually([&] {
        return machine_.agentLog().find("name is too long: " + name) != std::string::npos;
    }));
    const auto client = connected();
    EXPECT_EQ(client->listReaders(client->establish()), multiString({}));
    service.end(SIGTERM);  // it removes its socket
}

TEST_F(AgentTest, FollowsCardsThatComeAndGo) {
    machine_.startAgent();
    const auto client = connected();
    const auto watching = connected();
    const auto context = client->establish();
    const ConnectRecord card = client->connect(context, kFirstReader);
    const auto seen = [&](std::uint32_t known, std::uint32_t bit) {
        return std::async(std::launch::async, [&watching, context, known, bit] {
            return awaitState(*watching, context, kFirstReader, known, bit);
        });
    };
    auto removed = seen(state::kPresent | state::kInUse, state::kEmpty);
    machine_.removeCard();
    EXPECT_TRUE(removed.get());
    const TransmitRecord request{card.hCard, card.dwActiveProtocol, 5, 0, 258, 0};
    EXPECT_EQ(resultOf(client->call(CMD_TRANSMIT, request, kChallenge)),
              code(result::kRemovedCard));
    auto inserted = seen(state::kEmpty, state::kPresent);
    machine_.insertCard();
    EXPECT_TRUE(inserted.get());
    EXPECT_EQ(resultOf(client->connect(context, kFirstReader)), 0U);
}

TEST_F(AgentTest, CancelsTheWaitsOfOneContextAndNoOthers) {
    machine_.startAgent();
    const auto first = connected();
    const auto second = connected();
    const auto third = connected();
    const auto context = first->establish();
    const auto other = first->establish();
    EXPECT_EQ(resultOf(third->call(CMD_CANCEL, HandleRecord{context, 1})), 0U)
        << "nothing waits yet";
    first->sendWait(context, kSecondReader, state::kEmpty, 100);
    EXPECT_THAT(first->receiveWait(), Pair(result::kTimeout, testing::_));
    first->sendWait(context, kSecondReader, state::kEmpty);
    second->sendWait(other, kSecondReader, state::kEmpty);
    // A cancel that comes before its wait is lost, as it should be: it is repeated.
    auto cancelled = std::async(std::launch::async, [&] { return first->receiveWait(); });
    while (cancelled.wait_for(10ms) != std::future_status::ready) {
        ASSERT_EQ(resultOf(third->call(CMD_CANCEL, HandleRecord{context, 1})), 0U);
    }
    EXPECT_THAT(cancelled.get(), Pair(result::kCancelled, testing::_));
    EXPECT_EQ(resultOf(third->call(CMD_RELEASE_CONTEXT, ReleaseRecord{other, 1})), 0U);
    EXPECT_THAT(second->receiveWait(), Pair(result::kCancelled, testing::_));
}

TEST_F(AgentTest, KeepsOthersOutOfATransaction) {
    machine_.startAgent();
    const auto owner = connected();
    const auto other = connected(kOtherProgram);
    const ConnectRecord owned = owner->connect(owner->establish(), kFirstReader);
    const ConnectRecord shared = other->connect(other->establish(), kFirstReader);
    ASSERT_EQ(resultOf(owner->call(CMD_BEGIN_TRANSACTION, HandleRecord{owned.hCard, 1})), 0U);
    auto response =
        std::async(std::launch::async, [&] { return other->transmit(shared, kChallenge); });
    EXPECT_EQ(response.wait_for(300ms), std::future_status::timeout);
    EXPECT_THAT(owner->transmit(owned, kChallenge), SizeIs(10));
    EXPECT_EQ(resultOf(owner->call(CMD_END_TRANSACTION, DisconnectRecord{owned.hCard, 0, 1})), 0U);
    EXPECT_THAT(response.get(), SizeIs(10));
    EXPECT_EQ(resultOf(owner->call(CMD_END_TRANSACTION, DisconnectRecord{owned.hCard, 0, 0})),
              code(result::kNotTransacted));
}

TEST_F(AgentTest, GivesBackWhatAVanishedProgramHeld) {
    machine_.startAgent();
    const auto other = connected(kOtherProgram);
    const auto otherContext = other->establish();
    for (const bool inTransaction : {false, true}) {
        auto vanishing = connected();
        const auto context = vanishing->establish();
        const ConnectRecord held =
            vanishing->connect(context, kFirstReader, pcscd::share::kExclusive);
        ASSERT_EQ(resultOf(held), 0U);
        if (inTransaction) {
            ASSERT_EQ(resultOf(vanishing->call(CMD_BEGIN_TRANSACTION, HandleRecord{held.hCard, 1})),
                      0U);
        }
        vanishing->sendWait(context, kSecondReader, state::kEmpty);
        EXPECT_EQ(resultOf(other->connect(otherContext, kFirstReader)),
                  code(result::kSharingViolation));
        const auto end = std::chrono::steady_clock::now();
        vanishing.reset();
        ConnectRecord card = {};
        ASSERT_TRUE(eventually([&] {
            card = other->connect(otherContext, kFirstReader);
            return card.rv == 0;
        }));
        EXPECT_LT(std::chrono::steady_clock::now() - end, 5s);
        EXPECT_EQ(resultOf(other->call(CMD_DISCONNECT, DisconnectRecord{card.hCard, 0, 1})), 0U);
    }
}

TEST_F(AgentTest, ResetsTheCardsOfAVanishedProgramAndLeavesThoseOfAReleasedContext) {
    machine_.startAgent();
    const auto other = connected(kOtherProgram);
    const ConnectRecord shared = other->connect(other->establish(), kFirstReader);
    auto program = connected();
    const auto context = program->establish();
    ASSERT_EQ(resultOf(program->connect(context, kFirstReader)), 0U);
    EXPECT_EQ(resultOf(program->call(CMD_RELEASE_CONTEXT, ReleaseRecord{context, 1})), 0U);
    EXPECT_THAT(other->transmit(shared, kChallenge), SizeIs(10));
    ASSERT_EQ(resultOf(program->connect(program->establish(), kFirstReader)), 0U);
    program.reset();
    EXPECT_TRUE(eventually([&] { return other->transmit(shared, kChallenge).empty(); }));
    const TransmitRecord request{shared.hCard, shared.dwActiveProtocol, 5, 0, 258, 0};
    EXPECT_EQ(resultOf(other->call(CMD_TRANSMIT, request, kChallenge)), code(result::kResetCard));
}

TEST_F(AgentTest, GivesBackAVanishedProgramsCardsBesideOneInAnotherPrograms) {
    const Child secondCard(programFolder() / "vpcd-card", {"--port", "35964"},
                           machine_.folder() / "second-card.log");
    machine_.startAgent();
    const auto other = connected(kOtherProgram);
    const auto otherContext = other->establish();
    const ConnectRecord owned = other->connect(otherContext, kFirstReader);
    auto vanishing = connected();
    constexpr int kMany = 8;  // in any order: the one that is awaited is hardly ever the first
    for (int i = 0; i < kMany; ++i) {
        ASSERT_EQ(resultOf(vanishing->connect(vanishing->establish(), kFirstReader)), 0U);
    }
    ASSERT_TRUE(eventually([&] {
        return vanishing->connect(vanishing->establish(), kSecondReader, pcscd::share::kExclusive)
                   .rv == 0;
    }));
    ASSERT_EQ(resultOf(other->call(CMD_BEGIN_TRANSACTION, HandleRecord{owned.hCard, 1})), 0U);
    vanishing.reset();
    EXPECT_TRUE(eventually([&] { return other->connect(otherContext, kSecondReader).rv == 0; }));
    EXPECT_THAT(other->transmit(owned, kChallenge), SizeIs(10)) << "still in its transaction";
    EXPECT_EQ(resultOf(other->call(CMD_END_TRANSACTION, DisconnectRecord{owned.hCard, 0, 1})), 0U);
    EXPECT_TRUE(eventually([&] { return other->transmit(owned, kChallenge).empty(); }))
        << "reset in the end";
}

TEST_F(AgentTest, EndsTheTransactionOfAVanishedProgramThatHadItsCardSeveralTimes) {
    machine_.startAgent();
    const auto other = connected(kOtherProgram);
    const ConnectRecord shared = other->connect(other->establish(), kFirstReader);
    auto vanishing = connected();
    const auto context = vanishing->establish();
    ConnectRecord held{};
    constexpr int kMany = 8;
    for (int i = 0; i < kMany; ++i) {
        held = vanishing->connect(context, kFirstReader);
        ASSERT_EQ(resultOf(held), 0U);
    }
    ASSERT_EQ(resultOf(vanishing->call(CMD_BEGIN_TRANSACTION, HandleRecord{held.hCard, 1})), 0U);
    vanishing.reset();
    EXPECT_EQ(resultOf(other->call(CMD_BEGIN_TRANSACTION, HandleRecord{shared.hCard, 1})),
              code(result::kResetCard));
}

TEST_F(AgentTest, KnowsNoHandleOfItsEarlierRun) {
    machine_.startAgent();
    auto client = connected();
    const auto context = client->establish();
    const ConnectRecord card = client->connect(context, kFirstReader);
    machine_.stopAgent();
    machine_.startAgent();
    client = connected();
    const auto newContext = client->establish();
    EXPECT_EQ(resultOf(client->connect(newContext, kFirstReader)), 0U);
    EXPECT_EQ(resultOf(client->connect(context, kFirstReader)), code(result::kInvalidHandle));
    const TransmitRecord request{card.hCard, card.dwActiveProtocol, 5, 0, 258, 0};
    EXPECT_EQ(resultOf(client->call(CMD_TRANSMIT, request, kChallenge)),
              code(result::kInvalidHandle));
}

TEST_F(AgentTest, OutlivesTheServiceAndGoesOnWithTheNext) {
    machine_.startAgent();
    const auto client = connected();
    const auto context = client->establish();
    const ConnectRecord card = client->connect(context, kFirstReader);
    const auto watching = connected();
    auto gone = std::async(std::launch::async, [&] {
        return awaitState(*watching, context, kFirstReader, state::kPresent, state::kUnknown);
    });
    machine_.stopService();
    EXPECT_TRUE(gone.get());
    EXPECT_EQ(client->listReaders(context), multiString({}));
    EXPECT_THAT(machine_.agentLog(), HasSubstr(std::string("reader gone: ") + kFirstReader));
    const TransmitRecord request{card.hCard, card.dwActiveProtocol, 5, 0, 258, 0};
    EXPECT_EQ(resultOf(client->call(CMD_TRANSMIT, request, kChallenge)),
              code(result::kReaderUnavailable));
    auto back = std::async(std::launch::async, [&] {
        return awaitState(*watching, context, kFirstReader, state::kUnknown, state::kEmpty);
    });
    machine_.startService();
    EXPECT_TRUE(back.get());
    machine_.insertCard();
    ConnectRecord again = {};
    EXPECT_TRUE(eventually([&] {
        again = client->connect(context, kFirstReader);
        return again.rv == 0;
    }));
    EXPECT_THAT(client->transmit(again, kChallenge), SizeIs(10));
    EXPECT_EQ(resultOf(client->call(CMD_TRANSMIT, request, kChallenge)),
              code(result::kReaderUnavailable))
        << "not the next card";
}

TEST_F(AgentTest, ClosesOnARelayWithAWrongTokenOrNone) {
    machine_.startAgent();
    link::Token token = readTokenFile(machine_.token());
    std::swap(token.relay, token.agent);
    const LinkClient wrong(machine_.socket());
    wrong.send(link::encodeRelayHello(token, {1, kProgram}));
    EXPECT_TRUE(wrong.isClosed());
    const LinkClient stranger(machine_.socket());
    stranger.send(Bytes(100, 'x'));
    EXPECT_TRUE(stranger.isClosed());
    EXPECT_THAT(machine_.agentLog(), HasSubstr("wrong token"));
    EXPECT_NE(connected()->establish(), 0U);
}

TEST_F(AgentTest, ClosesOnARelayWhoseHelloTakesTooLong) {
    machine_.startAgent();
    const LinkClient silent(machine_.socket());
    const LinkClient slow(machine_.socket());
    std::atomic<bool> over = false;
    // The whole of it would take some twenty seconds.
    auto hello = std::async(std::launch::async, [&] {
        while (!over) {
            slow.send(Bytes{'x'});
            std::this_thread::sleep_for(400ms);
        }
    });
    EXPECT_TRUE(silent.isClosed());
    EXPECT_TRUE(slow.isClosed());
    over = true;
    hello.wait();
    EXPECT_THAT(machine_.agentLog(), HasSubstr("connection 1: closed, it showed no token"));
    EXPECT_THAT(machine_.agentLog(), HasSubstr("connection 2: closed, it showed no token"));
}

TEST_F(AgentTest, RefusesATokenThatOthersCanRead) {
    machine_.startAgent();
    machine_.stopAgent();
    const auto exitCode = [this](const std::vector<std::string>& options) {
        return Child(programFolder() / "pcsc-agent", options, machine_.folder() / "agent.log")
            .wait();
    };
    const std::string listen = "unix:" + machine_.socket().string();
    struct stat facts {};
    ASSERT_EQ(stat(machine_.token().c_str(), &facts), 0);
    EXPECT_EQ(facts.st_mode & 0777U, 0600U);
    EXPECT_EQ(exitCode({"--make-token", machine_.token().string()}), 1) << "there is one";
    ASSERT_EQ(chmod(machine_.token().c_str(), 0640), 0);
    EXPECT_EQ(exitCode({"--token", machine_.token().string(), "--listen", listen}), 1);
    EXPECT_THAT(machine_.agentLog(), HasSubstr("can be read or changed by others"));
    EXPECT_EQ(exitCode({"--token", "/nowhere/token", "--listen", listen}), 1);
    EXPECT_EQ(exitCode({"--listen", "0.0.0.0:7777"}), 2);
    EXPECT_EQ(exitCode({"--listen", "somewhere"}), 2);
    EXPECT_EQ(exitCode({"--version"}), 0);
}

TEST_F(AgentTest, LetsNobodyElseConnect) {
    machine_.startAgent();
    struct stat facts {};
    ASSERT_EQ(stat(machine_.socket().c_str(), &facts), 0);
    EXPECT_EQ(facts.st_mode & 0777U, 0600U);
}

TEST_F(AgentTest, EchoesTheHeartbeatAndEndsAllWithIt) {
    machine_.startAgent();
    auto control = std::make_unique<LinkClient>(machine_.socket());
    ASSERT_TRUE(control->sayHello(readTokenFile(machine_.token()), link::kControlProcess));
    control->send(Bytes{7});
    EXPECT_EQ(control->receiveFrame(), Bytes{7});
    const auto client = connected();
    EXPECT_NE(client->establish(), 0U);
    control.reset();
    EXPECT_TRUE(client->isClosed());
}

TEST_F(AgentTest, TellsTheProgramsOfOneRelayFromThoseOfAnother) {
    machine_.startAgent();
    auto control = std::make_unique<LinkClient>(machine_.socket());
    ASSERT_TRUE(control->sayHello(readTokenFile(machine_.token()), link::kControlProcess, 1));
    const LinkClient otherControl(machine_.socket());
    ASSERT_TRUE(otherControl.sayHello(readTokenFile(machine_.token()), link::kControlProcess, 2));
    auto client = connected(kProgram, 1);
    const auto other = connected(kProgram, 2);
    const auto otherContext = other->establish();
    ASSERT_EQ(
        resultOf(client->connect(client->establish(), kFirstReader, pcscd::share::kExclusive)), 0U);
    control.reset();
    EXPECT_TRUE(client->isClosed());
    EXPECT_TRUE(eventually([&] { return other->connect(otherContext, kFirstReader).rv == 0; }));
}

TEST_F(AgentTest, OutlivesAHostileLibrary) {
    machine_.startAgent();
    std::mt19937 random(4711);
    for (int round = 0; round < 50; ++round) {
        const auto client = connected(1000 + static_cast<std::uint32_t>(round));
        Bytes body(random() % 400);
        std::generate(body.begin(), body.end(),
                      [&] { return static_cast<std::uint8_t>(random()); });
        const auto command =
            static_cast<std::uint32_t>(random() % 2 == 0 ? random() % 18 : 0x800 + random() % 13);
        client->sendHeader(command, round % 4 == 0 ? 0xFFFFFFFF : body.size() + random() % 2);
        client->send(body);
    }
    const auto client = connected();
    const ConnectRecord card = client->connect(client->establish(), kFirstReader);
    EXPECT_THAT(client->transmit(card, kChallenge), SizeIs(10));
}

TEST_F(AgentTest, ServesAgainWhenAllItsDescriptorsWereTaken) {
    rlimit usual{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &usual), 0);
    const rlimit few{40, usual.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &few), 0);
    machine_.startAgent();
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &usual), 0);
    constexpr int kMany = 50;
    std::vector<std::unique_ptr<LinkClient>> crowd;
    crowd.reserve(kMany);
    for (int i = 0; i < kMany; ++i) {
        crowd.push_back(std::make_unique<LinkClient>(machine_.socket()));
    }
    crowd.clear();
    const auto client = connected();
    // Some of the crowd may still have theirs, and the PC/SC service's needs one too.
    EXPECT_TRUE(eventually([&] { return client->establish() != 0; }));
}

TEST_F(AgentTest, ClosesTheConnectionsThatAreTooMany) {
    machine_.startAgent();
    const auto client = connected();
    const link::Token token = readTokenFile(machine_.token());
    std::vector<std::unique_ptr<LinkClient>> crowd;
    for (int i = 0; i < 499; ++i) {
        crowd.push_back(std::make_unique<LinkClient>(machine_.socket()));
        ASSERT_TRUE(crowd.back()->sayHello(token, kProgram));
    }
    EXPECT_FALSE(LinkClient(machine_.socket()).sayHello(token, kProgram));
    EXPECT_THAT(machine_.agentLog(), HasSubstr("too many"));
    EXPECT_NE(client->establish(), 0U);
    std::vector<std::unique_ptr<LinkClient>> relays;
    for (std::uint32_t relay = 2; relay < 22; ++relay) {
        relays.push_back(std::make_unique<LinkClient>(machine_.socket()));
        EXPECT_TRUE(relays.back()->sayHello(token, link::kControlProcess, relay))
            << "one whose programs are no part of the crowd";
    }
    EXPECT_FALSE(LinkClient(machine_.socket()).sayHello(token, link::kControlProcess, 22));
    crowd.clear();
    EXPECT_TRUE(
        eventually([&] { return LinkClient(machine_.socket()).sayHello(token, kOtherProgram); }));
}

TEST_F(AgentTest, IsThereForThoseWithTheTokenWhateverOthersDo) {
    machine_.startAgent();
    constexpr int kMany = 500;
    std::vector<std::unique_ptr<LinkClient>> crowd;
    crowd.reserve(kMany);
    for (int i = 0; i < kMany; ++i) {
        crowd.push_back(std::make_unique<LinkClient>(machine_.socket()));
    }
    EXPECT_NE(connected()->establish(), 0U);
    EXPECT_TRUE(crowd.front()->isClosed());
}

TEST_F(AgentTest, EndsWithASecondSignalWhereAConnectWaitsForAnotherProgram) {
    machine_.startAgent();
    const ServiceContext context;
    SCARDHANDLE card = 0;
    DWORD protocol = 0;
    ASSERT_EQ(SCardConnect(context.get(), kFirstReader, SCARD_SHARE_SHARED, SCARD_PROTOCOL_T1,
                           &card, &protocol),
              SCARD_S_SUCCESS);
    ASSERT_EQ(SCardBeginTransaction(card), SCARD_S_SUCCESS);
    const auto client = connected();
    const auto ownContext = client->establish();
    auto answer =
        std::async(std::launch::async, [&] { return client->connect(ownContext, kFirstReader); });
    ASSERT_EQ(answer.wait_for(300ms), std::future_status::timeout);
    machine_.askAgentToEnd();
    ASSERT_TRUE(
        eventually([this] { return machine_.agentLog().find("\nended\n") != std::string::npos; }));
    EXPECT_EQ(machine_.stopAgent(), -1);
    SCardEndTransaction(card, SCARD_LEAVE_CARD);
}

TEST_F(AgentTest, LeavesContextsOfTheServiceForOtherPrograms) {
    machine_.startAgent();
    const auto client = connected();
    const auto context = client->establish();
    ConnectRecord card{};
    for (int i = 0; i < 128; ++i) {
        card = client->connect(context, kFirstReader);
        ASSERT_EQ(resultOf(card), 0U) << i;
    }
    EXPECT_EQ(resultOf(client->connect(context, kFirstReader)), code(result::kNoMemory));
    EXPECT_THAT(machine_.agentLog(), HasSubstr("too many"));
    EXPECT_EQ(resultOf(client->call(CMD_DISCONNECT, DisconnectRecord{card.hCard, 0, 1})), 0U);
    EXPECT_EQ(resultOf(client->connect(context, kSecondReader)), code(result::kNoSmartcard));
    EXPECT_EQ(resultOf(client->connect(context, kFirstReader)), 0U);
}

TEST_F(AgentTest, SaysThatTheServiceHasNoContextLeft) {
    machine_.startAgent();
    const auto client = connected();
    const auto context = client->establish();
    std::list<ServiceContext> others(1);
    while (others.back()) {
        others.emplace_back();
    }
    EXPECT_EQ(resultOf(client->connect(context, kFirstReader)), code(result::kNoMemory));
    others.clear();
    EXPECT_TRUE(eventually([&] { return client->connect(context, kFirstReader).rv == 0; }));
}

TEST_F(AgentTest, RefusesContextsBeyondItsLimitUntilOneIsReleased) {
    machine_.startAgent();
    const auto client = connected();
    const auto context = client->establish();
    for (int i = 1; i < 10000; ++i) {
        ASSERT_NE(client->establish(), 0U) << i;
    }
    EXPECT_EQ(resultOf(client->call(CMD_ESTABLISH_CONTEXT, EstablishRecord{})),
              code(result::kNoMemory));
    EXPECT_THAT(machine_.agentLog(), HasSubstr("too many"));
    EXPECT_EQ(resultOf(client->call(CMD_RELEASE_CONTEXT, ReleaseRecord{context, 0})), 0U);
    EXPECT_NE(client->establish(), 0U);
}

TEST_F(AgentTest, ServesSixteenProgramsAtOnce) {
    machine_.startAgent();
    std::vector<std::future<int>> programs;
    for (std::uint32_t process = 1; process <= 16; ++process) {
        programs.push_back(std::async(std::launch::async, [this, process] {
            const auto client = connected(process);
            const auto context = client->establish();
            const ConnectRecord card = client->connect(context, kFirstReader);
            int answers = 0;
            for (int i = 0; i < 20; ++i) {
                answers += client->transmit(card, kChallenge).size() == 10 ? 1 : 0;
            }
            // Or else the card that the others still use would be reset once this one is gone.
            client->call(CMD_RELEASE_CONTEXT, ReleaseRecord{context, 1});
            return answers;
        }));
    }
    for (auto& program : programs) {
        EXPECT_EQ(program.get(), 20);
    }
}

}  // namespace
}  // namespace tez::agent
