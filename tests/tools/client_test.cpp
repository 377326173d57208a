// The command-line client, with the simulator program on the remote side and the stand-in's own
// reader on the host's. What a command prints is looked at as a person sees it.
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "simulator_process.h"

namespace tez::test {
namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;
using testing::Optional;
using testing::StartsWith;

constexpr const char* kDemoAtrText = "3B 89 01 44 45 4D 4F 20 43 41 52 44 BF";
constexpr const char* kItem = "00112233-4455-6677-8899-AABBCCDDEEFF \"an item\"";

class ClientTest : public testing::Test {
  public:
    ClientTest(const ClientTest&) = delete;
    ClientTest& operator=(const ClientTest&) = delete;

  protected:
    ClientTest() {
        std::ofstream(cardFile()).close();
        SetEnvironmentVariableA("TEZ_STAND_IN_CARD_FILE", cardFile().string().c_str());
    }
    ~ClientTest() override { std::filesystem::remove(cardFile()); }

    /// While there is this file, the host's reader holds a card.
    static std::filesystem::path cardFile() {
        return std::filesystem::temp_directory_path() /
               ("host-card-" + std::to_string(GetCurrentProcessId()));
    }

    /// What a command prints that succeeds.
    static std::string output(const std::string& command) { return outputOf(command, 0); }

    static std::string outputOf(const std::string& command, DWORD exitCode) {
        ChildProcess client("pcsc-client.exe", command);
        std::string text = client.readRest();
        EXPECT_THAT(client.waitForEnd(kToolPatience), Optional(exitCode)) << command;
        return text;
    }

    /// What commands print that share one process, whose exit code tells whether one has failed.
    static std::string shellOutput(const std::vector<std::string>& commands, DWORD exitCode) {
        ChildProcess client("pcsc-client.exe", "shell");
        for (const std::string& command : commands) {
            client.writeLine(command);
        }
        client.writeLine("quit");
        std::string text = client.readRest();
        EXPECT_THAT(client.waitForEnd(kToolPatience), Optional(exitCode)) << text;
        return text;
    }

    /// How many calls of the library its logs in a folder tell of.
    static std::size_t countCalls(const std::filesystem::path& folder) {
        std::size_t count = 0;
        for (const auto& entry : std::filesystem::directory_iterator(folder)) {
            std::ifstream log(entry.path());
            for (std::string line; std::getline(log, line);) {
                if (line.find(" IN-PARAMS") != std::string::npos) {
                    ++count;
                }
            }
        }
        return count;
    }

    /// Reads up to a line that has the text; throws when the output ends before it.
    static std::string lineWith(ChildProcess& client, const std::string& text) {
        while (const std::optional<std::string> line = client.readLine()) {
            if (line->find(text) != std::string::npos) {
                return *line;
            }
        }
        throw std::runtime_error("the client does not print: " + text);
    }

    /// A watch that waits without a limit, on the remote side at least.
    void waitUntilItWaits(ChildProcess& watch) const {
        lineWith(watch, "watching");
        // One request for the first states, one for the wait.
        simulator.waitFor("GET_STATUS_CHANGE", 2);
    }

    SimulatorProcess simulator;
};

TEST_F(ClientTest, ListsTheReadersOfBothSides) {
    EXPECT_THAT(output("readers --groups"),
                AllOf(HasSubstr("[0] Remote Reader 0"), HasSubstr("[1] Remote Reader 1"),
                      HasSubstr("[2] Host Reader 0"), HasSubstr("group SCard$DefaultReaders")));
}

TEST_F(ClientTest, TellsTheStateOfEachCard) {
    const std::string text = output("status");
    const std::size_t empty = text.find("Remote Reader 1");
    const std::size_t host = text.find("Host Reader 0");
    ASSERT_LT(empty, host);
    EXPECT_THAT(text.substr(0, empty), HasSubstr(kDemoAtrText));
    EXPECT_THAT(text.substr(empty, host - empty),
                AllOf(HasSubstr("no card"), HasSubstr("SCARD_E_NO_SMARTCARD 0x8010000C")));
    EXPECT_THAT(text.substr(host), HasSubstr(kDemoAtrText));
}

TEST_F(ClientTest, SendsApdusToTheCardsOfBothSides) {
    for (const char* reader : {"Remote Reader 0", "Host Reader 0"}) {
        const std::string name = "\"" + std::string(reader) + "\"";
        EXPECT_THAT(output("apdu " + name + " 00A4040008F054455A44454D4F"),
                    HasSubstr("9000 success"));
        EXPECT_THAT(outputOf("apdu " + name + " 00A4040001FF", 1), HasSubstr("6A82 file"));
    }
}

TEST_F(ClientTest, FailsWithTheNameOfTheResult) {
    EXPECT_THAT(outputOf("status \"No Such Reader\"", 1),
                HasSubstr("SCardConnect: SCARD_E_UNKNOWN_READER 0x80100009"));
    EXPECT_EQ(outputOf("apdu 0 xyz", 2), "");
}

TEST_F(ClientTest, PrintsAttributesByName) {
    EXPECT_THAT(output("attributes 0 --name SCARD_ATTR_atr_string --name 0x7FFF0005"),
                AllOf(StartsWith("ATR_STRING 0x00090303"), HasSubstr(kDemoAtrText),
                      HasSubstr("DEVICE_FRIENDLY_NAME_W 0x7FFF0005"),
                      HasSubstr("value     Remote Reader 0")));
    EXPECT_THAT(output("attributes --list"), HasSubstr("VENDOR_NAME 0x00010100"));
    EXPECT_EQ(outputOf("attributes 0 --name NO_SUCH_NAME", 2), "");
    EXPECT_EQ(outputOf("attributes 0 --name MAXINPUT", 1), "");
}

TEST_F(ClientTest, PrintsTheAttributesThatAnOldDaemonSends) {
    simulator.tell("version 1.1");
    simulator.waitFor("protocol 1.1");
    EXPECT_THAT(output("attributes 0"),
                AllOf(HasSubstr(kDemoAtrText), HasSubstr("value     Virtual Readers")));
}

TEST_F(ClientTest, RefusesAPinThatNoCommandHolds) {
    EXPECT_EQ(outputOf("verify 0 " + std::string(256, '1'), 2), "");
    EXPECT_THAT(outputOf("verify 0 " + std::string(255, '1'), 1),
                HasSubstr("command   00 20 00 01 FF ** "));
}

TEST_F(ClientTest, GoesOnInTheShellAfterAnyError) {
    // Bytes that are not UTF-8 name no file.
    EXPECT_THAT(shellOutput({"icon 0 --file \"\xFF.ico\"", "readers"}, 1),
                AllOf(HasSubstr("error: "), HasSubstr("[0] Remote Reader 0")));
}

TEST_F(ClientTest, EndsAWatchWithACardOnTheRemoteSide) {
    ChildProcess watch("pcsc-client.exe", "watch --once");
    waitUntilItWaits(watch);
    simulator.tell("insert Remote Reader 1");
    EXPECT_THAT(watch.readLine(), Optional(StartsWith("Remote Reader 1: card present, ATR " +
                                                      std::string(kDemoAtrText))));
    EXPECT_THAT(watch.waitForEnd(kToolPatience), Optional(0U));
}

TEST_F(ClientTest, EndsAWatchWithACardOnTheHostsSide) {
    std::filesystem::remove(cardFile());
    ChildProcess watch("pcsc-client.exe", "watch --once");
    waitUntilItWaits(watch);
    std::ofstream(cardFile()).close();
    EXPECT_THAT(watch.readLine(), Optional(StartsWith("Host Reader 0: card present")));
    EXPECT_THAT(watch.waitForEnd(kToolPatience), Optional(0U));
}

TEST_F(ClientTest, FollowsReadersAndSidesThatComeAndGo) {
    ChildProcess watch("pcsc-client.exe", "watch --changes 4");
    waitUntilItWaits(watch);
    simulator.tell("add Remote Reader 2");
    EXPECT_THAT(watch.readLine(), Optional(StartsWith("Remote Reader 2: new reader, no card")));
    simulator.tell("remove-reader Remote Reader 2");
    EXPECT_THAT(watch.readLine(), Optional(StartsWith("Remote Reader 2: reader removed")));
    simulator.tell("stop-serving");
    simulator.waitFor("stopped serving");
    simulator.tell("remove Remote Reader 0");
    simulator.tell("serve");
    EXPECT_THAT(watch.readLine(), Optional(StartsWith("Remote Reader 0: no card")));
    simulator.tell("insert Remote Reader 1");
    EXPECT_THAT(watch.readLine(), Optional(StartsWith("Remote Reader 1: card present")));
    EXPECT_THAT(watch.waitForEnd(kToolPatience), Optional(0U));
}

TEST_F(ClientTest, EndsAWatchWhenItsTimeIsOver) {
    EXPECT_THAT(output("watch --timeout 0"), HasSubstr("watching"));
    EXPECT_THAT(outputOf("watch --once --timeout 1", 1), HasSubstr("watching"));
}

TEST_F(ClientTest, ToldOfAChangeDoesNotWaitForTheEndOfItsTime) {
    ChildProcess watch("pcsc-client.exe", "watch --once --timeout 1000");
    lineWith(watch, "watching");
    simulator.tell("insert Remote Reader 1");
    EXPECT_THAT(watch.readLine(), Optional(StartsWith("Remote Reader 1: card present")));
    EXPECT_THAT(watch.waitForEnd(kToolPatience), Optional(0U));
}

TEST_F(ClientTest, ShowsANamedReaderWhenItComes) {
    ChildProcess watch("pcsc-client.exe", "watch \"Remote Reader 2\" --once");
    EXPECT_THAT(watch.readLine(), Optional(StartsWith("Remote Reader 2: no such reader")));
    lineWith(watch, "watching");
    simulator.tell("add Remote Reader 2");
    EXPECT_THAT(watch.readLine(), Optional(StartsWith("Remote Reader 2: new reader, no card")));
    EXPECT_THAT(watch.waitForEnd(kToolPatience), Optional(0U));
}

TEST_F(ClientTest, FollowsANamedReaderThatGoesAndComes) {
    ChildProcess watch("pcsc-client.exe", "watch \"Remote Reader 1\" --changes 3");
    waitUntilItWaits(watch);
    simulator.tell("remove Remote Reader 0");
    simulator.tell("remove-reader Remote Reader 1");
    EXPECT_THAT(watch.readLine(), Optional(StartsWith("Remote Reader 1: reader removed")));
    simulator.tell("add Remote Reader 1");
    EXPECT_THAT(watch.readLine(), Optional(StartsWith("Remote Reader 1: new reader, no card")));
    simulator.tell("insert Remote Reader 1");
    EXPECT_THAT(watch.readLine(), Optional(StartsWith("Remote Reader 1: card present")));
    EXPECT_THAT(watch.waitForEnd(kToolPatience), Optional(0U));
}

TEST_F(ClientTest, WatchesANamedReaderWhileTheDaemonGoesAndComes) {
    ChildProcess watch("pcsc-client.exe", "watch \"Remote Reader 0\" --changes 2");
    waitUntilItWaits(watch);
    simulator.tell("stop-serving");
    EXPECT_THAT(watch.readLine(), Optional(StartsWith("Remote Reader 0: reader removed")));
    simulator.tell("serve");
    EXPECT_THAT(watch.readLine(), Optional(StartsWith("Remote Reader 0: new reader, card")));
    EXPECT_THAT(watch.waitForEnd(kToolPatience), Optional(0U));
}

TEST_F(ClientTest, RestsWhileANamedReaderIsMissing) {
    const std::filesystem::path folder = cardFile().replace_extension(".log");
    std::filesystem::create_directory(folder);
    SetEnvironmentVariableA("TEZ_PCSC_LOG_LEVEL", "debug");
    SetEnvironmentVariableA("TEZ_PCSC_LOG_DIR", folder.string().c_str());
    output("watch \"No Such Reader\" --timeout 1");
    const std::size_t calls = countCalls(folder);
    std::filesystem::remove_all(folder);
    EXPECT_GT(calls, 0U);
    // It looks four times in that second, with a few calls each time.
    EXPECT_LT(calls, 60U);
}

TEST_F(ClientTest, TellsHowManyReadersCanBeWatched) {
    for (int reader = 2; reader < 16; ++reader) {
        simulator.tell("add Remote Reader " + std::to_string(reader));
    }
    simulator.waitFor("reader added: Remote Reader 15");
    EXPECT_THAT(shellOutput({"watch --timeout 0", "watch 0 15 16 --timeout 0"}, 1),
                AllOf(HasSubstr("error: a wait takes 16 entries at most, not 18"),
                      HasSubstr("Host Reader 0: card present")));
}

TEST_F(ClientTest, WaitsForTheStartedEvent) {
    EXPECT_THAT(output("started"), AllOf(HasSubstr("at once   set"), HasSubstr("then      set")));
    EXPECT_THAT(simulator.quit(), Optional(0U));
    EXPECT_THAT(output("started --timeout 20"), HasSubstr("then      set"));
}

TEST_F(ClientTest, ListsCardTypesByAtr) {
    EXPECT_THAT(output("cards"), HasSubstr("Demo Card"));
    EXPECT_THAT(output("cards --reader \"Host Reader 0\""),
                AllOf(HasSubstr(kDemoAtrText), HasSubstr("Demo Card")));
    EXPECT_THAT(output("cards --atr 3B00"), HasSubstr("no card types"));
    SetEnvironmentVariableA("TEZ_PCSC_ENABLE_ALL_CALLS_REDIRECTION", "1");
    EXPECT_THAT(output("cards --reader 0"),
                AllOf(HasSubstr("Remote Demo Card"), HasSubstr("\nDemo Card")));
    EXPECT_THAT(output("provider \"Remote Demo Card\""), HasSubstr("Remote Demo Provider"));
}

TEST_F(ClientTest, IntroducesAndForgetsCardTypes) {
    EXPECT_THAT(shellOutput({"introduce \"Other Card\" --atr 3B01FF", "cards --atr 3B01FF",
                             "provider \"Other Card\" --set \"A Provider\"",
                             "provider \"Other Card\" --kind ksp", "forget \"Other Card\"",
                             "cards --atr 3B01FF"},
                            1),
                AllOf(HasSubstr("introduced: Other Card"), HasSubstr("\nOther Card"),
                      HasSubstr("provider  A Provider"),
                      HasSubstr("SCardGetCardTypeProviderName: ERROR_FILE_NOT_FOUND 0x00000002"),
                      HasSubstr("forgotten: Other Card"), HasSubstr("no card types")));
}

TEST_F(ClientTest, SetsAnEmptyProviderName) {
    EXPECT_THAT(shellOutput({"provider \"Demo Card\" --set \"A Provider\"",
                             "provider \"Demo Card\" --set \"\""},
                            0),
                AllOf(HasSubstr("provider  A Provider\r\n"), HasSubstr("provider  \r\n")));
}

TEST_F(ClientTest, PutsAndGetsCachedData) {
    const std::string item = kItem;
    EXPECT_THAT(shellOutput({"cache put " + item + " 44656D6F --freshness 3",
                             "cache get " + item + " --freshness 3"},
                            0),
                AllOf(HasSubstr("put into the cache: 4 bytes"), HasSubstr("data      44 65 6D 6F"),
                      HasSubstr("text      Demo"), Not(HasSubstr("error"))));
    EXPECT_THAT(shellOutput({"cache get " + item}, 1),
                HasSubstr("SCardReadCache: SCARD_W_CACHE_ITEM_NOT_FOUND 0x80100070"));
}

TEST_F(ClientTest, WritesTheIconsOfBothSides) {
    const std::filesystem::path file = cardFile().replace_extension(".ico");
    for (const char* reader : {"Remote Reader 0", "Host Reader 0"}) {
        output("icon \"" + std::string(reader) + "\" --file " + file.string());
        std::ifstream icon(file, std::ios::binary);
        // An icon file begins with two reserved bytes, its kind, and how many images it has.
        char head[6] = {};
        icon.read(head, sizeof head);
        EXPECT_EQ(std::string(head, sizeof head), std::string("\0\0\1\0\1\0", 6)) << reader;
        icon.close();
        std::filesystem::remove(file);
    }
}

}  // namespace
}  // namespace tez::test
