// Whoever is slow holds up its own counterpart and nobody else.
#include <atomic>

#include "latch.h"
#include "relay_fixture.h"

using namespace tez;
using test::AgentConnection;
using test::Bytes;
using test::PipeClient;
using test::RelayTest;

namespace {

class SlowPeer : public RelayTest {
  protected:
    /// More than pipes, sockets and the relay have room for.
    static constexpr std::size_t kMuch = std::size_t{32} << 20U;
    static constexpr std::size_t kPiece = std::size_t{64} << 10U;
};

/// Whether a number stands still for some time, which tells that nothing moves it.
bool comesToRest(const std::atomic<std::size_t>& number) {
    std::size_t seen = 0;
    return test::eventually([&] {
        Sleep(100);
        return std::exchange(seen, number.load()) == number && number > 0;
    });
}

}  // namespace

TEST_F(SlowPeer, OfAClientHoldsUpItsAgentStreamOnly) {
    std::atomic<std::size_t> sent = 0;
    std::atomic<bool> first = true;
    agent_.onClient([&](AgentConnection& connection) {
        if (!first.exchange(false)) {
            test::FakeAgent::echo(connection);
            return;
        }
        connection.read(1);
        while (sent < kMuch && connection.sendPiece(Bytes(kPiece))) {
            sent += kPiece;
        }
    });
    startBoth();
    const PipeClient slow = connect();
    ASSERT_TRUE(slow.write(Bytes{1}));
    ASSERT_TRUE(comesToRest(sent));
    EXPECT_LT(sent, kMuch);
    EXPECT_EQ(connect().exchange(Bytes{1, 2, 3}), (Bytes{1, 2, 3}));
    // It goes on where it stood.
    for (std::size_t taken = 0; taken < kMuch; taken += kPiece) {
        ASSERT_EQ(slow.readOnce(kPiece).size(), kPiece);
    }
}

TEST_F(SlowPeer, OfAnAgentHoldsUpItsClientOnly) {
    test::Latch awake(1);
    std::atomic<bool> first = true;
    std::atomic<std::size_t> received = 0;
    agent_.onClient([&](AgentConnection& connection) {
        if (!first.exchange(false)) {
            test::FakeAgent::echo(connection);
            return;
        }
        awake.wait();
        for (Bytes bytes = connection.read(); !bytes.empty(); bytes = connection.read()) {
            received += bytes.size();
        }
    });
    startBoth();
    std::atomic<std::size_t> sent = 0;
    PipeClient slow = connect();
    std::thread writer([&] {
        while (sent < kMuch && slow.write(Bytes(kPiece))) {
            sent += kPiece;
        }
        slow.close();
    });
    EXPECT_TRUE(comesToRest(sent));
    EXPECT_LT(sent, kMuch);
    EXPECT_EQ(connect().exchange(Bytes{1, 2, 3}), (Bytes{1, 2, 3}));
    awake.countDown();
    writer.join();
    EXPECT_TRUE(agent_.waitForEndedClients(2));
    EXPECT_EQ(received, kMuch);
}

TEST_F(SlowPeer, DoesNotKeepTheRelayFromEnding) {
    std::atomic<std::size_t> sent = 0;
    agent_.onClient([&](AgentConnection& connection) {
        while (connection.sendPiece(Bytes(kPiece))) {
            sent += kPiece;
        }
    });
    startBoth();
    const PipeClient silent = connect();
    ASSERT_TRUE(comesToRest(sent));
    stopRelay();
    EXPECT_TRUE(agent_.waitForEndedClients(1));
    EXPECT_FALSE(pipeExists());
}
