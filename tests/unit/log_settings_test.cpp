#include <windows.h>

#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "environment.h"
#include "log/environment.h"
#include "log/log_sink.h"
#include "log_matchers.h"
#include "stdio_spy.h"

using namespace tez;
using test::FreshLog;
using test::LogLine;
using test::LogReader;
using test::logToFreshDirectory;
using test::setEnvironment;
using test::StdioSpy;
using testing::AllOf;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using testing::StartsWith;

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

void logWarning(const char* text) {
    logMessage("TEZ", LogLevel::Warning, "WARNING", "someFunction", false, "%s", text);
}

}  // namespace

struct LevelSetting {
    const char* word;
    int level;
};

void PrintTo(const LevelSetting& setting, std::ostream* stream) {
    *stream << "'" << setting.word << "'";
}

class LogLevelSetting : public testing::TestWithParam<LevelSetting> {};

// The settings are read once in a process, so each value has a test, and a process, of its own.
TEST_P(LogLevelSetting, SaysWhatIsWritten) {
    EXPECT_EQ(levelFor(GetParam().word), GetParam().level);
}

INSTANTIATE_TEST_SUITE_P(Words, LogLevelSetting,
                         testing::Values(LevelSetting{"error", 1}, LevelSetting{"warning", 2},
                                         LevelSetting{"info", 3}, LevelSetting{"debug", 4},
                                         LevelSetting{"DEBUG", 4}, LevelSetting{"ErRoR", 1},
                                         LevelSetting{"verbose", 2}, LevelSetting{"4", 2},
                                         LevelSetting{"debug ", 2}, LevelSetting{"", 2}));

/// What the log tells of its own settings, on standard error.
class LogSettingMistake : public testing::Test {
  protected:
    std::vector<std::string> warnings() const {
        logWarning("first");
        logWarning("second");
        std::vector<std::string> found;
        for (const test::LogEntry& entry : test::parseLog(stdio_.standardError())) {
            if (entry.function == "settings") {
                EXPECT_EQ(entry.level, 'W');
                found.push_back(entry.message);
            }
        }
        return found;
    }

    LogSettingMistake() {
        setEnvironment("TEZ_PCSC_LOG_DIR", "");
        setEnvironment("TEZ_PCSC_LOG_LEVEL", "");
    }

  private:
    StdioSpy stdio_{GetModuleHandleA(nullptr)};
};

TEST_F(LogSettingMistake, IsNoneWithoutSettings) {
    EXPECT_THAT(warnings(), IsEmpty());
}

TEST_F(LogSettingMistake, IsAnUnknownLevel) {
    setEnvironment("TEZ_PCSC_LOG_LEVEL", "debug ");
    EXPECT_THAT(warnings(),
                ElementsAre("TEZ_PCSC_LOG_LEVEL is not error, warning, info or debug but 'debug ': "
                            "using warning"));
}

TEST_F(LogSettingMistake, IsALevelOf32Characters) {
    setEnvironment("TEZ_PCSC_LOG_LEVEL", std::string(32, 'd'));
    EXPECT_THAT(warnings(),
                ElementsAre("TEZ_PCSC_LOG_LEVEL is no level but a text of more than 31 characters: "
                            "using warning"));
}

/// A folder that cannot be written to.
class LogFolderMistake : public LogSettingMistake,
                         public testing::WithParamInterface<std::string> {};

TEST_P(LogFolderMistake, IsToldWithTheFilesName) {
    setEnvironment("TEZ_PCSC_LOG_DIR", GetParam());
    EXPECT_THAT(warnings(), ElementsAre("TEZ_PCSC_LOG_DIR: cannot write to '" +
                                        LogReader(GetParam()).path() + "': using standard error"));
}

INSTANTIATE_TEST_SUITE_P(Folders, LogFolderMistake,
                         testing::Values(R"(C:\no such folder)", R"("C:\Windows")"));

TEST_F(LogSettingMistake, IsAFolderOf256Characters) {
    setEnvironment("TEZ_PCSC_LOG_DIR", std::string(256, 'd'));
    EXPECT_THAT(warnings(),
                ElementsAre("TEZ_PCSC_LOG_DIR has more than 255 characters: using standard error"));
}

TEST_F(LogSettingMistake, IsToldOfEachSetting) {
    setEnvironment("TEZ_PCSC_LOG_LEVEL", "verbose");
    setEnvironment("TEZ_PCSC_LOG_DIR", "C:\\no such folder");
    EXPECT_THAT(warnings(), SizeIs(2));
}

TEST(LogSettingMistakes, AreNoneWithALevelAndAFolder) {
    const FreshLog log;
    setEnvironment("TEZ_PCSC_LOG_LEVEL", "Debug");
    logWarning("kept");
    EXPECT_THAT(log.entries(), ElementsAre(LogLine('W', "someFunction", "kept")));
}

TEST(LogSettingMistakes, AreToldInTheFileWhenThereIsOne) {
    const FreshLog log;
    setEnvironment("TEZ_PCSC_LOG_LEVEL", "4");
    logWarning("kept");
    EXPECT_THAT(log.messages("settings"),
                ElementsAre("TEZ_PCSC_LOG_LEVEL is not error, warning, info or debug but '4': "
                            "using warning"));
}

TEST(LogLevelSettings, AreReadOnce) {
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
    const FreshLog log;
    logWarning("kept");
    EXPECT_THAT(log.path(), EndsWith("/tez-pcsc.unit_tests.exe." +
                                     std::to_string(GetCurrentProcessId()) + ".log"));
    EXPECT_THAT(log.entries(), ElementsAre(LogLine('W', "someFunction", "kept")));
}

TEST(LogFile, IsAppendedTo) {
    const FreshLog log;
    std::ofstream(log.path(), std::ios::binary) << "from before\n";
    logWarning("kept");
    EXPECT_THAT(log.text(), StartsWith("from before\nW"));
}

TEST(LogFile, HoldsEachLineAtOnce) {
    const FreshLog log;
    logWarning("first");
    EXPECT_THAT(log.messages("someFunction"), ElementsAre("first"));
    logWarning("second");
    EXPECT_THAT(log.messages("someFunction"), ElementsAre("first", "second"));
}

TEST(LogFile, TakesTheLinesInPlaceOfStandardError) {
    const FreshLog log;
    const StdioSpy stdio(GetModuleHandleA(nullptr));
    logWarning("kept");
    EXPECT_EQ(stdio.standardError(), "");
}

TEST(LogFile, IsNamedWithItsDirectoryInFullUpToALongOne) {
    // Long, yet with the file's name below the longest path of the platform.
    const std::string directory = logToFreshDirectory() + "\\" + std::string(180, 'd');
    ASSERT_TRUE(CreateDirectoryA(directory.c_str(), nullptr));
    setEnvironment("TEZ_PCSC_LOG_DIR", directory);
    logWarning("kept");
    EXPECT_NE(LogReader(directory).text(), "");
}

/// What standard error gets of two warnings, with a log directory that is made between them if it
/// can be.
std::string standardErrorInsteadOf(const std::string& directory) {
    setEnvironment("TEZ_PCSC_LOG_DIR", directory);
    const StdioSpy stdio(GetModuleHandleA(nullptr));
    logWarning("first");
    CreateDirectoryA(directory.c_str(), nullptr);
    logWarning("second");
    return stdio.standardError();
}

TEST(LogFile, GivesWayToStandardErrorWithoutADirectory) {
    EXPECT_THAT(standardErrorInsteadOf(""), HasSubstr("TEZ (someFunction): first\n"));
}

TEST(LogFile, IsNotTriedAgainAfterAFailure) {
    const std::string directory = logToFreshDirectory() + "\\later";
    const std::string text = standardErrorInsteadOf(directory);
    EXPECT_TRUE(std::filesystem::exists(directory));
    EXPECT_THAT(text, AllOf(HasSubstr(": first\n"), HasSubstr(": second\n")));
}

TEST(LogFile, GivesWayToStandardErrorForADirectoryOf256Characters) {
    // Would be a directory that there is, if it were taken.
    std::string directory = logToFreshDirectory();
    while (directory.size() < 256) {
        directory += directory.size() % 2 == 0 ? "\\" : ".";
    }
    ASSERT_EQ(directory.size(), 256U);
    EXPECT_THAT(standardErrorInsteadOf(directory), HasSubstr("TEZ (someFunction): first\n"));
}
