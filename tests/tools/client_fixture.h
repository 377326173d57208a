#pragma once

#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdexcept>
#include <string>
#include <vector>

#include "environment.h"
#include "patience.h"
#include "simulator_process.h"

namespace tez::test {

inline constexpr const char* kDemoAtrText = "3B 89 01 44 45 4D 4F 20 43 41 52 44 BF";

/// Runs the client, beside the stand-in's reader on the host's side.
class ClientFixture : public testing::Test {
  public:
    ClientFixture(const ClientFixture&) = delete;
    ClientFixture& operator=(const ClientFixture&) = delete;

  protected:
    ClientFixture() {
        std::ofstream(cardFile()).close();
        setEnvironment("TEZ_STAND_IN_CARD_FILE", cardFile().string());
    }
    ~ClientFixture() override { std::filesystem::remove(cardFile()); }

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
        EXPECT_THAT(client.waitForEnd(kPatience), testing::Optional(exitCode)) << command;
        return text;
    }

    /// What commands print that share one process, whose exit code tells whether one has failed.
    static std::string shellOutput(const std::vector<std::string>& commands, DWORD exitCode) {
        ChildProcess client("pcsc-client.exe", "shell");
        std::string lines;
        for (const std::string& command : commands) {
            lines += command + "\n";
        }
        client.writeLine(lines + "quit");  // in one piece: the shell may end before the last one
        std::string text = client.readRest();
        EXPECT_THAT(client.waitForEnd(kPatience), testing::Optional(exitCode)) << text;
        return text;
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
};

/// With the simulator program on the remote side.
class ClientTest : public ClientFixture {
  protected:
    /// A watch that waits without a limit, on the remote side at least.
    void waitUntilItWaits(ChildProcess& watch) const {
        lineWith(watch, "watching");
        // One request for the first states, one for the wait.
        simulator.waitFor("GET_STATUS_CHANGE", 2);
    }

    SimulatorProcess simulator;
};

}  // namespace tez::test
