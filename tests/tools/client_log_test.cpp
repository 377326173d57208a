// The client's log command on the library's own logs.
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "client_fixture.h"
#include "log_reader.h"

namespace tez::test {
namespace {

using nlohmann::json;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;
using testing::Optional;

class ClientLogTest : public ClientTest {
  protected:
    /// Runs lines in the shell, and has the log that this has left.
    std::string logOf(const std::vector<std::string>& lines, DWORD exitCode) {
        shellOutput(lines, exitCode);
        stopLogging();
        return onlyLog();
    }

    std::string onlyLog() const {
        std::vector<std::string> logs;
        for (const auto& entry : std::filesystem::directory_iterator(folder_)) {
            logs.push_back("\"" + entry.path().string() + "\"");
        }
        EXPECT_EQ(logs.size(), 1U);
        return logs.at(0);
    }

    static void stopLogging() {
        setEnvironment("TEZ_PCSC_LOG_DIR", "");
        setEnvironment("TEZ_PCSC_LOG_LEVEL", "");
    }

    const std::filesystem::path folder_ = logToFreshDirectory();
};

TEST_F(ClientLogTest, TellsWhatCallsDidAndWhichSideAnswered) {
    const std::string log = logOf({"connect 0", "apdu 0 00A40400", "disconnect",
                                   "apdu \"Host Reader 0\" 00A40400", "status Nope"},
                                  1);
    const json calls = json::parse(output("log " + log + " --json")).at("calls");
    std::vector<std::string> list;
    for (const json& call : calls) {
        if (call.at("call") != "SCardListReadersA" && call.at("call") != "SCardFreeMemory") {
            list.push_back(call.at("call").get<std::string>() + "|" +
                           call.at("side").get<std::string>() + "|" +
                           call.at("subject").get<std::string>() + "|" +
                           call.at("result").at("name").get<std::string>());
        }
    }
    EXPECT_THAT(list, testing::ElementsAre("SCardEstablishContext|||SCARD_S_SUCCESS",
                                           "SCardConnectA|remote|Remote Reader 0|SCARD_S_SUCCESS",
                                           "SCardTransmit|remote|Remote Reader 0|SCARD_S_SUCCESS",
                                           "SCardDisconnect|remote|Remote Reader 0|SCARD_S_SUCCESS",
                                           "SCardConnectA|host|Host Reader 0|SCARD_S_SUCCESS",
                                           "SCardTransmit|host|Host Reader 0|SCARD_S_SUCCESS",
                                           "SCardDisconnect|host|Host Reader 0|SCARD_S_SUCCESS",
                                           "SCardConnectA|remote|Nope|SCARD_E_UNKNOWN_READER",
                                           "SCardReleaseContext|||SCARD_S_SUCCESS"));
}

TEST_F(ClientLogTest, ShowsATableOfWhatIsWanted) {
    const std::string log = logOf({"status", "status Nope"}, 1);
    EXPECT_THAT(output("log " + log),
                AllOf(HasSubstr("time (UTC)"), HasSubstr("SCardListReadersA"),
                      HasSubstr("SCARD_E_NO_SMARTCARD 0x8010000C, no card in the reader")));
    EXPECT_THAT(output("log " + log + " --failures --call connect --lines"),
                AllOf(Not(HasSubstr("SCardListReadersA  ")), HasSubstr("2 shown"),
                      HasSubstr("D (SCardConnectA): SCARD_CONNECT RV: 0x80100009")));
    EXPECT_THAT(output("log " + log + " --slow 3600000"), HasSubstr("0 shown"));
    EXPECT_THAT(output("log " + log + " --thread 4294967295"), HasSubstr("0 shown"));
    EXPECT_EQ(outputOf("log \"no such file\"", 1), "");
    EXPECT_EQ(outputOf("log", 2), "");
}

TEST_F(ClientLogTest, MergesTheLogsOfSeveralProcesses) {
    output("readers");
    output("readers");
    stopLogging();
    std::string files;
    for (const auto& entry : std::filesystem::directory_iterator(folder_)) {
        files += " \"" + entry.path().string() + "\"";
    }
    const json calls = json::parse(output("log" + files + " --call Establish --json")).at("calls");
    ASSERT_EQ(calls.size(), 2U);
    EXPECT_NE(calls.at(0).at("process"), calls.at(1).at("process"));
    EXPECT_LT(calls.at(0).at("time"), calls.at(1).at("time"));
}

TEST_F(ClientLogTest, ShowsCallsAsTheyHappen) {
    ChildProcess shell("pcsc-client.exe", "shell");
    shell.writeLine("readers");
    lineWith(shell, "Host Reader 0");
    stopLogging();
    ChildProcess follower("pcsc-client.exe", "log " + onlyLog() + " --follow --call connect");
    lineWith(follower, "time (UTC)");
    shell.writeLine("connect \"Remote Reader 0\"");
    EXPECT_THAT(lineWith(follower, "SCardConnectA"), HasSubstr("Remote Reader 0"));
    shell.writeLine("connect \"Remote Reader 1\"");
    EXPECT_THAT(lineWith(follower, "Remote Reader 1"), HasSubstr("SCARD_E_NO_SMARTCARD"));
    EXPECT_TRUE(follower.isRunning());
}

TEST_F(ClientLogTest, WritesATimeline) {
    const std::string log = logOf({"readers"}, 0);
    const std::filesystem::path page = folder_ / "page.html";
    EXPECT_THAT(output("log " + log + " --html \"" + page.string() + "\""),
                HasSubstr("calls written to"));
    std::ifstream file(page);
    std::string first;
    std::getline(file, first);
    EXPECT_EQ(first, "<!DOCTYPE html>");
    file.close();
    EXPECT_EQ(outputOf("log " + log + " --html C:\\no\\such\\folder\\page.html", 1), "");
}

}  // namespace
}  // namespace tez::test
