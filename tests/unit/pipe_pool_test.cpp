#include <gtest/gtest.h>
#include <memory>
#include <vector>

#include "daemon/connection_pool.h"
#include "scripted_daemon.h"

using namespace tez;
using test::ScriptedDaemon;
using test::ScriptedPipe;

TEST(PipePool, MakesAConnectionOfItsOwnInLocalFirstAndReusesIt) {
    setServiceState(ServiceState::LocalFirst);
    int handshakes = 0;
    ScriptedDaemon daemon([&handshakes](ScriptedPipe& pipe) {
        pipe.greet();
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
    ScriptedDaemon daemon([](ScriptedPipe& pipe) {
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

    ScriptedDaemon daemon([](ScriptedPipe& pipe) {
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
