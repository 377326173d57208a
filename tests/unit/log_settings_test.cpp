#include <windows.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>
#include <string>

#include "captured_stderr.h"
#include "log/environment.h"
#include "log/log_sink.h"

using namespace tez;
using test::CapturedStderr;
using test::setEnvironment;

namespace {

/// The highest level that is written with a setting of TEZ_PCSC_LOG_LEVEL.
int levelFor(const char* setting) {
    setEnvironment("TEZ_PCSC_LOG_DIR", "");
    setEnvironment("TEZ_PCSC_LOG_LEVEL", setting);
    int highest = 0;
    for (int level = 1; level <= 4; ++level) {
        if (isLogged(static_cast<LogLevel>(level))) {
            EXPECT_EQ(highest, level - 1) << "a level is left out";
            highest = level;
        }
    }
    return highest;
}

std::string contentsOf(const std::string& path) {
    std::ifstream file(path);
    std::ostringstream contents;
    contents << file.rdbuf();
    return contents.str();
}

/// An empty directory for log files, without a separator at its end. An earlier process with this
/// one's id may have left some there.
std::string makeLogDirectory(const std::string& name) {
    char temporary[MAX_PATH];
    GetTempPathA(sizeof(temporary), temporary);
    std::string path = temporary + name + "." + std::to_string(GetCurrentProcessId());
    std::filesystem::remove_all(path);
    std::filesystem::create_directory(path);
    return path;
}

std::string logPathIn(const std::string& directory, const std::string& program) {
    return directory + "/tez-pcsc." + program + "." + std::to_string(GetCurrentProcessId()) +
           ".log";
}

void logWarning(const char* text) {
    logMessage("TEZ", LogLevel::Warning, "WARNING", "someFunction", false, "%s", text);
}

}  // namespace

// The settings are read once in a process, so each value has a test, and a process, of its own.
TEST(LogLevelSetting, ErrorLeavesOutWhatTheLibraryWrites) {
    EXPECT_EQ(levelFor("error"), 1);
}
TEST(LogLevelSetting, WarningIsTwo) {
    EXPECT_EQ(levelFor("warning"), 2);
}
TEST(LogLevelSetting, InfoIsThree) {
    EXPECT_EQ(levelFor("info"), 3);
}
TEST(LogLevelSetting, DebugIsFour) {
    EXPECT_EQ(levelFor("debug"), 4);
}
TEST(LogLevelSetting, CaseDoesNotMatter) {
    EXPECT_EQ(levelFor("DEBUG"), 4);
}
TEST(LogLevelSetting, MixedCaseDoesNotMatter) {
    EXPECT_EQ(levelFor("ErRoR"), 1);
}
TEST(LogLevelSetting, AnUnknownWordIsTwo) {
    EXPECT_EQ(levelFor("verbose"), 2);
}
TEST(LogLevelSetting, ANumberIsNoLevel) {
    EXPECT_EQ(levelFor("4"), 2);
}
TEST(LogLevelSetting, AWordWithABlankIsUnknown) {
    EXPECT_EQ(levelFor("debug "), 2);
}
TEST(LogLevelSetting, UnsetIsTwo) {
    EXPECT_EQ(levelFor(""), 2);
}

/// What the log tells of its own settings, on standard error.
class LogSettingMistake : public testing::Test {
  protected:
    std::string warnings() const {
        logWarning("first");
        logWarning("second");
        std::string found;
        std::istringstream lines(stderr_.text());
        for (std::string line; std::getline(lines, line);) {
            const std::size_t message = line.find("(settings): ");
            if (message != std::string::npos) {
                EXPECT_EQ(line[0], 'W');
                found += line.substr(message + std::strlen("(settings): ")) + '\n';
            }
        }
        return found;
    }

    LogSettingMistake() {
        setEnvironment("TEZ_PCSC_LOG_DIR", "");
        setEnvironment("TEZ_PCSC_LOG_LEVEL", "");
    }

  private:
    CapturedStderr stderr_;
};

TEST_F(LogSettingMistake, IsNoneWithoutSettings) {
    EXPECT_EQ(warnings(), "");
}

TEST_F(LogSettingMistake, IsNoneWithALevelAndAFolder) {
    setEnvironment("TEZ_PCSC_LOG_LEVEL", "Debug");
    setEnvironment("TEZ_PCSC_LOG_DIR", makeLogDirectory("tez-log"));
    EXPECT_EQ(warnings(), "");
}

TEST_F(LogSettingMistake, IsAnUnknownLevel) {
    setEnvironment("TEZ_PCSC_LOG_LEVEL", "debug ");
    EXPECT_EQ(warnings(),
              "TEZ_PCSC_LOG_LEVEL is not error, warning, info or debug but 'debug ': "
              "using warning\n");
}

TEST_F(LogSettingMistake, IsALevelOf32Characters) {
    setEnvironment("TEZ_PCSC_LOG_LEVEL", std::string(32, 'd'));
    EXPECT_EQ(warnings(),
              "TEZ_PCSC_LOG_LEVEL is no level but a text of more than 31 characters: "
              "using warning\n");
}

TEST_F(LogSettingMistake, IsAFolderThatIsNotThere) {
    setEnvironment("TEZ_PCSC_LOG_DIR", "C:\\no such folder");
    EXPECT_EQ(warnings(), "TEZ_PCSC_LOG_DIR: cannot write to '" +
                              logPathIn("C:\\no such folder", "unit_tests.exe") +
                              "': using standard error\n");
}

TEST_F(LogSettingMistake, IsAFolderInQuotes) {
    const std::string quoted = '"' + makeLogDirectory("tez-log") + '"';
    setEnvironment("TEZ_PCSC_LOG_DIR", quoted);
    EXPECT_EQ(warnings(), "TEZ_PCSC_LOG_DIR: cannot write to '" +
                              logPathIn(quoted, "unit_tests.exe") + "': using standard error\n");
}

TEST_F(LogSettingMistake, IsAFolderOf256Characters) {
    setEnvironment("TEZ_PCSC_LOG_DIR", std::string(256, 'd'));
    EXPECT_EQ(warnings(), "TEZ_PCSC_LOG_DIR has more than 255 characters: using standard error\n");
}

TEST_F(LogSettingMistake, IsToldOfEachSetting) {
    setEnvironment("TEZ_PCSC_LOG_LEVEL", "verbose");
    setEnvironment("TEZ_PCSC_LOG_DIR", "C:\\no such folder");
    const std::string told = warnings();
    EXPECT_EQ(std::count(told.begin(), told.end(), '\n'), 2) << told;
}

TEST(LogSettingMistakes, AreToldInTheFileWhenThereIsOne) {
    const std::string directory = makeLogDirectory("tez-log");
    setEnvironment("TEZ_PCSC_LOG_DIR", directory);
    setEnvironment("TEZ_PCSC_LOG_LEVEL", "4");
    logWarning("kept");
    EXPECT_NE(contentsOf(logPathIn(directory, "unit_tests.exe"))
                  .find("TEZ (settings): TEZ_PCSC_LOG_LEVEL is not error, warning, info or debug "
                        "but '4': using warning\n"),
              std::string::npos);
}

TEST(LogLevelSetting, IsReadOnce) {
    EXPECT_EQ(levelFor("info"), 3);
    EXPECT_EQ(levelFor("debug"), 3);
}

TEST(Environment, TakesAValueThatFillsTheBufferWithItsEnd) {
    setEnvironment("TEZ_TEST_VALUE", std::string(31, 'v'));
    char value[32];
    EXPECT_TRUE(readEnvironment("TEZ_TEST_VALUE", value));
    EXPECT_EQ(value, std::string(31, 'v'));
}

TEST(Environment, CountsATooLongValueAsNotSet) {
    setEnvironment("TEZ_TEST_VALUE", std::string(32, 'v'));
    char value[32];
    EXPECT_FALSE(readEnvironment("TEZ_TEST_VALUE", value));
}

TEST(Environment, CountsAnAbsentValueAsNotSet) {
    setEnvironment("TEZ_TEST_VALUE", "");
    char value[32];
    EXPECT_FALSE(readEnvironment("TEZ_TEST_VALUE", value));
}

TEST(LogFile, IsNamedAfterTheHostProgramAndTheProcess) {
    const std::string directory = makeLogDirectory("tez-log");
    setEnvironment("TEZ_PCSC_LOG_DIR", directory);
    logWarning("kept");
    const std::string contents = contentsOf(logPathIn(directory, "unit_tests.exe"));
    EXPECT_EQ(contents.substr(0, 2), "W ");
    EXPECT_NE(contents.find(" TEZ (someFunction): kept\n"), std::string::npos) << contents;
}

TEST(LogFile, IsAppendedTo) {
    const std::string directory = makeLogDirectory("tez-log");
    const std::string path = logPathIn(directory, "unit_tests.exe");
    std::ofstream(path, std::ios::binary) << "from before\n";
    setEnvironment("TEZ_PCSC_LOG_DIR", directory);
    logWarning("kept");
    EXPECT_EQ(contentsOf(path).substr(0, 13), "from before\nW");
}

TEST(LogFile, HoldsEachLineAtOnce) {
    const std::string directory = makeLogDirectory("tez-log");
    setEnvironment("TEZ_PCSC_LOG_DIR", directory);
    const std::string path = logPathIn(directory, "unit_tests.exe");
    logWarning("first");
    const std::size_t afterFirst = contentsOf(path).size();
    logWarning("second");
    EXPECT_GT(afterFirst, 0U);
    EXPECT_NE(contentsOf(path).find(": second\n", afterFirst), std::string::npos);
}

TEST(LogFile, TakesTheLinesInPlaceOfStandardError) {
    setEnvironment("TEZ_PCSC_LOG_DIR", makeLogDirectory("tez-log"));
    const CapturedStderr output;
    logWarning("kept");
    EXPECT_EQ(output.text(), "");
}

TEST(LogFile, IsNamedWithItsDirectoryInFullUpToALongOne) {
    // Long, yet with the file's name below the longest path of the platform.
    const std::string directory = makeLogDirectory("tez-" + std::string(150, 'd'));
    setEnvironment("TEZ_PCSC_LOG_DIR", directory);
    logWarning("kept");
    EXPECT_NE(contentsOf(logPathIn(directory, "unit_tests.exe")), "");
}

TEST(LogFile, GivesWayToStandardErrorWithoutADirectory) {
    setEnvironment("TEZ_PCSC_LOG_DIR", "");
    const CapturedStderr output;
    logWarning("kept");
    EXPECT_NE(output.text().find("TEZ (someFunction): kept\n"), std::string::npos);
}

TEST(LogFile, GivesWayToStandardErrorWhenItCannotBeOpened) {
    setEnvironment("TEZ_PCSC_LOG_DIR", makeLogDirectory("tez-log") + "/absent");
    const CapturedStderr output;
    logWarning("kept");
    EXPECT_NE(output.text().find("TEZ (someFunction): kept\n"), std::string::npos);
}

TEST(LogFile, IsNotTriedAgainAfterAFailure) {
    const std::string directory = makeLogDirectory("tez-log") + "\\later";
    setEnvironment("TEZ_PCSC_LOG_DIR", directory);
    const CapturedStderr output;
    logWarning("first");
    ASSERT_TRUE(CreateDirectoryA(directory.c_str(), nullptr));
    logWarning("second");
    EXPECT_NE(output.text().find(": second\n"), std::string::npos);
}

TEST(LogFile, GivesWayToStandardErrorForADirectoryOf256Characters) {
    // Would be the temporary directory, if it were taken.
    std::string directory = makeLogDirectory("tez-log");
    while (directory.size() < 256) {
        directory += directory.size() % 2 == 0 ? "\\" : ".";
    }
    ASSERT_EQ(directory.size(), 256U);
    setEnvironment("TEZ_PCSC_LOG_DIR", directory);
    const CapturedStderr output;
    logWarning("kept");
    EXPECT_NE(output.text().find("TEZ (someFunction): kept\n"), std::string::npos);
}
