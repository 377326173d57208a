#include <gtest/gtest.h>
#include <memory>
#include <vector>

#include "daemon/connection_pool.h"
#include "pipe_server.h"

using namespace tez;
using test::PipeServer;
using test::ServerPipe;

TEST(PipePool, MakesAConnectionOfItsOwnInLocalFirstAndReusesIt) {
    setServiceState(ServiceState::LocalFirst);
    int handshakes = 0;
    PipeServer daemon([&handshakes](ServerPipe& pipe) {
        pipe.accept();
        pipe.handshake();
        ++handshakes;
        pipe.waitForClose();
    });
    std::unique_ptr<DaemonConnection> connection = acquireConnection();
    ASSERT_NE(connection, nullptr);
    EXPECT_EQ(connection->serviceKind(), ServiceState::LocalFirst);
    DaemonConnection* const first = connection.get();
    releaseConnection(std::move(connection));
    EXPECT_EQ(first, (connection = acquireConnection()).get());
    releaseConnection(std::move(connection));
    clearConnectionPool();
    daemon.finish();  // the pipe was closed
    EXPECT_EQ(handshakes, 1);
}

TEST(PipePool, DoesNotTouchThePipeInOtherStates) {
    PipeServer daemon([](ServerPipe& pipe) {
        pipe.accept();
        ADD_FAILURE() << "the pipe was opened";
    });
    for (const ServiceState state : {ServiceState::LocalOnly, ServiceState::RemoteOnly}) {
        setServiceState(state);
        EXPECT_EQ(acquireConnection(), nullptr);
    }
}

TEST(PipePool, HandsOutAConnectionThatCouldNotConnect) {
    setServiceState(ServiceState::LocalFirst);
    const std::unique_ptr<DaemonConnection> connection = acquireConnection();
    ASSERT_NE(connection, nullptr);
    EXPECT_EQ(connection->sendRequest(1, "", 1), SCARD_E_NO_SERVICE);
}

TEST(PipePool, ReconnectsAPooledConnectionThatWasClosed) {
    setServiceState(ServiceState::LocalFirst);
    std::unique_ptr<DaemonConnection> connection = acquireConnection();
    EXPECT_EQ(connection->sendRequest(1, "", 1), SCARD_E_NO_SERVICE);
    DaemonConnection* const first = connection.get();
    releaseConnection(std::move(connection));

    PipeServer daemon([](ServerPipe& pipe) {
        pipe.accept();
        pipe.handshake(1, 9);
        pipe.waitForClose();
    });
    connection = acquireConnection();
    EXPECT_EQ(connection.get(), first);
    EXPECT_TRUE(connection->isProtocolAtLeast(1, 9));
    releaseConnection(std::move(connection));
    clearConnectionPool();
}
