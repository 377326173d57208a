#include <future>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>

#include "daemon/daemon_connection_tez.h"
#include "log_matchers.h"
#include "scripted_daemon.h"

using namespace tez;
using test::Bytes;
using test::FreshLog;
using test::LogLine;
using test::RecordBytes;
using test::ScriptedDaemon;
using test::ScriptedPipe;
using testing::Contains;

TEST(Handshake, TakesAnyVersionAndTellsIt) {
    const FreshLog log;
    ScriptedDaemon daemon([](ScriptedPipe& pipe) {
        pipe.accept();
        pipe.handshake(2, 7);
    });
    DaemonConnectionTEZ connection;
    EXPECT_TRUE(connection.connect());
    EXPECT_THAT(
        log.entries().back(),
        LogLine(
            'I', "DaemonConnectionTEZ::handshake",
            "Using TEZ's pcsclite library, version 0.0 (r86), protocol version 2.7, cache unset"));
    EXPECT_TRUE(connection.isProtocolAtLeast(2, 7));
    EXPECT_TRUE(connection.isProtocolAtLeast(2, 6));
    EXPECT_TRUE(connection.isProtocolAtLeast(1, 9));
    EXPECT_FALSE(connection.isProtocolAtLeast(2, 8));
    EXPECT_FALSE(connection.isProtocolAtLeast(3, 0));
}

TEST(Handshake, HasVersionZeroBeforeIt) {
    const DaemonConnectionTEZ connection;
    EXPECT_TRUE(connection.isProtocolAtLeast(0, 0));
    EXPECT_FALSE(connection.isProtocolAtLeast(0, 1));
    EXPECT_FALSE(connection.isProtocolAtLeast(1, 0));
}

TEST(Handshake, LeavesTheVersionStandingAfterTheConnectionIsClosed) {
    ScriptedDaemon daemon([](ScriptedPipe& pipe) {
        pipe.accept();
        pipe.handshake(1, 3);
    });
    DaemonConnectionTEZ connection;
    EXPECT_TRUE(connection.connect());
    connection.closeSocket();
    EXPECT_TRUE(connection.isProtocolAtLeast(1, 3));
}

TEST(Handshake, NeedsAnOpenPipe) {
    const FreshLog log;
    DaemonConnectionTEZ connection;
    EXPECT_FALSE(connection.handshake("", -1));
    EXPECT_THAT(log.entries(),
                Contains(LogLine('W', "DaemonConnectionTEZ::handshake", "Socket not connected")));
}

TEST(Handshake, SendsATokenOfAnyLengthWithItsEnd) {
    const Bytes expected = {'k', 'e', 'y', 0, 1, 0, 0, 0};
    Bytes received;
    ScriptedDaemon daemon([&received](ScriptedPipe& pipe) {
        pipe.accept();
        received = pipe.read(8);
        pipe.write(RecordBytes(8).u32(0, 1).u32(4, 4).bytes());
    });
    DaemonConnectionTEZ connection;
    ASSERT_TRUE(connection.connectSocket(test::kDaemonPipe));
    EXPECT_TRUE(connection.handshake("key", 1));
    daemon.finish();
    EXPECT_EQ(received, expected);
}

namespace {

/// Fails one message of the handshake, all of which go through these two operations.
class FailingHandshake : public DaemonConnectionTEZ {
  public:
    explicit FailingHandshake(int failing) : failing_(failing) {}
    LONG sendMessage(const void* /*data*/, std::uint64_t /*size*/) override { return next(); }
    LONG readMessage(void* /*buffer*/, std::uint64_t /*size*/) override { return next(); }
    void closeSocket() override {
        ++timesClosed;
        DaemonConnectionTEZ::closeSocket();
    }
    int timesClosed = 0;

  private:
    LONG next() { return step_++ == failing_ ? SCARD_E_NO_SERVICE : SCARD_S_SUCCESS; }
    int failing_;
    int step_ = 0;
};

}  // namespace

TEST(Handshake, TellsWhichMessageFailedAndClosesThePipe) {
    static constexpr const char* kWarnings[] = {
        R"(Unable send auth token to socket '\\.\pipe\tez-pcscd-0')",
        R"(Unable to send options to socket '\\.\pipe\tez-pcscd-0')",
        R"(Unable to retrieve protocol info from socket '\\.\pipe\tez-pcscd-0')"};
    const FreshLog log;
    int failing = 0;
    for (const char* const warning : kWarnings) {
        ScriptedDaemon daemon([](ScriptedPipe& pipe) {
            pipe.accept();
            pipe.waitForClose();
        });
        FailingHandshake connection(failing++);
        EXPECT_FALSE(connection.connect());
        EXPECT_EQ(connection.timesClosed, 1);
        EXPECT_THAT(log.entries().back(), LogLine('W', "DaemonConnectionTEZ::handshake", warning));
        daemon.finish();  // it has seen the pipe closed
    }
}

TEST(Handshake, FailsWhenTheDaemonClosesThePipeInsteadOfAnswering) {
    const FreshLog log;
    ScriptedDaemon daemon([](ScriptedPipe& pipe) {
        pipe.accept();
        pipe.read(5);
    });
    DaemonConnectionTEZ connection;
    EXPECT_FALSE(connection.connect());
    EXPECT_THAT(log.entries().back(),
                LogLine('W', "DaemonConnectionTEZ::handshake",
                        R"(Unable to retrieve protocol info from socket '\\.\pipe\tez-pcscd-0')"));
    char received = 0;
    EXPECT_EQ(connection.receiveMessage(&received, 1, 0), SCARD_E_NO_SERVICE);
}

TEST(Handshake, FailsWithAnAnswerThatIsCutShort) {
    ScriptedDaemon daemon([](ScriptedPipe& pipe) {
        pipe.accept();
        pipe.read(5);
        pipe.write({1, 0, 0, 0});
        pipe.waitForClose();
    });
    DaemonConnectionTEZ connection;
    EXPECT_FALSE(connection.connect());
    EXPECT_FALSE(connection.isProtocolAtLeast(1, 0)) << "half a version was taken";
}
