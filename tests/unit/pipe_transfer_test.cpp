#include <chrono>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <vector>

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
using test::ScriptedDaemon;
using test::ScriptedPipe;
using testing::MatchesRegex;

namespace {

using Clock = std::chrono::steady_clock;

/// A daemon that takes a connection and then says and reads nothing.
void acceptAndStall(ScriptedPipe& pipe) {
    pipe.greet();
    pipe.stall();
}

}  // namespace

TEST(PipeTransfer, ReadsNothingWithoutInputOrOutput) {
    DaemonConnectionTEZ connection;
    EXPECT_EQ(connection.readn(nullptr, 0, INFINITE), 0U);  // closed, yet no failure
}

TEST(PipeTransfer, ReadsAnEmptyMessageFromAnOpenPipeOnly) {
    DaemonConnectionTEZ connection;
    EXPECT_EQ(connection.readMessage(nullptr, 0), SCARD_E_NO_SERVICE);
    ScriptedDaemon daemon(acceptAndStall);
    EXPECT_TRUE(connection.connect());
    EXPECT_EQ(connection.readMessage(nullptr, 0), SCARD_S_SUCCESS);
}

TEST(PipeTransfer, GivesAReadUpAfterItsTimeAndOpensAFreshPipeForTheNextRequest) {
    const FreshLog log;
    Bytes request;
    ScriptedDaemon daemon([&request](ScriptedPipe& pipe) {
        pipe.accept();
        ScriptedPipe fresh = pipe.makeNext();
        pipe.handshake();
        EXPECT_TRUE(pipe.waitForClose());
        fresh.greet();
        request = fresh.read(15);
    });
    DaemonConnectionTEZ connection;
    EXPECT_TRUE(connection.connect());
    Bytes buffer(16, 0x55);
    const Clock::time_point start = Clock::now();
    EXPECT_EQ(connection.receiveMessage(buffer.data(), 16, 100), SCARD_E_NO_SERVICE);
    EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(90));
    EXPECT_THAT(log.entries().back(),
                LogLine('D', "DaemonConnectionTEZ::readn", "Timeout while reading from pipe"));
    EXPECT_TRUE(connection.connect());
    EXPECT_EQ(connection.sendRequest(7, "abc", 3), SCARD_S_SUCCESS);
    daemon.finish();
    EXPECT_EQ(request.size(), 15U);
    EXPECT_EQ(buffer, Bytes(16, 0x55));
}

TEST(PipeTransfer, GivesAStalledWriteUpAfterASecond) {
    const FreshLog log;
    ScriptedDaemon daemon(acceptAndStall, 64);
    DaemonConnectionTEZ connection;
    EXPECT_TRUE(connection.connect());
    const Bytes much(1 << 20, 0xAA);
    const Clock::time_point start = Clock::now();
    EXPECT_EQ(connection.writen(much.data(), much.size()), DaemonConnectionTEZ::kFailed);
    const auto elapsed = Clock::now() - start;
    EXPECT_GE(elapsed, std::chrono::milliseconds(990));
    EXPECT_LT(elapsed, std::chrono::seconds(10));
    EXPECT_THAT(log.entries().back(),
                LogLine('D', "DaemonConnectionTEZ::writen", "Timeout while writing to pipe"));
}

TEST(PipeTransfer, KeepsTheMemoryOfACancelledTransferUntilThePipeIsClosed) {
    ScriptedDaemon daemon(acceptAndStall);
    std::vector<OVERLAPPED*> cancelled;
    const ImportPatch<decltype(::CancelIoEx)> patch(
        GetModuleHandleA(nullptr), "KERNEL32.dll", "CancelIoEx",
        [&cancelled](HANDLE /*pipe*/, OVERLAPPED* overlapped) -> BOOL {
            cancelled.push_back(overlapped);  // and the kernel goes on with it
            return TRUE;
        });
    DaemonConnectionTEZ connection;
    EXPECT_TRUE(connection.connect());
    Bytes buffer(2);
    EXPECT_EQ(connection.readn(buffer.data(), 1, 0), DaemonConnectionTEZ::kFailed);
    EXPECT_EQ(connection.readn(buffer.data() + 1, 1, 0), DaemonConnectionTEZ::kFailed);
    ASSERT_EQ(cancelled.size(), 2U);
    EXPECT_NE(cancelled[0], cancelled[1]);
    std::vector<HANDLE> events;
    for (OVERLAPPED* const overlapped : cancelled) {
        EXPECT_FALSE(HasOverlappedIoCompleted(overlapped));
        events.push_back(overlapped->hEvent);
        EXPECT_EQ(WaitForSingleObject(overlapped->hEvent, 0), WAIT_TIMEOUT);
    }
    connection.closeSocket();
    // The close has ended them; whatever was still unfinished then is freed by a later look.
    for (const HANDLE event : events) {
        DWORD flags = 0;
        while (GetHandleInformation(event, &flags) != FALSE) {
            OverlappedTransfer::retire(nullptr);
        }
    }
}

TEST(PipeTransfer, FailsAShortReadButTellsTheCountOfAShortWrite) {
    const FreshLog log;
    ScriptedDaemon daemon([](ScriptedPipe& pipe) {
        pipe.greet();
        pipe.write({1, 2, 3});
        pipe.stall();
    });
    DaemonConnectionTEZ connection;
    EXPECT_TRUE(connection.connect());
    Bytes buffer(8);
    EXPECT_EQ(connection.readn(buffer.data(), 8, INFINITE), DaemonConnectionTEZ::kFailed);
    EXPECT_THAT(log.entries().back(),
                LogLine('D', "DaemonConnectionTEZ::readn", "Message read partially 3 < 8"));

    // No pipe takes less than what is written, so the kernel's answer is altered; not the daemon's,
    // which may be asking still how much it has written.
    auto* const original = &::GetOverlappedResult;
    const ImportPatch<decltype(::GetOverlappedResult)> patch(
        GetModuleHandleA(nullptr), "KERNEL32.dll", "GetOverlappedResult",
        [original, writer = GetCurrentThreadId()](HANDLE pipe, OVERLAPPED* overlapped, DWORD* count,
                                                  BOOL wait) -> BOOL {
            if (GetCurrentThreadId() != writer) {
                return original(pipe, overlapped, count, wait);
            }
            EXPECT_EQ(wait, FALSE);
            const BOOL isDone = original(pipe, overlapped, count, wait);
            *count -= 1;
            return isDone;
        });
    EXPECT_EQ(connection.writen("abcd", 4), 3U);
    EXPECT_THAT(log.entries().back(),
                LogLine('D', "DaemonConnectionTEZ::writen", "Message written partially 3 < 4"));
    EXPECT_EQ(connection.sendMessage("abcd", 4), SCARD_E_NO_SERVICE);
}

TEST(PipeTransfer, TellsWhyATransferWasRefusedAtOnce) {
    const FreshLog log;
    ScriptedDaemon daemon([](ScriptedPipe& pipe) { pipe.greet(); });
    DaemonConnectionTEZ connection;
    EXPECT_TRUE(connection.connect());
    daemon.finish();
    char received = 0;
    EXPECT_EQ(connection.readn(&received, 1, INFINITE), DaemonConnectionTEZ::kFailed);
    EXPECT_THAT(log.entries().back(),
                LogLine('D', "DaemonConnectionTEZ::readn",
                        MatchesRegex("Failed to read from pipe \\d+: 0x0000006D")));
    EXPECT_EQ(connection.writen(&received, 1), DaemonConnectionTEZ::kFailed);
    EXPECT_THAT(log.entries().back(),
                LogLine('D', "DaemonConnectionTEZ::writen",
                        MatchesRegex("Failed to write to pipe \\d+: 0x000000\\w\\w")));
}

TEST(PipeTransfer, TellsWhyTheResultOfAPendingReadCannotBeHad) {
    const FreshLog log;
    const pcscd::UniqueHandle event = pcscd::makeEvent();
    const HANDLE readPending = event.get();
    ScriptedDaemon daemon([readPending](ScriptedPipe& pipe) {
        pipe.greet();
        WaitForSingleObject(readPending, INFINITE);
    });
    DaemonConnectionTEZ connection;
    EXPECT_TRUE(connection.connect());
    auto* const original = &::ReadFile;
    const ImportPatch<decltype(::ReadFile)> patch(
        GetModuleHandleA(nullptr), "KERNEL32.dll", "ReadFile",
        [readPending, original](HANDLE file, void* buffer, DWORD size, DWORD* count,
                                OVERLAPPED* overlapped) -> BOOL {
            const BOOL isDone = original(file, buffer, size, count, overlapped);
            const DWORD error = GetLastError();
            SetEvent(readPending);  // now the daemon closes the pipe
            SetLastError(error);
            return isDone;
        });
    char received = 0;
    EXPECT_EQ(connection.readn(&received, 1, INFINITE), DaemonConnectionTEZ::kFailed);
    EXPECT_THAT(log.entries().back(),
                LogLine('D', "DaemonConnectionTEZ::readn",
                        "Could not get the result of the overlapped operation: 0x0000006D"));
}
