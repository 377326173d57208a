#include "daemon/connection_pool.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <vector>

#include "mock_daemon_connection.h"

using namespace tez;
using test::MockDaemonConnection;
using testing::InSequence;
using testing::Return;
using testing::StrictMock;

namespace {

constexpr int kPoolSize = 8;

/// Runs in the state in which the pool makes no connections of its own.
class ConnectionPoolTest : public testing::Test {
  protected:
    void SetUp() override { setServiceState(ServiceState::RemoteOnly); }

    void TearDown() override { clearConnectionPool(); }

    /// A connection that serves under the given state and expects nothing but to be asked for it.
    static std::unique_ptr<StrictMock<MockDaemonConnection>> makeConnection(
        ServiceState kind = ServiceState::RemoteOnly) {
        auto connection = std::make_unique<StrictMock<MockDaemonConnection>>();
        EXPECT_CALL(*connection, serviceKind()).WillRepeatedly(Return(kind));
        return connection;
    }

    static void expectClosedAndDestroyed(MockDaemonConnection& connection) {
        const InSequence inOrder;
        EXPECT_CALL(connection, closeSocket());
        EXPECT_CALL(connection, destroyed());
    }
};

}  // namespace

TEST_F(ConnectionPoolTest, IgnoresNoConnection) {
    releaseConnection(nullptr);
    EXPECT_EQ(acquireConnection(), nullptr);
}

TEST_F(ConnectionPoolTest, GivesNoneWhenItIsEmptyAndTheStateIsNotLocalFirst) {
    EXPECT_EQ(acquireConnection(), nullptr);
    setServiceState(ServiceState::LocalOnly);
    EXPECT_EQ(acquireConnection(), nullptr);
}

TEST_F(ConnectionPoolTest, AsksAKeptConnectionToConnectAndHandsItOutWhateverComesOfIt) {
    auto made = makeConnection();
    StrictMock<MockDaemonConnection>* const connection = made.get();
    releaseConnection(std::move(made));

    EXPECT_CALL(*connection, connect()).WillOnce(Return(false));
    const std::unique_ptr<DaemonConnection> acquired = acquireConnection();
    EXPECT_EQ(acquired.get(), connection);
    EXPECT_CALL(*connection, destroyed());
}

TEST_F(ConnectionPoolTest, HandsAConnectionToOneCallerOnly) {
    auto made = makeConnection();
    EXPECT_CALL(*made, connect()).WillOnce(Return(true));
    EXPECT_CALL(*made, destroyed());
    releaseConnection(std::move(made));
    const std::unique_ptr<DaemonConnection> first = acquireConnection();
    EXPECT_NE(first, nullptr);
    EXPECT_EQ(acquireConnection(), nullptr);
}

TEST_F(ConnectionPoolTest, KeepsEightAndClosesAndDestroysTheNinth) {
    std::vector<StrictMock<MockDaemonConnection>*> kept;
    for (int i = 0; i < kPoolSize; ++i) {
        auto made = makeConnection();
        kept.push_back(made.get());
        releaseConnection(std::move(made));
    }
    auto ninth = makeConnection();
    expectClosedAndDestroyed(*ninth);
    releaseConnection(std::move(ninth));

    for (StrictMock<MockDaemonConnection>* const connection : kept) {
        EXPECT_CALL(*connection, connect()).WillOnce(Return(true));
        EXPECT_CALL(*connection, destroyed());
        EXPECT_EQ(acquireConnection().get(), connection) << "from the first slot to the eighth";
    }
    EXPECT_EQ(acquireConnection(), nullptr);
}

TEST_F(ConnectionPoolTest, FillsTheFirstEmptySlot) {
    std::vector<StrictMock<MockDaemonConnection>*> kept;
    for (int i = 0; i < 3; ++i) {
        auto made = makeConnection();
        kept.push_back(made.get());
        EXPECT_CALL(*made, connect()).WillRepeatedly(Return(true));
        releaseConnection(std::move(made));
    }
    std::unique_ptr<DaemonConnection> first = acquireConnection();
    std::unique_ptr<DaemonConnection> second = acquireConnection();
    releaseConnection(std::move(second));
    releaseConnection(std::move(first));

    // The second went to the first slot, the first to the next one.
    for (const int expected : {1, 0, 2}) {
        const std::unique_ptr<DaemonConnection> acquired = acquireConnection();
        EXPECT_EQ(acquired.get(), kept[static_cast<std::size_t>(expected)]);
        EXPECT_CALL(*kept[static_cast<std::size_t>(expected)], destroyed());
    }
}

TEST_F(ConnectionPoolTest, ClosesAndDestroysAConnectionOfAnotherState) {
    auto connection = makeConnection(ServiceState::LocalFirst);
    expectClosedAndDestroyed(*connection);
    releaseConnection(std::move(connection));
    EXPECT_EQ(acquireConnection(), nullptr);
}

TEST_F(ConnectionPoolTest, ClosesAndDestroysWhatComesBackAfterTheStateHasMoved) {
    auto made = makeConnection();
    StrictMock<MockDaemonConnection>* const connection = made.get();
    EXPECT_CALL(*connection, connect()).WillOnce(Return(true));
    releaseConnection(std::move(made));
    std::unique_ptr<DaemonConnection> held = acquireConnection();

    setServiceState(ServiceState::LocalOnly);
    expectClosedAndDestroyed(*connection);
    releaseConnection(std::move(held));
    EXPECT_EQ(acquireConnection(), nullptr);
}

TEST_F(ConnectionPoolTest, ClosesAndDestroysEveryIdleConnectionWhenCleared) {
    for (int i = 0; i < kPoolSize; ++i) {
        auto connection = makeConnection();
        expectClosedAndDestroyed(*connection);
        releaseConnection(std::move(connection));
    }
    clearConnectionPool();
    EXPECT_EQ(acquireConnection(), nullptr);
}
