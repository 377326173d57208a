#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <optional>
#include <string>
#include <vector>

#include "daemon_simulator.h"
#include "environment.h"
#include "log_matchers.h"
#include "log_reader.h"
#include "patience.h"
#include "scard_missing.h"
#include "simulated/simulated_service.h"
#include "system_library/mock_system_calls.h"
#include "system_library/stand_in_library.h"
#include "transport_spy.h"
#include "whole_lines.h"

namespace tez::test {

/// The library under test, as it was loaded with the test program.
HMODULE libraryModule();

/// A text as the name of a test can show it: what is long only by its length.
std::string textInName(const std::string& text);

/// The elements of a multi-string.
std::vector<std::string> splitMultiString(const char* multiString);

/// Matches a PC/SC result code and prints codes in hexadecimal:
///
///     EXPECT_THAT(SCardReleaseContext(7), Gives(SCARD_E_INVALID_HANDLE));
testing::Matcher<LONG> Gives(LONG code);

inline constexpr const char* kRemoteReader = "Remote Reader 0";
/// The first context and card of the remote user's machine. They lie above 32 bits, so that a
/// truncated handle is unknown.
inline constexpr std::uint64_t kFirstDaemonContext = 0x5'0000'0001;
inline constexpr std::uint64_t kFirstDaemonCard = 0x6'0000'0001;
/// The daemon's connection that the monitor watches, of a process that found the daemon there: the
/// first call's own check was its first one.
inline constexpr std::uint64_t kWatch = 2;
inline constexpr const char* kRemoteCardHolder = "Remote User";

/// Stands in what a call must leave alone.
inline constexpr DWORD kUntouched = 0xDEAD;

/// A connection to a card, as SCardConnectA gave it.
struct ConnectedCard {
    SCARDHANDLE handle = 0;
    DWORD protocol = SCARD_PROTOCOL_UNDEFINED;

    /// What SCardTransmit wants for the protocol.
    const SCARD_IO_REQUEST* pci() const;
};

/// One test of the built library, in a process of its own, with both of its sides in the test's
/// hands:
/// - `remote` is the remote user's machine: kRemoteReader, which holds a demo card. `daemon` serves
///   it on the library's pipe once the test says startDaemon();
/// - `host` is the host's smart-card library: a mock whose every call goes to a HostService by
///   default.
///
/// The library logs everything to a fresh directory. Helpers throw std::runtime_error, which ends
/// the test, when the library does not do what they wait for.
class SystemTest : public testing::Test {
  public:
    SystemTest(const SystemTest&) = delete;
    SystemTest& operator=(const SystemTest&) = delete;

  protected:
    SystemTest();
    ~SystemTest() override;

    void startDaemon();

    /// Waits until the library's monitor watches the daemon started last: all that it does when the
    /// daemon comes is over then. The monitor runs from the first context on.
    void waitForWatch();

    /// Stops the daemon and waits until all that the library does when the daemon goes is over. The
    /// monitor must be watching (waitForWatch).
    void stopDaemon();

    /// startDaemon, a first context and waitForWatch: the usual beginning of a test with both
    /// sides.
    SCARDCONTEXT establishWithDaemon();

    static SCARDCONTEXT establish(DWORD scope = SCARD_SCOPE_USER);
    static ConnectedCard connect(SCARDCONTEXT context, const std::string& reader,
                                 DWORD shareMode = SCARD_SHARE_SHARED,
                                 DWORD protocols = SCARD_PROTOCOL_Tx);
    /// The card's answer to a command.
    static Bytes transmit(const ConnectedCard& card, const Bytes& command);
    static std::vector<std::string> listReaders(SCARDCONTEXT context);

    const FreshLog& log() const noexcept { return log_; }
    const TransportSpy& transport() const noexcept { return transport_; }
    const StandInLibrary& standIn() const noexcept { return standIn_; }

    /// From now on the library's log is written as the library writes it, in pieces.
    void leaveLogLinesInPieces() { wholeLines_.reset(); }

  private:
    FreshLog log_;
    std::optional<WholeLines> wholeLines_;
    TransportSpy transport_;
    StandInLibrary standIn_;
    std::size_t watchesBefore_ = 0;  // when the daemon was started last

  protected:
    SimulatedService remote{{.context = kFirstDaemonContext, .card = kFirstDaemonCard}};
    DaemonSimulator daemon{remote};
    testing::NiceMock<MockSystemCalls> host;
};

}  // namespace tez::test
