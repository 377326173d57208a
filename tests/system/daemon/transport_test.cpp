// The pipe to the daemon: how it is opened, and what becomes of transfers that fail, stall or come
// up short.
#include <atomic>
#include <chrono>
#include <thread>

#include "daemon_pipe.h"
#include "daemon_records.h"
#include "failing_writes.h"
#include "guarded_buffer.h"
#include "handle_spy.h"
#include "latch.h"
#include "pipes_closed.h"
#include "received_commands.h"
#include "record_codec.h"
#include "remote_card_test.h"

namespace tez::test {
namespace {

using testing::AllOf;
using testing::AnyOf;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::Not;
using testing::SizeIs;
using testing::StartsWith;
using testing::UnorderedElementsAre;

using CreateFilePatch = ImportPatch<decltype(::CreateFileA)>;
using OverlappedResultPatch = ImportPatch<decltype(::GetOverlappedResult)>;

class TransportTest : public RemoteCardTest {
  protected:
    /// The connection that carried the last request.
    std::uint64_t lastConnection() const { return daemon.requests().back().connection; }

    /// A call that needs the daemon, on a card handle.
    static LONG transmitCountOf(const ConnectedCard& connected) {
        DWORD count = 0;
        return SCardGetTransmitCount(connected.handle, &count);
    }

    bool logged(char level, const std::string& function, const std::string& message) const {
        return log().contains(level, function, message);
    }
};

TEST_F(TransportTest, OpensThePipeForOverlappedReadingAndWriting) {
    std::atomic<int> opens = 0;
    const CreateFilePatch create(
        libraryModule(), "KERNEL32.dll", "CreateFileA",
        [&](LPCSTR name, DWORD access, DWORD share, LPSECURITY_ATTRIBUTES security, DWORD creation,
            DWORD flags, HANDLE file) {
            EXPECT_STREQ(name, kDaemonPipe);
            EXPECT_EQ(access, 0xC0000000);
            EXPECT_EQ(share, 3U);
            EXPECT_EQ(security, nullptr);
            EXPECT_EQ(creation, 3U);
            EXPECT_EQ(flags, 0x40000000U);
            EXPECT_EQ(file, nullptr);
            ++opens;
            return ::CreateFileA(name, access, share, security, creation, flags, file);
        });
    startDaemon();
    establish();
    EXPECT_GE(opens, 1);
    EXPECT_THAT(log().messages("DaemonConnectionTEZ::connectSocket", 'D'),
                Contains(MatchesRegex("Pipe \\d+ connected")));
}

TEST_F(TransportTest, AnAbsentPipeIsLoggedWithItsError) {
    establish();
    EXPECT_THAT(log().messages("DaemonConnectionTEZ::connectSocket", 'D'),
                Each("Failed to connect to pipe: 0x00000002"));
    EXPECT_THAT(log().messages("DaemonConnectionTEZ::connectSocket"), Not(IsEmpty()));
}

TEST_F(TransportTest, ABusyPipeIsWaitedForAndOpened) {
    DaemonSimulator busyDaemon(remote, {.version = {}, .pipe = {.maxInstances = 2}});
    busyDaemon.start();
    const SCARDCONTEXT first = establish();
    ASSERT_TRUE(transport().waitForWatches(1));
    // The only other instance is ours until the library waits for it: as soon as the daemon has put
    // the connection away on which the library looked for it first.
    ASSERT_TRUE(WaitNamedPipeA(kDaemonPipe,
                               static_cast<DWORD>(std::chrono::milliseconds(kPatience).count())));
    UniqueHandle taken = openDaemonPipe();
    ASSERT_TRUE(taken);
    int waits = 0;
    const ImportPatch<decltype(::WaitNamedPipeA)> wait(
        libraryModule(), "KERNEL32.dll", "WaitNamedPipeA", [&](LPCSTR name, DWORD timeout) {
            EXPECT_STREQ(name, kDaemonPipe);
            EXPECT_EQ(timeout, DWORD{NMPWAIT_USE_DEFAULT_WAIT});
            ++waits;
            taken.reset();
            return ::WaitNamedPipeA(name, timeout);
        });
    EXPECT_THAT(listReaders(first), UnorderedElementsAre(kHostReader, kRemoteReader));
    EXPECT_GE(waits, 1);
}

TEST_F(TransportTest, ABusyPipeThatStaysBusyIsNoService) {
    connectCard();
    ASSERT_TRUE(daemon.closeConnection(daemon.openConnections().back()));
    const PipesClosed closed(ERROR_PIPE_BUSY);
    int waits = 0;
    const ImportPatch<decltype(::WaitNamedPipeA)> wait(libraryModule(), "KERNEL32.dll",
                                                       "WaitNamedPipeA", [&](LPCSTR, DWORD) {
                                                           ++waits;
                                                           SetLastError(ERROR_SEM_TIMEOUT);
                                                           return waits < 3 ? TRUE : FALSE;
                                                       });
    EXPECT_THAT(transmitCountOf(card), Gives(SCARD_E_NO_SERVICE));
    EXPECT_EQ(waits, 3) << "there is no bound on the rounds while the wait succeeds";
    EXPECT_TRUE(
        logged('D', "DaemonConnectionTEZ::connectSocket", "Failed to connect to pipe: timed out"));
}

TEST_F(TransportTest, ARequestOnAStalePipeIsCarriedOverToAFreshOne) {
    connectCard();
    const std::uint64_t stale = daemon.openConnections().back();
    ASSERT_TRUE(daemon.closeConnection(stale));
    EXPECT_THAT(transmitCountOf(card), Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(
        daemon.requests(),
        ElementsAre(IsRequest(
            Command::kGetTransmitCount,
            RecordBytes(TransmitCountLayout::kSize).u64(TransmitCountLayout::kCard, kDaemonCard))));
    EXPECT_GT(lastConnection(), stale);
    EXPECT_EQ(daemon.handshakes().back().connection, lastConnection());
    EXPECT_THAT(log().messages("DaemonConnectionTEZ::writen", 'D'),
                ElementsAre(AnyOf(MatchesRegex("Failed to write to pipe \\d+: 0x0000006D"),
                                  MatchesRegex("Failed to write to pipe \\d+: 0x000000E8"),
                                  MatchesRegex("Failed to write to pipe \\d+: 0x000000E9"))));
    EXPECT_TRUE(
        logged('D', "DaemonConnectionTEZ::sendHeader", "Could not write header command 2049"));
    EXPECT_THAT(log().messages("SCardGetTransmitCount", 'W'), IsEmpty());
}

TEST_F(TransportTest, ARequestIsCarriedOverAsOftenAsTheDaemonTakesAFreshPipe) {
    connectCard();
    int failures = 0;
    const FailingWrites writes([&](DWORD size) { return size == 12 && ++failures <= 5; });
    EXPECT_THAT(transmitCountOf(card), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(log().count("DaemonConnectionTEZ::sendHeader", "Could not write header command 2049"),
              5U);
    EXPECT_THAT(receivedCommands(daemon), ElementsAre(Command::kGetTransmitCount));
    EXPECT_THAT(daemon.handshakes(), SizeIs(5));
}

TEST_F(TransportTest, WithNoDaemonBehindTheStalePipeThereIsNoService) {
    connectCard();
    ASSERT_TRUE(daemon.closeConnection(daemon.openConnections().back()));
    const PipesClosed closed(ERROR_ACCESS_DENIED);
    EXPECT_THAT(transmitCountOf(card), Gives(SCARD_E_NO_SERVICE));
    EXPECT_TRUE(
        logged('D', "DaemonConnectionTEZ::connectSocket", "Failed to connect to pipe: 0x00000005"));
    EXPECT_THAT(log().messages("SCardGetTransmitCount", 'W'), ElementsAre("Failed to send header"));
}

TEST_F(TransportTest, AConnectionThatCouldNotBeOpenedFailsItsFirstSend) {
    establishContext();
    const PipesClosed closed(ERROR_FILE_NOT_FOUND);
    SCARDHANDLE handle = 0;
    DWORD protocol = 0;
    EXPECT_THAT(SCardConnectA(context, kRemoteReader, SCARD_SHARE_SHARED, SCARD_PROTOCOL_Tx,
                              &handle, &protocol),
                Gives(SCARD_E_NO_SERVICE));
    EXPECT_THAT(log().messages("establishRemoteContext"),
                ElementsAre("ESTABLISH REMOTE CONTEXT IN-PARAMS: 0", "Failed to send header",
                            "ESTABLISH REMOTE CONTEXT RV: 0x8010001D"));
    EXPECT_TRUE(logged('W', "establishRemoteContext", "Failed to send header"));
}

TEST_F(TransportTest, ABodyThatCannotBeSentIsNotRetried) {
    connectCard();
    const std::size_t opens = transport().opens();
    {
        const FailingWrites writes([](DWORD size) { return size == 16; });
        EXPECT_THAT(transmitCountOf(card), Gives(SCARD_E_NO_SERVICE));
    }
    EXPECT_THAT(log().messages("DaemonConnectionTEZ::writen", 'D'),
                ElementsAre(MatchesRegex("Failed to write to pipe \\d+: 0x000000E8")));
    EXPECT_TRUE(logged('D', "DaemonConnectionTEZ::sendMessage", "Could not write data on socket"));
    EXPECT_EQ(transport().opens(), opens);
    EXPECT_THAT(transmitCountOf(card), Gives(SCARD_S_SUCCESS)) << "on a fresh pipe";
    EXPECT_EQ(transport().opens(), opens + 1);
}

TEST_F(TransportTest, AnAnswerCutShortIsNoServiceAndTheNextCallGetsItsOwn) {
    connectCard();
    daemon.on(Command::kGetTransmitCount, [](const Request& request) {
        return Reply::closePipe({bytesAt(request.body, 0, 5)});
    });
    EXPECT_THAT(transmitCountOf(card), Gives(SCARD_E_NO_SERVICE));
    EXPECT_TRUE(logged('D', "DaemonConnectionTEZ::readn", "Message read partially 5 < 16"));
    EXPECT_THAT(log().messages("SCardGetTransmitCount", 'W'),
                ElementsAre("Failed to receive data"));
    daemon.restore(Command::kGetTransmitCount);
    EXPECT_THAT(transmitCountOf(card), Gives(SCARD_S_SUCCESS));
}

TEST_F(TransportTest, ADaemonThatGoesInsteadOfAnsweringIsNoService) {
    connectCard();
    daemon.on(Command::kGetTransmitCount, closing());
    EXPECT_THAT(transmitCountOf(card), Gives(SCARD_E_NO_SERVICE));
    EXPECT_THAT(
        log().messages("DaemonConnectionTEZ::readn", 'D'),
        ElementsAre(AnyOf(MatchesRegex("Failed to read from pipe \\d+: 0x0000006D"),
                          "Could not get the result of the overlapped operation: 0x0000006D")));
    EXPECT_THAT(log().messages("SCardGetTransmitCount", 'W'),
                ElementsAre("Failed to receive data"));
}

TEST_F(TransportTest, AReadThatIsRefusedAtOnceIsLoggedWithPipeAndError) {
    connectCard();
    const DWORD thread = GetCurrentThreadId();
    std::uintptr_t handle = 0;
    const ImportPatch<decltype(::ReadFile)> read(
        libraryModule(), "KERNEL32.dll", "ReadFile",
        [&](HANDLE pipe, LPVOID data, DWORD size, LPDWORD count, LPOVERLAPPED overlapped) {
            if (GetCurrentThreadId() == thread) {
                // NOLINTNEXTLINE(cppcoreguidelines-pro-type-reinterpret-cast): as it is logged
                handle = reinterpret_cast<std::uintptr_t>(pipe);
                SetLastError(ERROR_BAD_PIPE);
                return FALSE;
            }
            return ::ReadFile(pipe, data, size, count, overlapped);
        });
    EXPECT_THAT(transmitCountOf(card), Gives(SCARD_E_NO_SERVICE));
    EXPECT_TRUE(logged('D', "DaemonConnectionTEZ::readn",
                       "Failed to read from pipe " + std::to_string(handle) + ": 0x000000E6"));
}

TEST_F(TransportTest, AResultThatCannotBeHadIsLoggedWithItsError) {
    connectCard();
    const OverlappedResultPatch result(
        libraryModule(), "KERNEL32.dll", "GetOverlappedResult",
        [thread = GetCurrentThreadId(), calls = 0](HANDLE pipe, LPOVERLAPPED overlapped,
                                                   LPDWORD count, BOOL wait) mutable {
            if (GetCurrentThreadId() == thread) {
                EXPECT_EQ(wait, FALSE);
                if (++calls == 2) {  // of the body
                    SetLastError(ERROR_BROKEN_PIPE);
                    return FALSE;
                }
            }
            return ::GetOverlappedResult(pipe, overlapped, count, wait);
        });
    EXPECT_THAT(transmitCountOf(card), Gives(SCARD_E_NO_SERVICE));
    EXPECT_THAT(log().messages("DaemonConnectionTEZ::writen", 'D'),
                ElementsAre("Could not get the result of the overlapped operation: 0x0000006D"));
}

TEST_F(TransportTest, AHeaderWrittenInPartIsRepeatedOnAFreshPipe) {
    connectCard();
    const OverlappedResultPatch result(
        libraryModule(), "KERNEL32.dll", "GetOverlappedResult",
        [thread = GetCurrentThreadId(), calls = 0](HANDLE pipe, LPOVERLAPPED overlapped,
                                                   LPDWORD count, BOOL wait) mutable {
            const BOOL done = ::GetOverlappedResult(pipe, overlapped, count, wait);
            if (GetCurrentThreadId() == thread && ++calls == 1) {
                --*count;
            }
            return done;
        });
    EXPECT_THAT(transmitCountOf(card), Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(log().messages("DaemonConnectionTEZ::writen", 'D'),
                ElementsAre("Message written partially 11 < 12"));
    EXPECT_THAT(daemon.handshakes(), SizeIs(1));
}

TEST_F(TransportTest, AnEmptyDataPhaseIsNotRead) {
    establishContext();
    daemon.on(Command::kListReaders, answering(ListLayout::kSize, {{ListLayout::kLength, 0}}));
    std::vector<DWORD> sizes;
    const ImportPatch<decltype(::ReadFile)> read(
        libraryModule(), "KERNEL32.dll", "ReadFile",
        [&, thread = GetCurrentThreadId()](HANDLE pipe, LPVOID data, DWORD size, LPDWORD count,
                                           LPOVERLAPPED overlapped) {
            if (GetCurrentThreadId() == thread) {
                sizes.push_back(size);
            }
            return ::ReadFile(pipe, data, size, count, overlapped);
        });
    EXPECT_THAT(listReaders(context), ElementsAre(kHostReader));
    // The version, the context and the list's record.
    EXPECT_THAT(sizes, ElementsAre(8, 16, 16));
}

TEST_F(TransportTest, WaitsForAnswersWithoutEnd) {
    connectCard();
    std::vector<DWORD> timeouts;
    const ImportPatch<decltype(::WaitForSingleObject)> wait(
        libraryModule(), "KERNEL32.dll", "WaitForSingleObject",
        [&, thread = GetCurrentThreadId()](HANDLE object, DWORD timeout) {
            if (GetCurrentThreadId() == thread) {
                timeouts.push_back(timeout);
            }
            return ::WaitForSingleObject(object, timeout);
        });
    // The daemon answers when the read is on its way, so that there is something to wait for.
    Latch isReading(1);
    const ImportPatch<decltype(::ReadFile)> read(
        libraryModule(), "KERNEL32.dll", "ReadFile",
        [&, thread = GetCurrentThreadId()](HANDLE pipe, LPVOID data, DWORD size, LPDWORD count,
                                           LPOVERLAPPED overlapped) {
            const BOOL done = ::ReadFile(pipe, data, size, count, overlapped);
            const DWORD error = GetLastError();
            if (GetCurrentThreadId() == thread) {
                isReading.countDown();
            }
            SetLastError(error);
            return done;
        });
    daemon.on(Command::kGetTransmitCount, [&](const Request&) -> std::optional<Reply> {
        isReading.wait();
        return std::nullopt;
    });
    EXPECT_THAT(transmitCountOf(card), Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(timeouts, Contains(INFINITE));
}

TEST_F(TransportTest, AStalledWriteEndsAfterASecondAndTheNextCallTakesAFreshPipe) {
    connectCard();
    const std::uint64_t stalled = daemon.openConnections().back();
    const GuardedBuffer command(30000);  // far more than the pipe holds
    Bytes response(258);
    DWORD length = 258;
    HANDLE pipe = nullptr;
    OVERLAPPED* written = nullptr;
    bool cancelled = false;
    std::vector<DWORD> timeouts;
    daemon.pauseReading();
    {
        const ImportPatch<decltype(::WriteFile)> write(
            libraryModule(), "KERNEL32.dll", "WriteFile",
            [&, thread = GetCurrentThreadId()](HANDLE file, LPCVOID data, DWORD size, LPDWORD count,
                                               LPOVERLAPPED overlapped) {
                if (GetCurrentThreadId() == thread) {
                    pipe = file;
                    written = overlapped;
                }
                return ::WriteFile(file, data, size, count, overlapped);
            });
        const ImportPatch<decltype(::CancelIoEx)> cancel(libraryModule(), "KERNEL32.dll",
                                                         "CancelIoEx",
                                                         [&](HANDLE file, LPOVERLAPPED overlapped) {
                                                             EXPECT_EQ(file, pipe);
                                                             EXPECT_EQ(overlapped, written);
                                                             cancelled = true;
                                                             return ::CancelIoEx(file, overlapped);
                                                         });
        const ImportPatch<decltype(::WaitForSingleObject)> wait(
            libraryModule(), "KERNEL32.dll", "WaitForSingleObject",
            [&, thread = GetCurrentThreadId()](HANDLE object, DWORD timeout) {
                if (GetCurrentThreadId() == thread) {
                    timeouts.push_back(timeout);
                }
                return ::WaitForSingleObject(object, timeout);
            });
        const auto begin = std::chrono::steady_clock::now();
        EXPECT_THAT(SCardTransmit(card.handle, card.pci(), command.data(), 30000, nullptr,
                                  response.data(), &length),
                    Gives(SCARD_E_NO_SERVICE));
        const auto elapsed = std::chrono::steady_clock::now() - begin;
        EXPECT_GE(elapsed, std::chrono::milliseconds(990));
    }
    EXPECT_TRUE(cancelled);
    EXPECT_THAT(timeouts, AllOf(Not(IsEmpty()), Each(1000U)));
    EXPECT_TRUE(logged('D', "DaemonConnectionTEZ::writen", "Timeout while writing to pipe"));
    EXPECT_TRUE(logged('D', "DaemonConnectionTEZ::sendMessage", "Could not write data on socket"));
    daemon.resumeReading();
    for (int i = 0; i < 20; ++i) {
        EXPECT_THAT(transmit(card, getChallenge()), SizeIs(10));
        EXPECT_GT(lastConnection(), stalled);
    }
    EXPECT_TRUE(command.untouched());
}

TEST_F(TransportTest, TransfersLeaveNoHandlesBehind) {
    connectCard();
    const HandleSpy handles;
    for (int i = 0; i < 50; ++i) {
        EXPECT_THAT(transmitCountOf(card), Gives(SCARD_S_SUCCESS));
    }
    EXPECT_EQ(handles.outstanding(), 0U);
}

TEST_F(TransportTest, EventsAreManualResetAndNotSetAtFirst) {
    connectCard();
    int events = 0;
    const ImportPatch<decltype(::CreateEventA)> create(
        libraryModule(), "KERNEL32.dll", "CreateEventA",
        [&](LPSECURITY_ATTRIBUTES security, BOOL manualReset, BOOL initially, LPCSTR name) {
            EXPECT_EQ(security, nullptr);
            EXPECT_EQ(manualReset, TRUE);
            EXPECT_EQ(initially, FALSE);
            EXPECT_EQ(name, nullptr);
            ++events;
            return ::CreateEventA(security, manualReset, initially, name);
        });
    EXPECT_THAT(transmitCountOf(card), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(events, 3) << "header, record and answer";
}

TEST_F(TransportTest, WithoutEventsThereIsNoServiceUntilThereAreSomeAgain) {
    connectCard();
    {
        const ImportPatch<decltype(::CreateEventA)> create(
            libraryModule(), "KERNEL32.dll", "CreateEventA",
            [](LPSECURITY_ATTRIBUTES, BOOL, BOOL, LPCSTR) -> HANDLE {
                SetLastError(ERROR_NO_SYSTEM_RESOURCES);
                return nullptr;
            });
        EXPECT_THAT(transmitCountOf(card), Gives(SCARD_E_NO_SERVICE));
    }
    EXPECT_THAT(log().messages("SCardGetTransmitCount", 'W'), ElementsAre("Failed to send header"));
    EXPECT_THAT(transmitCountOf(card), Gives(SCARD_S_SUCCESS));
}

}  // namespace
}  // namespace tez::test
