// What an agent sends that is none ends its own client's pipe and nothing else.
#include <algorithm>
#include <atomic>
#include <random>

#include "link/frame.h"
#include "relay_fixture.h"

using namespace tez;
using test::AgentConnection;
using test::Bytes;
using test::PipeClient;
using test::RelayTest;
using testing::IsEmpty;

namespace {

class HostileAgent : public RelayTest {
  protected:
    /// Lets the first stream begin with these bytes; others are echoed.
    void answerFirstWith(const Bytes& bytes) {
        agent_.onClient([this, bytes](AgentConnection& connection) {
            if (first_.exchange(false)) {
                connection.send(bytes);
                connection.read();
            } else {
                test::FakeAgent::echo(connection);
            }
        });
    }

  private:
    std::atomic<bool> first_ = true;
};

}  // namespace

TEST_F(HostileAgent, LosesItsClientWithAFrameThatIsTooLarge) {
    answerFirstWith({1, 0, 1, 1, 42});
    startBoth();
    const PipeClient client = connect();
    EXPECT_THAT(client.readOnce(1), IsEmpty());
    EXPECT_EQ(connect().exchange(Bytes{1}), Bytes{1});
    EXPECT_TRUE(agent_.waitForEndedClients(1));
}

TEST_F(HostileAgent, LosesItsClientWithAFrameOfNothing) {
    answerFirstWith({1, 0, 0, 0, 42, 0, 0, 0, 0});
    startBoth();
    const PipeClient client = connect();
    EXPECT_EQ(client.readOnce(1), Bytes{42});
    EXPECT_THAT(client.readOnce(1), IsEmpty());
    EXPECT_EQ(connect().exchange(Bytes{1}), Bytes{1});
}

TEST_F(HostileAgent, DoesNoHarmWithGarbage) {
    agent_.onClient([](AgentConnection& connection) {
        std::mt19937 random(connection.processId());  // NOLINT(cert-msc51-cpp)
        Bytes garbage(5000);
        for (int round = 0; round < 100; ++round) {
            std::generate(garbage.begin(), garbage.end(),
                          [&] { return static_cast<std::uint8_t>(random()); });
            if (!connection.send(garbage)) {
                return;
            }
        }
    });
    startBoth();
    for (int round = 0; round < 20; ++round) {
        const PipeClient client = connect();
        while (!client.readOnce(100000).empty()) {
        }
    }
    agent_.onClient(test::FakeAgent::echo);
    EXPECT_EQ(connect().exchange(Bytes{1}), Bytes{1});
}
