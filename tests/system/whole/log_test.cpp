// The log of the built library: where it goes, which lines are in it, and what they look like.
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <numeric>
#include <regex>
#include <set>
#include <thread>

#include "stdio_spy.h"
#include "system_test.h"

namespace tez::test {
namespace {

using testing::AllOf;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::EndsWith;
using testing::Field;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::Not;
using testing::SizeIs;
using testing::StartsWith;

constexpr const char* kLevel = "TEZ_PCSC_LOG_LEVEL";
constexpr const char* kDirectory = "TEZ_PCSC_LOG_DIR";

class LogTest : public SystemTest {
  protected:
    LogTest() { leaveLogLinesInPieces(); }

    /// A call that writes two DEBUG lines and nothing else.
    static void logTwoLines() { SCardIsValidContext(0x12AB); }

    /// A WARNING line, beside some DEBUG lines.
    static void logAWarning() {
        DWORD length = 0;
        const ImportPatch<decltype(::LoadLibraryA)> load(libraryModule(), "KERNEL32.dll",
                                                         "LoadLibraryA", [](LPCSTR) -> HMODULE {
                                                             SetLastError(ERROR_SUCCESS);
                                                             return nullptr;
                                                         });
        SCardListReadersA(0, nullptr, nullptr, &length);
    }

    std::string directory() const { return log().path().substr(0, log().path().rfind('/')); }

    /// The level letters in the log, in the order in which they appear first.
    std::string levels() const {
        std::string letters;
        for (const LogEntry& entry : log().entries()) {
            if (letters.find(entry.level) == std::string::npos) {
                letters += entry.level;
            }
        }
        return letters;
    }

    /// A line of each level that the library writes, all on this thread: the host's library cannot
    /// be loaded, then it is.
    static void logAtEveryLevel() {
        logAWarning();
        DWORD length = 0;
        SCardListReadersA(0, nullptr, nullptr, &length);
    }
};

struct LevelSetting {
    std::string value;
    std::string letters;  // the levels in the log, in the order in which they appear first
};

void PrintTo(const LevelSetting& setting, std::ostream* stream) {
    *stream << textInName(setting.value);
}

class LogLevelTest : public LogTest, public testing::WithParamInterface<LevelSetting> {};

TEST_P(LogLevelTest, LeavesOutWhatIsAboveIt) {
    setEnvironment(kLevel, GetParam().value);
    logAtEveryLevel();
    EXPECT_EQ(levels(), GetParam().letters);
}

INSTANTIATE_TEST_SUITE_P(LogTest, LogLevelTest,
                         testing::Values(LevelSetting{"error", ""}, LevelSetting{"warning", "W"},
                                         LevelSetting{"info", "WI"}, LevelSetting{"debug", "DWI"},
                                         LevelSetting{"DEBUG", "DWI"}, LevelSetting{"Info", "WI"},
                                         LevelSetting{"verbose", "W"}, LevelSetting{"", "W"},
                                         LevelSetting{"4", "W"},
                                         LevelSetting{"debug" + std::string(27, ' '), "W"}));

TEST_F(LogTest, AtLevelWarningATransportFailureIsWrittenButNoParameters) {
    setEnvironment(kLevel, "warning");
    const SCARDCONTEXT context = establishWithDaemon();
    {
        const ImportPatch<decltype(::CreateFileA)> create(
            libraryModule(), "KERNEL32.dll", "CreateFileA",
            [](LPCSTR, DWORD, DWORD, LPSECURITY_ATTRIBUTES, DWORD, DWORD, HANDLE) -> HANDLE {
                SetLastError(ERROR_FILE_NOT_FOUND);
                return INVALID_HANDLE_VALUE;
            });
        EXPECT_THAT(listReaders(context), ElementsAre(kHostReader));
    }
    EXPECT_THAT(log().entries(),
                ElementsAre(LogLine('W', "establishRemoteContext", "Failed to send header")));
}

TEST_F(LogTest, SettingsAreReadOnce) {
    logTwoLines();
    setEnvironment(kLevel, "warning");
    setEnvironment(kDirectory, "");
    logTwoLines();
    EXPECT_THAT(log().entries(), SizeIs(4));
}

TEST_F(LogTest, TheFileIsNamedAfterProgramAndProcess) {
    logTwoLines();
    std::vector<std::string> names;
    for (const auto& file : std::filesystem::directory_iterator(directory())) {
        names.push_back(file.path().filename().string());
    }
    EXPECT_THAT(names, ElementsAre("tez-pcsc.system_tests.exe." +
                                   std::to_string(GetCurrentProcessId()) + ".log"));
}

TEST_F(LogTest, TheFileIsAppendedTo) {
    { std::ofstream(log().path()) << "kept\n"; }
    logTwoLines();
    EXPECT_THAT(log().text(), StartsWith("kept"));
    EXPECT_THAT(log().entries(), SizeIs(3));
}

/// What a process of another name and number makes of its log directory.
class LogFileNameTest : public LogTest {
  protected:
    /// The path that the library opens.
    static std::string pathFor(const std::string& logDirectory, const std::string& program) {
        setEnvironment(kDirectory, logDirectory);
        const StdioSpy stdio(libraryModule());
        const ImportPatch<decltype(::GetCurrentProcessId)> process(
            libraryModule(), "KERNEL32.dll", "GetCurrentProcessId", []() -> DWORD { return 42; });
        const ImportPatch<decltype(::GetModuleFileNameA)> name(
            libraryModule(), "KERNEL32.dll", "GetModuleFileNameA",
            [&](HMODULE module, LPSTR path, DWORD size) -> DWORD {
                EXPECT_EQ(module, nullptr);
                EXPECT_EQ(size, 1024U);
                const std::size_t copied = program.copy(path, size);
                if (copied < size) {
                    path[copied] = '\0';
                }
                return static_cast<DWORD>(copied);
            });
        logTwoLines();
        EXPECT_THAT(stdio.opens(), SizeIs(1));
        EXPECT_EQ(stdio.opens().at(0).mode, "a");
        return stdio.opens().at(0).path;
    }
};

TEST_F(LogFileNameTest, HasDirectoryProgramAndProcess) {
    EXPECT_EQ(pathFor(R"(C:\logs)", R"(C:\app\host.exe)"), R"(C:\logs/tez-pcsc.host.exe.42.log)");
}

TEST_F(LogFileNameTest, KeepsACharacterWhoseSecondByteIsThatOfABackslash) {
    const ImportPatch<decltype(::IsDBCSLeadByte)> codePage(
        libraryModule(), "KERNEL32.dll", "IsDBCSLeadByte",
        [](BYTE byte) -> BOOL { return byte == 0x95 ? TRUE : FALSE; });
    EXPECT_EQ(pathFor(R"(C:\logs)", "C:\\app\\\x95\\.exe"), "C:\\logs/tez-pcsc.\x95\\.exe.42.log");
}

TEST_F(LogFileNameTest, HasAnUnderlineForWhatTheAnsiCodePageCannotSpell) {
    EXPECT_EQ(pathFor(R"(C:\logs)", R"(C:\??\h?st?.exe)"), R"(C:\logs/tez-pcsc.h_st_.exe.42.log)");
}

TEST_F(LogFileNameTest, HasNoProgramWhenThePathHasNoBackslash) {
    EXPECT_EQ(pathFor(R"(C:\logs)", "host.exe"), R"(C:\logs/tez-pcsc.unknown.42.log)");
}

TEST_F(LogFileNameTest, HasNoProgramWhenThePathEndsInABackslash) {
    EXPECT_EQ(pathFor(R"(C:\logs)", R"(C:\app\)"), R"(C:\logs/tez-pcsc.unknown.42.log)");
}

TEST_F(LogFileNameTest, HasNoProgramWhenThereIsNoPath) {
    EXPECT_EQ(pathFor(R"(C:\logs)", ""), R"(C:\logs/tez-pcsc.unknown.42.log)");
}

TEST_F(LogFileNameTest, IsCutToWhatItsBufferHolds) {
    const std::string program(100, 'p');
    EXPECT_EQ(pathFor(R"(C:\logs)", R"(C:\)" + program),
              (R"(C:\logs/tez-pcsc.)" + program).substr(0, 7 + 63));
}

TEST_F(LogFileNameTest, EndsWhereAnOverlongProgramPathIsCut) {
    const std::string start = R"(C:\)" + std::string(1015, 'd') + R"(\)";
    EXPECT_EQ(pathFor(R"(C:\logs)", start + "12345678"), R"(C:\logs/tez-pcsc.1234.42.log)");
}

TEST_F(LogFileNameTest, TakesADirectoryOf255Characters) {
    const std::string longest = R"(C:\)" + std::string(252, 'x');
    EXPECT_EQ(pathFor(longest, R"(C:\a\b.exe)"), longest + "/tez-pcsc.b.exe.42.log");
}

TEST_F(LogTest, ADirectoryOf256CharactersCountsAsUnset) {
    setEnvironment(kDirectory, R"(C:\)" + std::string(253, 'x'));
    const StdioSpy stdio(libraryModule());
    logTwoLines();
    EXPECT_THAT(stdio.opens(), IsEmpty());
    EXPECT_THAT(stdio.standardError(), HasSubstr("IS_VALID_CONTEXT IN-PARAMS: 12ab\n"));
}

TEST_F(LogTest, WithoutADirectoryLinesGoToStandardError) {
    setEnvironment(kDirectory, "");
    const StdioSpy stdio(libraryModule());
    logTwoLines();
    EXPECT_THAT(stdio.opens(), IsEmpty());
    EXPECT_THAT(
        parseLog(stdio.standardError()),
        ElementsAre(LogLine('D', "SCardIsValidContext", "IS_VALID_CONTEXT IN-PARAMS: 12ab"),
                    LogLine('D', "SCardIsValidContext", "IS_VALID_CONTEXT RV: 0x80100003")));
    EXPECT_THAT(log().text(), IsEmpty());
}

TEST_F(LogTest, AFileThatCannotBeOpenedIsNotTriedAgain) {
    const std::string absent = directory() + "\\absent";
    setEnvironment(kDirectory, absent);
    const StdioSpy stdio(libraryModule());
    logTwoLines();
    std::filesystem::create_directories(absent);
    logTwoLines();
    EXPECT_THAT(stdio.opens(), SizeIs(1));
    const std::vector<LogEntry> entries = parseLog(stdio.standardError());
    EXPECT_THAT(entries, SizeIs(5));
    EXPECT_THAT(entries.at(0), LogLine('W', "settings",
                                       AllOf(StartsWith("TEZ_PCSC_LOG_DIR: cannot write to '"),
                                             EndsWith("': using standard error"))));
}

TEST_F(LogTest, ALineHasLevelTimeProcessThreadComponentAndFunction) {
    logTwoLines();
    const std::string line = log().text().substr(0, log().text().find('\n'));
    const std::string ids =
        std::to_string(GetCurrentProcessId()) + ":" + std::to_string(GetCurrentThreadId());
    const std::regex form(R"(D [A-Z][a-z]{2} \d\d \d\d:\d\d:\d\d:\d{6} )" + ids +
                          R"( TEZ \(SCardIsValidContext\): IS_VALID_CONTEXT IN-PARAMS: 12ab\r?)");
    EXPECT_TRUE(std::regex_match(line, form)) << line;
}

TEST_F(LogTest, LinesOfAnotherThreadBearItsNumber) {
    DWORD other = 0;
    std::thread thread([&] {
        other = GetCurrentThreadId();
        logTwoLines();
    });
    thread.join();
    EXPECT_THAT(log().entries(), Each(Field("thread", &LogEntry::thread, other)));
    EXPECT_THAT(log().entries(), SizeIs(2));
}

class LogTimeTest : public LogTest {
  protected:
    /// The time on the library's next line at a point in time.
    std::string timeAt(const SYSTEMTIME& time, std::uint64_t ticks) const {
        ULARGE_INTEGER value;
        FILETIME point;
        SystemTimeToFileTime(&time, &point);
        value.LowPart = point.dwLowDateTime;
        value.HighPart = point.dwHighDateTime;
        value.QuadPart += ticks;
        point = {value.LowPart, value.HighPart};
        const ImportPatch<decltype(::GetSystemTimePreciseAsFileTime)> clock(
            libraryModule(), "KERNEL32.dll", "GetSystemTimePreciseAsFileTime",
            [point](LPFILETIME now) { *now = point; });
        logTwoLines();
        const std::string text = log().text();
        return text.substr(2, text.find(std::to_string(GetCurrentProcessId()) + ":") - 3);
    }

    static SYSTEMTIME day(WORD month, WORD date, WORD hour, WORD minute, WORD second) {
        return {.wYear = 2023,
                .wMonth = month,
                .wDayOfWeek = 0,
                .wDay = date,
                .wHour = hour,
                .wMinute = minute,
                .wSecond = second,
                .wMilliseconds = 0};
    }
};

TEST_F(LogTimeTest, HasMicrosecondsAndNoYear) {
    EXPECT_EQ(timeAt(day(11, 15, 23, 13, 0), 1234567), "Nov 15 23:13:00:123456");
}

TEST_F(LogTimeTest, IsFilledUpWithZeros) {
    EXPECT_EQ(timeAt(day(1, 2, 3, 4, 5), 69), "Jan 02 03:04:05:000006");
}

TEST_F(LogTimeTest, EndsASecondWithItsLastMicrosecond) {
    EXPECT_EQ(timeAt(day(12, 31, 23, 59, 59), 9999999), "Dec 31 23:59:59:999999");
}

TEST_F(LogTimeTest, LeavesOutAMonthThatIsNone) {
    const StdioSpy stdio(libraryModule());
    const ImportPatch<decltype(::FileTimeToSystemTime)> split(
        libraryModule(), "KERNEL32.dll", "FileTimeToSystemTime",
        [](const FILETIME* time, LPSYSTEMTIME parts) {
            const BOOL done = ::FileTimeToSystemTime(time, parts);
            parts->wMonth = 13;
            return done;
        });
    EXPECT_THAT(timeAt(day(11, 15, 23, 13, 0), 0), StartsWith(" 15 23:13:00:"));
    EXPECT_EQ(stdio.standardError(), "Could not interpret month 13Could not interpret month 13");
}

TEST_F(LogTest, ALineIsThreeStdioCalls) {
    const StdioSpy stdio(libraryModule());
    logTwoLines();
    std::vector<std::string> texts;
    for (const StdioSpy::Write& write : stdio.writes()) {
        texts.push_back(write.text);
    }
    const auto prefix = AllOf(StartsWith("D "), EndsWith(" TEZ (SCardIsValidContext): "));
    EXPECT_THAT(texts, ElementsAre(prefix, "IS_VALID_CONTEXT IN-PARAMS: 12ab", "\n", prefix,
                                   "IS_VALID_CONTEXT RV: 0x80100003", "\n"));
}

TEST_F(LogTest, EachPartOfALineReachesTheFileAtOnceAndInOnePiece) {
    logTwoLines();
    std::vector<DWORD> sizes;
    const ImportPatch<decltype(::WriteFile)> write(
        GetModuleHandleA("msvcrt.dll"), "KERNEL32.dll", "WriteFile",
        [&](HANDLE file, LPCVOID data, DWORD size, LPDWORD written, LPOVERLAPPED overlapped) {
            sizes.push_back(size);
            return ::WriteFile(file, data, size, written, overlapped);
        });
    const std::size_t before = log().text().size();
    SCardIsValidContext(0x12AB);
    const std::size_t after = log().text().size();
    ASSERT_THAT(sizes, SizeIs(6));
    EXPECT_EQ(std::accumulate(sizes.begin(), sizes.end(), std::size_t{0}), after - before);
    EXPECT_EQ(sizes[1], std::string("IS_VALID_CONTEXT IN-PARAMS: 12ab").size());
    EXPECT_EQ(sizes[4], std::string("IS_VALID_CONTEXT RV: 0x80100003").size());
}

TEST_F(LogTest, LongMessagesAreWhole) {
    const std::string reader(3000, 'r');
    SCARDHANDLE card = 0;
    DWORD protocol = 0;
    SCardConnectA(1, reader.c_str(), SCARD_SHARE_SHARED, SCARD_PROTOCOL_Tx, &card, &protocol);
    EXPECT_THAT(log().messages("SCardConnectA").front(),
                StartsWith("SCARD_CONNECT IN-PARAMS: 1, " + reader + ", 2, 3, "));
}

TEST_F(LogTest, PointersHaveSixteenCapitalDigits) {
    const auto pointer = [](std::uintptr_t value) {
        // NOLINTNEXTLINE(performance-no-int-to-ptr): only shown
        return reinterpret_cast<LPCVOID>(value);
    };
    SCardEstablishContext(7, pointer(0xABC), pointer(0xFEDCBA9876543210), nullptr);
    EXPECT_THAT(log().messages("SCardEstablishContext").front(),
                "ESTABLISH_CONTEXT IN-PARAMS: 7, 0000000000000ABC, FEDCBA9876543210");
}

TEST_F(LogTest, ANullTextIsShownAsNull) {
    DWORD protocol = 0;
    SCardConnectA(1, nullptr, 1, 2, nullptr, &protocol);
    EXPECT_THAT(log().messages("SCardConnectA").front(),
                StartsWith("SCARD_CONNECT IN-PARAMS: 1, (null), 1, 2, 0000000000000000, "));
}

TEST_F(LogTest, FirstLinesAtOnceAreWrittenToOneFile) {
    setEnvironment(kLevel, "debugging");  // is no level, which is told once
    const StdioSpy stdio(libraryModule());
    std::mutex mutex;
    std::condition_variable changed;
    std::set<std::FILE*> open;
    int opens = 0;
    // Each of the two finds no log, and begins to make one.
    const ImportPatch<std::FILE*(const char*, const char*)> openFile(
        libraryModule(), "msvcrt.dll", "fopen", [&](const char* path, const char* mode) {
            std::FILE* const file = std::fopen(path, mode);
            std::unique_lock lock(mutex);
            open.insert(file);
            ++opens;
            changed.notify_all();
            EXPECT_TRUE(changed.wait_for(lock, kPatience, [&] { return opens == 2; }));
            return file;
        });
    const ImportPatch<int(std::FILE*)> closeFile(libraryModule(), "msvcrt.dll", "fclose",
                                                 [&](std::FILE* file) {
                                                     const std::scoped_lock lock(mutex);
                                                     open.erase(file);
                                                     return std::fclose(file);
                                                 });
    const ImportPatch<decltype(::LoadLibraryA)> load(
        libraryModule(), "KERNEL32.dll", "LoadLibraryA", [](LPCSTR) -> HMODULE { return nullptr; });
    const auto warn = [] {
        DWORD length = 0;
        SCardListReadersA(0, nullptr, nullptr, &length);
    };
    std::thread other(warn);
    warn();
    other.join();
    const std::scoped_lock lock(mutex);
    EXPECT_EQ(opens, 2);
    ASSERT_THAT(open, SizeIs(1));
    std::vector<std::string> mistakes;
    std::vector<std::string> warnings;
    for (const StdioSpy::Write& write : stdio.writes()) {
        EXPECT_EQ(write.stream, *open.begin());
        if (write.text.starts_with(kLevel)) {
            mistakes.push_back(write.text);
        } else if (write.text.starts_with("Failed to load")) {
            warnings.push_back(write.text);
        }
    }
    EXPECT_THAT(mistakes, SizeIs(1));
    EXPECT_THAT(warnings, SizeIs(2));
}

}  // namespace
}  // namespace tez::test
