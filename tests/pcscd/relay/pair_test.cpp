// What goes through a client's pipe and its stream to the agent.
#include <atomic>
#include <numeric>

#include "latch.h"
#include "link/frame.h"
#include "relay_fixture.h"

using namespace tez;
using test::AgentConnection;
using test::Bytes;
using test::PipeClient;
using test::RelayTest;
using testing::IsEmpty;

namespace {

class RelayPair : public RelayTest {};

Bytes countingBytes(std::size_t count) {
    Bytes bytes(count);
    std::iota(bytes.begin(), bytes.end(), std::uint8_t{0});
    return bytes;
}

}  // namespace

TEST_F(RelayPair, TellsTheClientsProcess) {
    std::atomic<std::uint32_t> process = 0;
    agent_.onClient([&](AgentConnection& connection) {
        process = connection.processId();
        test::FakeAgent::echo(connection);
    });
    startBoth();
    EXPECT_EQ(connect().exchange(Bytes{1}), Bytes{1});
    EXPECT_EQ(process, GetCurrentProcessId());
}

TEST_F(RelayPair, CarriesRequestsAsTheyAre) {
    const Bytes request = countingBytes(300000);
    Bytes received;
    agent_.onClient([&](AgentConnection& connection) {
        received = connection.read(request.size());
        connection.sendPiece(Bytes{1});
    });
    startBoth();
    const PipeClient client = connect();
    EXPECT_TRUE(client.write(request));
    EXPECT_EQ(client.readOnce(1), Bytes{1});
    EXPECT_EQ(received, request);
}

TEST_F(RelayPair, GivesOutATornPieceWhole) {
    const Bytes piece = countingBytes(200);
    agent_.onClient([&](AgentConnection& connection) {
        connection.read(1);
        for (const std::uint8_t byte : link::encodeFrame(piece)) {
            connection.send({&byte, 1});
            Sleep(1);  // a segment of its own
        }
        connection.read();
    });
    startBoth();
    const PipeClient client = connect();
    ASSERT_TRUE(client.write(Bytes{1}));
    EXPECT_EQ(client.readOnce(piece.size()), piece);
}

TEST_F(RelayPair, GivesOutEachPieceOfASegmentByItself) {
    const Bytes record = countingBytes(28);
    const Bytes data = countingBytes(258);
    agent_.onClient([&](AgentConnection& connection) {
        connection.read(1);
        Bytes segment = link::encodeFrame(record);
        const Bytes second = link::encodeFrame(data);
        segment.insert(segment.end(), second.begin(), second.end());
        connection.send(segment);
        connection.read();
    });
    startBoth();
    const PipeClient client = connect();
    ASSERT_TRUE(client.write(Bytes{1}));
    EXPECT_EQ(client.readOnce(record.size()), record);
    EXPECT_EQ(client.readOnce(data.size()), data);
}

TEST_F(RelayPair, GivesOutALargePieceWithOneRead) {
    const Bytes piece = countingBytes(std::size_t{4} << 20U);
    agent_.onClient([&](AgentConnection& connection) {
        connection.sendPiece(piece);
        connection.read();
    });
    startBoth();
    EXPECT_EQ(connect().readOnce(piece.size()), piece);
}

TEST_F(RelayPair, GivesOutWhatTheAgentSaidBeforeItsEnd) {
    agent_.onClient([&](AgentConnection& connection) {
        connection.sendPiece(Bytes{1, 2});
        connection.sendPiece(Bytes{3});
        connection.finishSending();
        connection.read();
    });
    startBoth();
    const PipeClient client = connect();
    ASSERT_TRUE(agent_.waitForEndedClients(1));
    EXPECT_EQ(client.readOnce(2), (Bytes{1, 2}));
    EXPECT_EQ(client.readOnce(1), Bytes{3});
    EXPECT_THAT(client.readOnce(1), IsEmpty());
}

TEST_F(RelayPair, KeepsAPieceBackThatTheAgentDidNotFinish) {
    agent_.onClient([&](AgentConnection& connection) {
        connection.sendPiece(Bytes{1});
        connection.send(Bytes{2, 0, 0, 0, 5});
        connection.finishSending();
        connection.read();
    });
    startBoth();
    const PipeClient client = connect();
    EXPECT_EQ(client.readOnce(1), Bytes{1});
    EXPECT_THAT(client.readOnce(1), IsEmpty());
}

TEST_F(RelayPair, DeliversWhatAClientSaidBeforeItsEnd) {
    const Bytes request = countingBytes(100000);
    Bytes received;
    bool tookAnswers = true;
    bool ended = false;
    test::Latch gone(1);
    agent_.onClient([&](AgentConnection& connection) {
        gone.wait();
        // Answers that nobody is there for must not cost the requests behind them.
        for (int i = 0; i < 20; ++i) {
            tookAnswers = tookAnswers && connection.sendPiece(countingBytes(50000));
        }
        received = connection.read(request.size());
        ended = connection.read().empty();
    });
    startBoth();
    PipeClient client = connect();
    ASSERT_TRUE(client.write(request));
    client.close();
    gone.countDown();
    ASSERT_TRUE(agent_.waitForEndedClients(1));
    EXPECT_TRUE(tookAnswers);
    EXPECT_EQ(received, request);
    EXPECT_TRUE(ended);
}

TEST_F(RelayPair, EndsTheAgentsStreamAtOnceWhenAClientEnds) {
    agent_.onClient([](AgentConnection& connection) { connection.read(); });
    startBoth();
    const auto begin = std::chrono::steady_clock::now();
    connect().close();
    EXPECT_TRUE(agent_.waitForEndedClients(1));
    // Not with the time that the agent has for its own end.
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(1));
}

TEST_F(RelayPair, GivesUpAnAgentThatDoesNotEndItsStream) {
    test::Latch over(1);
    agent_.onClient([&](AgentConnection& connection) {
        while (!connection.read().empty()) {
        }
        over.wait();
    });
    startBoth();
    connect().close();
    EXPECT_TRUE(logComesToHave("disconnected"));
    over.countDown();
}

TEST_F(RelayPair, GivesUpAnAgentThatGoesOnForEver) {
    std::atomic<bool> broken = false;
    agent_.onClient([&](AgentConnection& connection) {
        while (connection.sendPiece(Bytes(1000))) {
        }
        broken = true;
    });
    startBoth();
    connect().close();
    EXPECT_TRUE(agent_.waitForEndedClients(1));
    EXPECT_TRUE(broken);
}

TEST_F(RelayPair, SharesNothingWithSixteenOthers) {
    startBoth();
    std::vector<std::thread> clients;
    std::atomic<int> right = 0;
    constexpr int kClients = 16;
    constexpr int kExchanges = 50;
    test::Latch all(kClients);
    clients.reserve(kClients);
    for (int number = 0; number < kClients; ++number) {
        clients.emplace_back([&, number] {
            all.arriveAndWait();
            const PipeClient client = connect();
            for (int i = 0; i < kExchanges; ++i) {
                const Bytes request(static_cast<std::size_t>(1 + i),
                                    static_cast<std::uint8_t>(number));
                right += client.exchange(request) == request ? 1 : 0;
            }
        });
    }
    for (std::thread& client : clients) {
        client.join();
    }
    EXPECT_EQ(right, kClients * kExchanges);
}
