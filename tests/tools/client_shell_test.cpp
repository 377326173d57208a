// The client's shell: how lines are read, and the card that stays open between them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "client_fixture.h"

namespace tez::test {
namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;
using testing::Optional;

TEST_F(ClientTest, GoesOnInTheShellAfterAFailure) {
    // Bytes that are not UTF-8 name no file.
    EXPECT_THAT(shellOutput({"icon 0 --file \"\xFF.ico\"", "readers"}, 1),
                AllOf(HasSubstr("error: "), HasSubstr("[0] Remote Reader 0")));
}

TEST_F(ClientTest, TakesCommentsAndQuotesInTheShell) {
    const std::string text =
        shellOutput({"# readers --groups", "status \"Remote Reader 1\" # an empty one", "   ",
                     "cards --atr \"3B 00\"", R"(provider "with \"quotes\"")"},
                    1);
    EXPECT_THAT(text, AllOf(Not(HasSubstr("group ")), HasSubstr("no card"),
                            HasSubstr("no card types"), Not(HasSubstr("unknown command")),
                            HasSubstr("SCardGetCardTypeProviderName: ")));
    EXPECT_THAT(shellOutput({"status \"Remote Reader 1"}, 1),
                HasSubstr("error: the quotes are not closed"));
}

TEST_F(ClientTest, EndsTheShellAtAUsageErrorWhoseNextLineMayBeAPin) {
    for (const char* line : {"verify", "verfy 0", "verify \"0", "verify 0 --aid XYZ",
                             "verify 0 --reference 999", "verify 0 --no-such-option"}) {
        EXPECT_THAT(shellOutput({line, "1234"}, 1),
                    AllOf(HasSubstr("the shell ends here"), Not(HasSubstr("1234"))))
            << line;
    }
}

TEST_F(ClientTest, EndsTheShellWithEitherWord) {
    for (const char* word : {"quit", "exit"}) {
        ChildProcess client("pcsc-client.exe", "shell");
        client.writeLine(word);
        client.writeLine("readers");
        EXPECT_THAT(client.readRest(), Not(HasSubstr("[0]"))) << word;
        EXPECT_THAT(client.waitForEnd(kPatience), Optional(0U)) << word;
    }
}

TEST_F(ClientTest, ListsItsCommandsAndTellsAboutOne) {
    EXPECT_THAT(shellOutput({"help", "help cache put"}, 0),
                AllOf(HasSubstr("disconnect "), HasSubstr("exit "), HasSubstr("Store an item"),
                      HasSubstr("counter of the card's changes")));
    EXPECT_THAT(output("help watch"), HasSubstr("--changes"));
    EXPECT_EQ(outputOf("help no-such-command", 1), "");
}

TEST_F(ClientTest, KeepsTheOpenCardWhenAnotherCannotBeOpened) {
    EXPECT_THAT(shellOutput({"connect 0", "connect 1", "disconnect"}, 1),
                AllOf(HasSubstr("connected to Remote Reader 0, protocol T=1"),
                      HasSubstr("error: SCardConnect: SCARD_E_NO_SMARTCARD"),
                      HasSubstr("\r\ndisconnected")));
}

TEST_F(ClientTest, OpensACardAgainWhenTheDaemonHasForgottenIt) {
    ChildProcess client("pcsc-client.exe", "shell");
    client.writeLine("connect 0");
    lineWith(client, "connected to Remote Reader 0");
    simulator.tell("stop-serving");
    simulator.waitFor("stopped serving");
    simulator.tell("serve");
    simulator.waitFor("serving", 3);
    // The library has noticed when it has the daemon's readers again.
    std::string line;
    while (line.find("Remote Reader 0") == std::string::npos) {
        client.writeLine("readers");
        line = lineWith(client, "[0] ");
    }
    client.writeLine("connect \"Remote Reader 0\"");
    client.writeLine("apdu \"Remote Reader 0\" 00A4040008F054455A44454D4F");
    client.writeLine("quit");
    EXPECT_THAT(client.readRest(),
                AllOf(HasSubstr("connected to Remote Reader 0"), HasSubstr("9000 success")));
    EXPECT_THAT(client.waitForEnd(kPatience), Optional(0U));
}

}  // namespace
}  // namespace tez::test
