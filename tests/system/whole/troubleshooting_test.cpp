// Causes each situation of docs/troubleshooting.md, and holds the log lines there against those
// that the library writes.
#include <fstream>
#include <optional>
#include <regex>
#include <sstream>
#include <thread>

#include "daemon_pipe.h"
#include "status_waits.h"
#include "system_test.h"

namespace tez::test {
namespace {

using testing::IsSupersetOf;
using testing::Not;
using testing::SizeIs;

/// The empty token's NUL, and the cache option.
constexpr DWORD kHandshakeSize = 5;

/// A line without what is another each time: who wrote it when, addresses, handles of pipes.
std::string lasting(const std::string& line) {
    static const std::regex kFront(R"(^([EWID]) \w{3} \d\d [\d:]+ \d+:\d+ )");
    static const std::regex kAddress(R"([0-9A-F]{16})");
    static const std::regex kPipeHandle(R"(Pipe \d+)");
    std::string text = std::regex_replace(line, kFront, "$1 ");
    text = std::regex_replace(text, kAddress, "ADDRESS");
    return std::regex_replace(text, kPipeHandle, "Pipe N");
}

/// The lasting parts of a text's lines that are log lines.
std::vector<std::string> lastingLines(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        // A text of the system's brings an end of its own.
        while (line.ends_with('\r')) {
            line.pop_back();
        }
        if (line.find(" TEZ (") != std::string::npos) {
            lines.push_back(lasting(line));
        }
    }
    return lines;
}

class TroubleshootingTest : public SystemTest {
  protected:
    /// Expects that the log has all lines that the page shows under the heading.
    void expectDocumented(const std::string& heading) const {
        const std::vector<std::string> documented = lastingLines(section(heading));
        EXPECT_THAT(documented, Not(testing::IsEmpty())) << heading;
        EXPECT_THAT(lastingLines(log().text()), IsSupersetOf(documented)) << log().text();
    }

  private:
    static std::string section(const std::string& heading) {
        std::ifstream file(TEZ_TROUBLESHOOTING_PAGE);
        std::string text;
        bool isInside = false;
        for (std::string line; std::getline(file, line);) {
            if (line.starts_with("## ")) {
                isInside = line == "## " + heading;
            }
            text += isInside ? line + "\n" : "";
        }
        return text;
    }
};

TEST_F(TroubleshootingTest, NoDaemon) {
    establish();
    expectDocumented("The daemon is away");
}

TEST_F(TroubleshootingTest, ADaemonThatGoes) {
    establishWithDaemon();
    stopDaemon();
    expectDocumented("The daemon goes and comes");
}

TEST_F(TroubleshootingTest, NoRightToThePipe) {
    const MutePipe pipe(1, PIPE_ACCESS_OUTBOUND);
    establish();
    expectDocumented("The pipe does not admit the user");
}

TEST_F(TroubleshootingTest, NoFreeInstance) {
    MutePipe pipe(1);
    pipe.take();
    establish();
    expectDocumented("All instances of the pipe are taken");
}

TEST_F(TroubleshootingTest, NoHandshake) {
    std::optional<MutePipe> pipe(1);
    std::jthread application([] { establish(); });
    ASSERT_TRUE(eventually([&] { return pipe->written() == kHandshakeSize; }));
    EXPECT_EQ(log().text().find("RV:"), std::string::npos);
    pipe.reset();
    application.join();
    expectDocumented("The daemon does not answer the handshake");
}

TEST_F(TroubleshootingTest, AnOldDaemon) {
    daemon.setVersion({1, 1});
    const ConnectedCard card = connect(establishWithDaemon(), kRemoteReader);
    Bytes value(1000);
    DWORD length = 1000;
    EXPECT_THAT(SCardGetAttrib(card.handle, SCARD_ATTR_ATR_STRING, value.data(), &length),
                Gives(SCARD_E_INSUFFICIENT_BUFFER));
    expectDocumented("The daemon is an old one");
}

TEST_F(TroubleshootingTest, NoHostLibrary) {
    const ImportPatch<decltype(::LoadLibraryA)> load(libraryModule(), "KERNEL32.dll",
                                                     "LoadLibraryA", [](LPCSTR) -> HMODULE {
                                                         SetLastError(ERROR_MOD_NOT_FOUND);
                                                         return nullptr;
                                                     });
    SCARDCONTEXT context = 0;
    EXPECT_THAT(SCardEstablishContext(SCARD_SCOPE_USER, nullptr, nullptr, &context),
                Gives(SCARD_F_INTERNAL_ERROR));
    expectDocumented("The host has no smart-card library");
}

TEST_F(TroubleshootingTest, AReaderOnNeitherSide) {
    const SCARDCONTEXT context = establishWithDaemon();
    SCARDHANDLE card = 0;
    DWORD protocol = 0;
    EXPECT_THAT(SCardConnectA(context, "No Such Reader", SCARD_SHARE_SHARED, SCARD_PROTOCOL_Tx,
                              &card, &protocol),
                Gives(SCARD_E_UNKNOWN_READER));
    SCARD_READERSTATEA state = readerState("No Such Reader", SCARD_STATE_UNAWARE);
    EXPECT_THAT(SCardGetStatusChangeA(context, 1000, &state, 1), Gives(SCARD_S_SUCCESS));
    expectDocumented("A reader that neither side has");
}

TEST_F(TroubleshootingTest, AReaderOnBothSides) {
    remote.addReader(kHostReader);
    remote.insertCard(kHostReader, makeDemoCard(kRemoteCardHolder));
    const SCARDCONTEXT context = establishWithDaemon();
    listReaders(context);
    connect(context, kHostReader);
    expectDocumented("Both sides have a reader of one name");
}

/// An entry that tells what its reader's state is, so that a wait has nothing to tell.
SCARD_READERSTATEA presentState(SCARDCONTEXT context, const char* reader) {
    SCARD_READERSTATEA state = readerState(reader, SCARD_STATE_UNAWARE);
    EXPECT_THAT(SCardGetStatusChangeA(context, 0, &state, 1), Gives(SCARD_S_SUCCESS));
    state.dwCurrentState = state.dwEventState & ~DWORD{SCARD_STATE_CHANGED};
    return state;
}

TEST_F(TroubleshootingTest, AWaitOfOneSideThatIsOver) {
    const SCARDCONTEXT context = establishWithDaemon();
    listReaders(context);
    SCARD_READERSTATEA state = presentState(context, kRemoteReader);
    EXPECT_THAT(SCardGetStatusChangeA(context, 100, &state, 1), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(state.dwEventState & SCARD_STATE_CHANGED, 0U);
    expectDocumented("A wait returns 0 though nothing has changed");
}

TEST_F(TroubleshootingTest, AWaitWithTimeOutZero) {
    const SCARDCONTEXT context = establish();
    listReaders(context);
    SCARD_READERSTATEA state = presentState(context, kHostReader);
    EXPECT_THAT(SCardGetStatusChangeA(context, 0, &state, 1), Gives(SCARD_E_TIMEOUT));
    expectDocumented("A wait with the time-out 0");
}

TEST_F(TroubleshootingTest, APulledCard) {
    const ConnectedCard card = connect(establishWithDaemon(), kRemoteReader);
    remote.removeCard(kRemoteReader);
    Bytes answer(258);
    DWORD length = 258;
    const Bytes command = {0x00, 0x84, 0x00, 0x00, 0x08};
    EXPECT_THAT(
        SCardTransmit(card.handle, card.pci(), command.data(), 5, nullptr, answer.data(), &length),
        Gives(SCARD_W_REMOVED_CARD));
    expectDocumented("The card is pulled");
}

TEST_F(TroubleshootingTest, ARedirectedUpdate) {
    setEnvironment("TEZ_PCSC_ENABLE_ALL_CALLS_REDIRECTION", "1");
    const SCARDCONTEXT context = establishWithDaemon();
    EXPECT_THAT(SCardForgetCardTypeA(context, "A Card"), Gives(SCARD_E_INVALID_HANDLE));
    expectDocumented("Updates of the card database fail with 0x80100003");
}

TEST_F(TroubleshootingTest, ASmallBuffer) {
    const SCARDCONTEXT context = establishWithDaemon();
    char names[5] = {};
    DWORD length = sizeof names;
    EXPECT_THAT(SCardListReadersA(context, nullptr, names, &length),
                Gives(SCARD_E_INSUFFICIENT_BUFFER));
    expectDocumented("A buffer is too small");
}

TEST_F(TroubleshootingTest, ANameInACodePage) {
    remote.addReader("Leseger\xC3\xA4t");
    const SCARDCONTEXT context = establishWithDaemon();
    listReaders(context);
    SCARDHANDLE card = 0;
    DWORD protocol = 0;
    EXPECT_THAT(SCardConnectA(context, "Leseger\xE4t", SCARD_SHARE_SHARED, SCARD_PROTOCOL_Tx, &card,
                              &protocol),
                Gives(SCARD_E_UNKNOWN_READER));
    expectDocumented("Names that are not ASCII");
}

}  // namespace
}  // namespace tez::test
