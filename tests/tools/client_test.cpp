// The command-line client, with the simulator program on the remote side and the stand-in's own
// reader on the host's. What a command prints is looked at as a person sees it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "client_with_own_daemon.h"
#include "daemon_records.h"

namespace tez::test {
namespace {

using testing::AllOf;
using testing::AnyOf;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;
using testing::Optional;
using testing::StartsWith;

constexpr const char* kItem = "00112233-4455-6677-8899-AABBCCDDEEFF \"an item\"";

TEST_F(ClientTest, ListsTheReadersOfBothSides) {
    EXPECT_THAT(output("readers --groups"), AllOf(HasSubstr("[0] Remote Reader 0  (remote)"),
                                                  HasSubstr("[1] Remote Reader 1  (remote)"),
                                                  HasSubstr("[2] Host Reader 0  (host)"),
                                                  HasSubstr("group SCard$DefaultReaders")));
}

TEST_F(ClientTest, TellsOfAReaderThatBothSidesHave) {
    simulator.tell("add Host Reader 0");
    simulator.waitFor("reader added: Host Reader 0");
    EXPECT_THAT(output("readers"), AllOf(HasSubstr("[2] Host Reader 0  (both)"),
                                         HasSubstr("[3] Host Reader 0  (both)")));
}

TEST_F(ClientWithOwnDaemon, TellsTheSidesOfAllReadersThatTheLibraryLists) {
    setEnvironment("TEZ_PCSC_STANDARD_CALLS", "1");
    Bytes names;
    for (int reader = 100; reader < 300; ++reader) {
        const std::string name = "Remote Reader " + std::to_string(reader);
        names.insert(names.end(), name.begin(), name.end());
        names.push_back(0);
    }
    names.push_back(0);
    daemon.on(Command::kListReaders, answering<ListLayout>(names));
    EXPECT_THAT(output("readers"), AllOf(HasSubstr("[0] Remote Reader 100  (remote)"),
                                         HasSubstr("[199] Remote Reader 299  (remote)")));
}

TEST_F(ClientTest, TellsThatThereIsNoReaderOfANumber) {
    EXPECT_THAT(shellOutput({"status 7", "apdu 99999999999999999999 00A40400"}, 1),
                AllOf(HasSubstr("error: there is no reader 7, they are 0 to 2"),
                      HasSubstr("error: there is no reader 99999999999999999999")));
}

TEST_F(ClientTest, SuggestsACommandForAMistypedOne) {
    EXPECT_THAT(shellOutput({"reders"}, 1),
                HasSubstr("unknown command: reders; did you mean readers?"));
    EXPECT_THAT(shellOutput({"help atributes", "stat"}, 1),
                AllOf(HasSubstr("error: unknown command: atributes; did you mean attributes?"),
                      HasSubstr("unknown command: stat; did you mean status?")));
    EXPECT_THAT(shellOutput({"xyzzy"}, 1), HasSubstr("unknown command: xyzzy\r\n"));
    EXPECT_EQ(outputOf("reders", 2), "");
}

TEST_F(ClientTest, TellsItsVersion) {
    EXPECT_THAT(output("--version"), MatchesRegex("pcsc-client \\d+\\.\\d+\\.\\d+\r\n"));
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

TEST_F(ClientTest, EndsWhenNobodyTakesItsOutput) {
    ChildProcess watch("pcsc-client.exe", "watch");
    waitUntilItWaits(watch);
    watch.closeOutput();
    simulator.tell("insert Remote Reader 1");
    EXPECT_THAT(watch.waitForEnd(kPatience), Optional(1U));
    ChildProcess jsonWatch("pcsc-client.exe", "watch --json");
    lineWith(jsonWatch, "watching");
    jsonWatch.closeOutput();
    simulator.tell("remove Remote Reader 1");
    EXPECT_THAT(jsonWatch.waitForEnd(kPatience), Optional(1U));
    ChildProcess shell("pcsc-client.exe", "shell");
    shell.closeOutput();
    shell.writeLine("readers --json\nquit");
    EXPECT_THAT(shell.waitForEnd(kPatience), Optional(1U));
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

TEST_F(ClientTest, ReadsThePinFromStandardInput) {
    const std::string text = shellOutput({"verify 0", "1234", "verify 0 --json", "5678"}, 1);
    EXPECT_THAT(text,
                AllOf(HasSubstr("command   00 20 00 01 04 ** ** ** **"),
                      HasSubstr("{\"exchanges\":[{\"command\":\"00 20 00 01 04 ** ** ** **\"")));
    EXPECT_THAT(text, Not(AnyOf(HasSubstr("1234"), HasSubstr("5678"))));
    EXPECT_EQ(outputOf("verify 0 1234", 2), "");
}

TEST_F(ClientTest, RefusesAPinThatNoCommandHolds) {
    const std::string longest(255, '1');
    EXPECT_THAT(shellOutput({"verify 0", longest + "1", "verify 0", longest, "verify 0", ""}, 1),
                AllOf(HasSubstr("error: the PIN is longer than the 255 bytes"),
                      HasSubstr("command   00 20 00 01 FF ** "),
                      HasSubstr("error: no PIN was given on standard input")));
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
    setEnvironment("TEZ_PCSC_ENABLE_ALL_CALLS_REDIRECTION", "1");
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
