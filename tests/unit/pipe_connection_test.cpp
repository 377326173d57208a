#include <cstdlib>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>
#include <string>

#include "daemon/daemon_connection_tez.h"
#include "import_patch.h"
#include "log_matchers.h"
#include "scripted_daemon.h"

using namespace tez;
using test::Bytes;
using test::FreshLog;
using test::ImportPatch;
using test::kDaemonPipe;
using test::LogLine;
using test::RecordBytes;
using test::ScriptedDaemon;
using test::ScriptedPipe;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::MatchesRegex;

TEST(PipeConnection, DoesNoInputOrOutputWhenItIsOpenAlready) {
    ScriptedDaemon daemon([](ScriptedPipe& pipe) { pipe.greet(); });
    DaemonConnectionTEZ connection;
    EXPECT_TRUE(connection.connect());
    daemon.finish();
    // The daemon is gone; only a look at the pipe could tell.
    EXPECT_TRUE(connection.connect());
}

TEST(PipeConnection, TellsTheErrorOfAPipeThatIsAbsent) {
    const FreshLog log;
    DaemonConnectionTEZ connection;
    EXPECT_FALSE(connection.connect());
    EXPECT_THAT(log.entries().back(), LogLine('D', "DaemonConnectionTEZ::connectSocket",
                                              "Failed to connect to pipe: 0x00000002"));
    EXPECT_EQ(connection.sendMessage("", 1), SCARD_E_NO_SERVICE);
}

TEST(PipeConnection, TellsTheHandleOfThePipe) {
    const FreshLog log;
    ScriptedDaemon daemon([](ScriptedPipe& pipe) { pipe.greet(); });
    DaemonConnectionTEZ connection;
    EXPECT_TRUE(connection.connect());
    EXPECT_THAT(log.entries(), Contains(LogLine('D', "DaemonConnectionTEZ::connectSocket",
                                                MatchesRegex("Pipe \\d+ connected"))));
}

TEST(PipeConnection, OpensThePipeForOverlappedReadingAndWriting) {
    int opened = 0;
    const ImportPatch<decltype(::CreateFileA)> patch(
        GetModuleHandleA(nullptr), "KERNEL32.dll", "CreateFileA",
        [&opened](LPCSTR path, DWORD access, DWORD share, LPSECURITY_ATTRIBUTES security,
                  DWORD creation, DWORD flags, HANDLE pattern) -> HANDLE {
            ++opened;
            EXPECT_STREQ(path, R"(\\.\pipe\tez-pcscd-0)");
            EXPECT_EQ(access, 0xC0000000);
            EXPECT_EQ(share, 3U);
            EXPECT_EQ(security, nullptr);
            EXPECT_EQ(creation, 3U);
            EXPECT_EQ(flags, 0x40000000U);
            EXPECT_EQ(pattern, nullptr);
            SetLastError(ERROR_ACCESS_DENIED);
            return INVALID_HANDLE_VALUE;
        });
    const FreshLog log;
    DaemonConnectionTEZ connection;
    EXPECT_FALSE(connection.connect());
    EXPECT_EQ(opened, 1);
    EXPECT_THAT(log.entries().back(), LogLine('D', "DaemonConnectionTEZ::connectSocket",
                                              "Failed to connect to pipe: 0x00000005"));
}

/// Keeps the instance busy for as long as its client stays.
void serveOneClient(ScriptedPipe& pipe) {
    pipe.accept();
    pipe.waitForClose();
}

TEST(PipeConnection, GivesABusyPipeUpAfterTheServersTime) {
    const FreshLog log;
    ScriptedDaemon daemon(serveOneClient);
    const pcscd::UniqueHandle other = test::openDaemonPipe();
    ASSERT_TRUE(other);
    DaemonConnectionTEZ connection;
    EXPECT_FALSE(connection.connect());
    EXPECT_THAT(log.entries().back(), LogLine('D', "DaemonConnectionTEZ::connectSocket",
                                              "Failed to connect to pipe: timed out"));
}

TEST(PipeConnection, TriesABusyPipeAgainAsOftenAsTheWaitSucceeds) {
    ScriptedDaemon daemon(serveOneClient);
    const pcscd::UniqueHandle other = test::openDaemonPipe();
    ASSERT_TRUE(other);
    int waits = 0;
    std::unique_ptr<ScriptedDaemon> second;
    const ImportPatch<decltype(::WaitNamedPipeA)> patch(
        GetModuleHandleA(nullptr), "KERNEL32.dll", "WaitNamedPipeA",
        [&](LPCSTR path, DWORD timeout) -> BOOL {
            EXPECT_STREQ(path, kDaemonPipe);
            EXPECT_EQ(timeout, 0U);  // the server's default
            if (++waits == 3) {      // a free instance at last
                second = std::make_unique<ScriptedDaemon>([](ScriptedPipe& pipe) {
                    pipe.greet();
                    pipe.waitForClose();
                });
            }
            return TRUE;
        });
    {
        DaemonConnectionTEZ connection;
        EXPECT_TRUE(connection.connect());
    }
    EXPECT_EQ(waits, 3);
}

TEST(PipeConnection, ClosesThePipeWhenItIsDestroyed) {
    bool wasClosed = false;
    ScriptedDaemon daemon([&wasClosed](ScriptedPipe& pipe) {
        pipe.greet();
        wasClosed = pipe.waitForClose();
    });
    {
        DaemonConnectionTEZ connection;
        EXPECT_TRUE(connection.connect());
    }
    daemon.finish();
    EXPECT_TRUE(wasClosed);
}

TEST(PipeConnection, WritesHeaderAndRecordAndReadsTheAnswer) {
    Bytes request;
    ScriptedDaemon daemon([&request](ScriptedPipe& pipe) {
        pipe.greet();
        request = pipe.read(16);
        pipe.write({9, 8, 7});
    });
    DaemonConnectionTEZ connection;
    EXPECT_TRUE(connection.connect());
    EXPECT_EQ(connection.sendRequest(0x801, "abcd", 4), SCARD_S_SUCCESS);
    Bytes answer(3);
    EXPECT_EQ(connection.readMessage(answer.data(), 3), SCARD_S_SUCCESS);
    daemon.finish();
    EXPECT_EQ(request, RecordBytes(16).u32(0, 4).u32(4, 0x801).text(12, "abcd").bytes());
    EXPECT_EQ(answer, (Bytes{9, 8, 7}));
}

TEST(PipeConnection, CarriesAHeaderOverToAFreshPipe) {
    const FreshLog log;
    Bytes second;
    ScriptedDaemon daemon([&second](ScriptedPipe& pipe) {
        pipe.accept();
        pipe.handshake(1, 1);
        ScriptedPipe fresh = pipe.makeNext();
        pipe.close();
        fresh.accept();
        second = fresh.handshake(1, 4);
        const Bytes request = fresh.read(15);
        second.insert(second.end(), request.begin(), request.end());
        fresh.write({1});
    });
    DaemonConnectionTEZ connection;
    EXPECT_TRUE(connection.connect());
    char received = 0;
    EXPECT_EQ(connection.readn(&received, 1, INFINITE), DaemonConnectionTEZ::kFailed)
        << "the first daemon has gone";
    EXPECT_EQ(connection.sendRequest(7, "abc", 3), SCARD_S_SUCCESS);
    char answer = 0;
    EXPECT_EQ(connection.readMessage(&answer, 1), SCARD_S_SUCCESS);
    daemon.finish();
    EXPECT_EQ(second,
              RecordBytes(20).u32(1, 0xFFFFFFFF).u32(5, 3).u32(9, 7).text(17, "abc").bytes());
    EXPECT_TRUE(connection.isProtocolAtLeast(1, 4)) << "the version is that of the fresh pipe";
    EXPECT_THAT(log.entries(), Contains(LogLine('D', "DaemonConnectionTEZ::sendHeader",
                                                "Could not write header command 7")));
    EXPECT_THAT(log.messages("DaemonConnectionTEZ::sendMessage"), IsEmpty());
}

TEST(PipeConnection, AnswersNoServiceToAHeaderWhenTheDaemonHasGone) {
    ScriptedDaemon daemon([](ScriptedPipe& pipe) { pipe.greet(); });
    DaemonConnectionTEZ connection;
    EXPECT_TRUE(connection.connect());
    daemon.finish();
    EXPECT_EQ(connection.sendHeader(7, 12), SCARD_E_NO_SERVICE);
    EXPECT_EQ(connection.sendHeader(7, 12), SCARD_E_NO_SERVICE);
}

TEST(PipeConnection, DoesNotCarryABodyOver) {
    const FreshLog log;
    ScriptedDaemon daemon([](ScriptedPipe& pipe) { pipe.greet(); });
    DaemonConnectionTEZ connection;
    EXPECT_TRUE(connection.connect());
    daemon.finish();
    EXPECT_EQ(connection.sendMessage("abc", 3), SCARD_E_NO_SERVICE);
    EXPECT_THAT(log.entries().back(),
                LogLine('D', "DaemonConnectionTEZ::sendMessage", "Could not write data on socket"));
}

TEST(PipeConnection, DoesNothingWhileItIsClosed) {
    const FreshLog log;
    DaemonConnectionTEZ connection;
    char received = 0;
    EXPECT_EQ(connection.sendMessage("a", 1), SCARD_E_NO_SERVICE);
    EXPECT_EQ(connection.sendHeader(1, 1), SCARD_E_NO_SERVICE);
    EXPECT_EQ(connection.sendRequest(1, "a", 1), SCARD_E_NO_SERVICE);
    EXPECT_EQ(connection.receiveMessage(&received, 1, 10), SCARD_E_NO_SERVICE);
    EXPECT_EQ(connection.readMessage(&received, 1), SCARD_E_NO_SERVICE);
    connection.closeSocket();
    EXPECT_THAT(log.entries(), IsEmpty());
}

TEST(PipeConnection, KnowsItsPipeAndItsStateWithoutConnecting) {
    DaemonConnectionTEZ connection;
    EXPECT_TRUE(connection.checkDaemonAvailability());
    EXPECT_EQ(connection.serviceKind(), ServiceState::LocalFirst);
}

namespace {

/// Takes the place of the lowest operations, as another kind of connection could.
class OverridingConnection : public DaemonConnectionTEZ {
  public:
    LONG sendHeader(std::uint32_t command, std::uint64_t size) override {
        calls += "header(" + std::to_string(command) + "," + std::to_string(size) + ") ";
        return headerResult;
    }
    LONG sendMessage(const void* /*data*/, std::uint64_t size) override {
        calls += "message(" + std::to_string(size) + ") ";
        return SCARD_E_TIMEOUT;
    }
    LONG receiveMessage(void* /*buffer*/, std::uint64_t size, std::uint32_t timeout) override {
        calls += "receive(" + std::to_string(size) + "," + std::to_string(timeout) + ") ";
        return SCARD_E_TIMEOUT;
    }
    std::string calls;
    LONG headerResult = SCARD_S_SUCCESS;
};

/// Counts the requests that reach the plain form.
class RequestCounter : public DaemonConnectionTEZ {
  public:
    LONG sendRequest(std::uint32_t command, const void* /*data*/, std::uint64_t size) override {
        EXPECT_EQ(command, 5U);
        EXPECT_EQ(size, 3U);
        ++requests;
        return SCARD_E_TIMEOUT;
    }
    int requests = 0;
};

}  // namespace

TEST(PipeConnection, ForwardsAHeaderToTheOverriddenOperation) {
    OverridingConnection connection;
    EXPECT_EQ(connection.sendHeaderForward(5, 9), SCARD_S_SUCCESS);
    EXPECT_EQ(connection.calls, "header(5,9) ");
}

TEST(PipeConnection, MakesARequestOfTheOverriddenHeaderAndMessage) {
    OverridingConnection connection;
    EXPECT_EQ(connection.sendRequest(5, "abc", 3), SCARD_E_TIMEOUT);
    EXPECT_EQ(connection.calls, "header(5,3) message(3) ");
}

TEST(PipeConnection, SendsNoMessageBehindAFailedHeader) {
    OverridingConnection connection;
    connection.headerResult = SCARD_E_NO_SERVICE;
    EXPECT_EQ(connection.sendRequest(5, "abc", 3), SCARD_E_NO_SERVICE);
    EXPECT_EQ(connection.calls, "header(5,3) ");
}

TEST(PipeConnection, MakesAFlaggedRequestOfAPlainOne) {
    RequestCounter connection;
    EXPECT_EQ(connection.sendRequestFlagged(5, "abc", 3, true), SCARD_E_TIMEOUT);
    EXPECT_EQ(connection.sendRequestFlagged(5, "abc", 3, false), SCARD_E_TIMEOUT);
    EXPECT_EQ(connection.requests, 2);
}

TEST(PipeConnection, ReadsThroughTheOverriddenReceiveWithoutALimit) {
    OverridingConnection connection;
    char received = 0;
    EXPECT_EQ(connection.readMessage(&received, 1), SCARD_E_TIMEOUT);
    EXPECT_EQ(connection.calls, "receive(1,4294967295) ");
}

namespace {

/// Runs out of chances to reconnect, as another kind of connection could.
class UnconnectableConnection : public DaemonConnectionTEZ {
  public:
    bool connect() override {
        ++connects;
        return false;
    }
    void closeSocket() override {
        ++closes;
        DaemonConnectionTEZ::closeSocket();
    }
    int connects = 0;
    int closes = 0;
};

}  // namespace

const std::size_t kDaemonPipeSize = std::string(kDaemonPipe).size() + 1;

/// Refuses blocks of a size: of the pipe's name, or of the token, which is empty.
class RefusedBlocks {
  public:
    explicit RefusedBlocks(std::size_t refused)
        : malloc_(GetModuleHandleA(nullptr), "msvcrt.dll", "malloc",
                  [refused](std::size_t size) -> void* {
                      return size == refused ? nullptr : std::calloc(1, size);
                  }) {}

  private:
    ImportPatch<void*(std::size_t)> malloc_;
};

void expectNoConnectionWithout(std::size_t refusedSize, const std::string& message) {
    const FreshLog log;
    {
        const RefusedBlocks refused(refusedSize);
        DaemonConnectionTEZ connection;
        EXPECT_FALSE(connection.connect());
    }
    EXPECT_THAT(log.messages("DaemonConnectionTEZ::connect", 'W'), ElementsAre(message));
}

TEST(PipeConnection, NeedsMemoryForThePipesName) {
    expectNoConnectionWithout(kDaemonPipeSize, "Unable to get socket path");
}

TEST(PipeConnection, NeedsMemoryForTheToken) {
    expectNoConnectionWithout(1, "Unable to get auth token");
}

TEST(PipeConnection, WithoutAPipesNameThereIsNoDaemonToConnectTo) {
    const FreshLog log;
    {
        const RefusedBlocks refused(kDaemonPipeSize);
        DaemonConnectionTEZ connection;
        EXPECT_FALSE(connection.checkDaemonAvailability());
    }
    EXPECT_THAT(log.messages("DaemonConnectionTEZ::checkDaemonAvailability", 'W'),
                ElementsAre("No socket name is defined for PCSC service"));
}

TEST(PipeConnection, ReconnectsThroughTheOverriddenOperations) {
    ScriptedDaemon daemon([](ScriptedPipe& pipe) { pipe.accept(); });
    UnconnectableConnection connection;
    ASSERT_TRUE(connection.connectSocket(kDaemonPipe));
    daemon.finish();
    EXPECT_EQ(connection.sendHeader(7, 12), SCARD_E_NO_SERVICE);
    EXPECT_EQ(connection.closes, 1);
    EXPECT_EQ(connection.connects, 1);
}
