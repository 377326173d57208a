// The simulator program's commands, from its console and from a script.
#include <chrono>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "patience.h"
#include "simulator_process.h"

namespace tez::test {
namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;
using testing::Optional;

TEST(SimulatorProgramTest, ChangesItsReadersWhenToldTo) {
    SimulatorProcess simulator;
    simulator.tell("insert Remote Reader 1");
    simulator.tell("remove Remote Reader 0");
    simulator.tell("add Another Reader");
    simulator.tell("remove-reader Remote Reader 1");
    simulator.tell("readers");
    for (const char* line :
         {"card inserted into Remote Reader 1", "card removed from Remote Reader 0",
          "reader added: Another Reader", "reader removed: Remote Reader 1",
          "Remote Reader 0: empty", "Another Reader: empty"}) {
        simulator.waitFor(line);
    }
    EXPECT_THAT(simulator.quit(), Optional(0U));
    EXPECT_EQ(simulator.count("Remote Reader 1: "), 0U);
}

TEST(SimulatorProgramTest, StopsAndServesAndAnnouncesAnotherVersion) {
    SimulatorProcess simulator("--protocol 1.2");
    simulator.waitFor("protocol 1.2");
    simulator.tell("stop-serving");
    simulator.waitFor("stopped serving");
    simulator.tell("version 1.1");
    simulator.waitFor("protocol 1.1");
    simulator.tell("serve");
    simulator.waitFor("serving", 3);
    ChildProcess client("pcsc-client.exe", "readers");
    client.readRest();
    // What the handshake itself tells, not the answer to the command above.
    simulator.waitFor("option FF FF FF FF, protocol 1.1");
    EXPECT_THAT(simulator.quit(), Optional(0U));
}

TEST(SimulatorProgramTest, ListsItsCommands) {
    SimulatorProcess simulator;
    simulator.tell("help");
    for (const char* command :
         {"readers ", "insert READER", "remove READER", "add READER", "remove-reader READER",
          "serve ", "stop-serving ", "version MAJOR.MINOR", "help ", "quit "}) {
        simulator.waitFor(command);
    }
    EXPECT_THAT(simulator.quit(), Optional(0U));
}

TEST(SimulatorProgramTest, FailsAtItsEndWhenACommandHasFailed) {
    SimulatorProcess simulator;
    simulator.tell("insert No Such Reader");
    simulator.tell("serve");
    simulator.tell("help me");
    simulator.tell("no-such-command");
    simulator.waitFor("error: ", 4);
    EXPECT_THAT(simulator.quit(), Optional(1U));
}

/// Runs the simulator with arguments that it does not start with. @return its exit code.
std::optional<DWORD> exitCodeWith(const std::string& arguments) {
    ChildProcess simulator("pcscd-sim.exe", arguments);
    EXPECT_EQ(simulator.readLine(), std::nullopt) << arguments;
    return simulator.waitForEnd(kPatience);
}

TEST(SimulatorProgramTest, RefusesReadersThatCannotBe) {
    const std::string longest(127, 'R');
    for (const std::string& arguments :
         {std::string("--reader \"\""), "--reader " + longest + "R", "--card " + longest + "R",
          std::string("--reader A --reader B --reader A"), std::string("--card A --card A")}) {
        EXPECT_THAT(exitCodeWith(arguments), Optional(2U)) << arguments;
    }
    SimulatorProcess simulator("--card A --reader A --reader " + longest);
    simulator.tell("add " + longest + "R");
    simulator.waitFor("error: longer than the 127 bytes");
    simulator.tell("readers");
    simulator.waitFor("A: card");
    simulator.waitFor(longest + ": empty");
    EXPECT_THAT(simulator.quit(), Optional(1U));
}

TEST(SimulatorProgramTest, TakesBackWhatAProgramHeldThatHasDied) {
    SimulatorProcess simulator;
    ChildProcess watch("pcsc-client.exe", "watch \"Remote Reader 0\" --changes 2");
    const auto line = [&watch] { return watch.readLine().value_or("ended"); };
    while (line().find("watching") == std::string::npos) {
    }
    ChildProcess holder("pcsc-client.exe", "shell");
    holder.writeLine("connect \"Remote Reader 0\"");
    EXPECT_THAT(line(), HasSubstr("in use"));
    const auto end = std::chrono::steady_clock::now();
    holder.kill();
    EXPECT_THAT(line(), AllOf(HasSubstr("card present"), Not(HasSubstr("in use"))));
    EXPECT_LT(std::chrono::steady_clock::now() - end, std::chrono::seconds(5));
    EXPECT_THAT(watch.waitForEnd(kPatience), Optional(0U));
}

TEST(SimulatorProgramTest, FailsWithoutItsScript) {
    const std::filesystem::path script = std::filesystem::temp_directory_path() /
                                         ("locked-" + std::to_string(GetCurrentProcessId()));
    {
        const UniqueHandle keptToItself(CreateFileW(script.c_str(), GENERIC_WRITE, 0, nullptr,
                                                    CREATE_ALWAYS, FILE_FLAG_DELETE_ON_CLOSE,
                                                    nullptr));
        EXPECT_THAT(exitCodeWith("--script " + script.string()), Optional(1U));
    }
    EXPECT_THAT(exitCodeWith("--script " + script.string()), Optional(1U));
}

/// As a process that is started has to be told it.
std::string inCodePage(const std::wstring& text) {
    char narrow[MAX_PATH] = {};
    WideCharToMultiByte(CP_ACP, 0, text.c_str(), -1, narrow, sizeof narrow, nullptr, nullptr);
    return narrow;
}

TEST(SimulatorProgramTest, RunsAScriptWhoseNameIsNotAscii) {
    const std::filesystem::path script = std::filesystem::temp_directory_path() /
                                         (L"scr\u00EDpt-" + std::to_wstring(GetCurrentProcessId()));
    std::ofstream(script) << "insert Remote Reader 1\n";
    {
        SimulatorProcess simulator("--script " + inCodePage(script.wstring()));
        simulator.waitFor("card inserted into Remote Reader 1");
        EXPECT_THAT(simulator.quit(), Optional(0U));
    }
    std::filesystem::remove(script);
}

TEST(SimulatorProgramTest, RunsAScriptFirst) {
    const std::filesystem::path script = std::filesystem::temp_directory_path() /
                                         ("script-" + std::to_string(GetCurrentProcessId()));
    std::ofstream(script) << "# two cards\n\ninsert Remote Reader 1\r\nreaders\n";
    {
        SimulatorProcess simulator("--script " + script.string());
        simulator.waitFor("Remote Reader 1: card");
        EXPECT_THAT(simulator.quit(), Optional(0U));
    }
    std::filesystem::remove(script);
}

}  // namespace
}  // namespace tez::test
