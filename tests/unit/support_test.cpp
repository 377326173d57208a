// What the tests look with: detached threads, guarded buffers, import patches, the log reader.
#include <windows.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <future>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>
#include <sstream>
#include <thread>

#include "detached_thread.h"
#include "guarded_buffer.h"
#include "import_patch.h"
#include "log_matchers.h"
#include "log_reader.h"
#include "patience.h"
#include "pcscd_names.h"
#include "pipe/unique_handle.h"

namespace tez::test {
namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::Throws;
using testing::ThrowsMessage;

bool isAccessible(const std::uint8_t* address) {
    MEMORY_BASIC_INFORMATION page{};
    VirtualQuery(address, &page, sizeof page);
    return page.State == MEM_COMMIT && page.Protect == PAGE_READWRITE;
}

TEST(RunDetachedTest, RunsEachTaskHoweverSoonTheOneBeforeHasEnded) {
    for (int i = 0; i < 1000; ++i) {
        const auto isRun = std::make_shared<std::promise<void>>();
        std::future<void> run = isRun->get_future();
        runDetached([isRun] { isRun->set_value(); });
        ASSERT_EQ(run.wait_for(kPatience), std::future_status::ready) << "task " << i;
    }
}

TEST(GuardedBufferTest, EndsWhereNothingCanBeAccessed) {
    for (const std::size_t size : {1U, 258U, 4096U, 10000U}) {
        const GuardedBuffer buffer(size);
        EXPECT_EQ(buffer.size(), size);
        EXPECT_TRUE(isAccessible(buffer.data()));
        EXPECT_TRUE(isAccessible(buffer.data() + size - 1));
        EXPECT_FALSE(isAccessible(buffer.data() + size));
    }
}

TEST(GuardedBufferTest, BeginsWhereNothingBeforeItCanBeAccessed) {
    const GuardedBuffer buffer(5000, GuardedBuffer::Guard::kInFront);
    EXPECT_FALSE(isAccessible(buffer.data() - 1));
    EXPECT_TRUE(isAccessible(buffer.data()));
    EXPECT_TRUE(isAccessible(buffer.data() + 4999));
}

TEST(GuardedBufferTest, OfNoBytesCannotBeAccessedAtAll) {
    const GuardedBuffer buffer(0);
    EXPECT_FALSE(isAccessible(buffer.data()));
    EXPECT_TRUE(buffer.untouched());
}

TEST(GuardedBufferTest, TellsWhatWasWritten) {
    GuardedBuffer buffer(16);
    EXPECT_TRUE(buffer.untouched());
    buffer.bytes()[3] = 0;
    EXPECT_FALSE(buffer.untouched());
    EXPECT_FALSE(buffer.untouchedFrom(3));
    EXPECT_TRUE(buffer.untouchedFrom(4));
    buffer.refill();
    EXPECT_TRUE(buffer.untouched());
}

TEST(GuardedBufferTest, TellsWhatWasWrittenBesideIt) {
    GuardedBuffer behind(16);
    *(behind.data() - 1) = 0;
    EXPECT_FALSE(behind.untouchedFrom(16));
    GuardedBuffer inFront(16, GuardedBuffer::Guard::kInFront);
    inFront.data()[16] = 0;
    EXPECT_FALSE(inFront.untouchedFrom(16));
}

TEST(GuardedBufferTest, CanBeSeenAsAnotherType) {
    const GuardedBuffer buffer(sizeof(DWORD));
    *buffer.as<DWORD>() = 0x01020304;
    EXPECT_THAT(buffer.bytes(), ElementsAre(4, 3, 2, 1));
}

HMODULE thisProgram() {
    return GetModuleHandleA(nullptr);
}

// Reads the import table on every call: the compiler must not keep what it read before.
[[gnu::noinline]] DWORD processId() {
    return GetCurrentProcessId();
}

TEST(ImportPatchTest, ReplacesAnImportAsLongAsItLives) {
    const DWORD real = processId();
    {
        const ImportPatch<decltype(::GetCurrentProcessId)> patch(
            thisProgram(), "KERNEL32.dll", "GetCurrentProcessId", [&] { return real + 1; });
        EXPECT_EQ(processId(), real + 1);
        EXPECT_EQ(patch.original()(), real);
    }
    EXPECT_EQ(processId(), real);
}

TEST(ImportPatchTest, FindsImportsWhateverTheLibrarysNameIsSpelledLike) {
    const ImportPatch<decltype(::GetCurrentProcessId)> patch(
        thisProgram(), "kernel32.DLL", "GetCurrentProcessId", [] { return DWORD{7}; });
    EXPECT_EQ(processId(), 7U);
}

TEST(ImportPatchTest, PatchesTheRuntimeLibrarysOwnImports) {
    std::atomic<int> writes = 0;
    const ImportPatch<decltype(::WriteFile)> patch(
        GetModuleHandleA("msvcrt.dll"), "kernel32.dll", "WriteFile",
        [&](HANDLE file, LPCVOID data, DWORD size, LPDWORD written, LPOVERLAPPED overlapped) {
            ++writes;
            return ::WriteFile(file, data, size, written, overlapped);
        });
    std::FILE* const file = std::tmpfile();
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(std::fputs("text", file), 0);
    EXPECT_EQ(std::fflush(file), 0);
    EXPECT_EQ(writes, 1);
    EXPECT_EQ(std::fclose(file), 0);
}

TEST(ImportPatchTest, NamesTheImportThatIsNotThere) {
    EXPECT_THAT(
        [] {
            const ImportPatch<void()> patch(thisProgram(), "KERNEL32.dll", "NoSuchFunction", [] {});
        },
        ThrowsMessage<std::runtime_error>(
            AllOf(HasSubstr(".exe"), HasSubstr("NoSuchFunction"), HasSubstr("KERNEL32.dll"))));
    EXPECT_THAT([] { const ImportPatch<void()> patch(nullptr, "KERNEL32.dll", "Sleep", [] {}); },
                ThrowsMessage<std::runtime_error>(HasSubstr("no module")));
}

TEST(ImportPatchTest, RefusesAReplacementThatIsInUse) {
    const auto replacement = [] { return DWORD{7}; };
    using Patch = ImportPatch<decltype(::GetCurrentProcessId)>;
    const Patch patch(thisProgram(), "KERNEL32.dll", "GetCurrentProcessId", replacement);
    EXPECT_THAT(
        [&] {
            const Patch again(thisProgram(), "KERNEL32.dll", "GetCurrentProcessId", replacement);
        },
        Throws<std::runtime_error>());
    EXPECT_EQ(processId(), 7U);
}

TEST(ImportPatchTest, IsNotGoneBeforeTheLastCallHasLeft) {
    std::atomic<bool> left = false;
    std::promise<void> inside;
    std::promise<void> leaving;
    std::thread caller;
    {
        const ImportPatch<decltype(::GetCurrentProcessId)> patch(
            thisProgram(), "KERNEL32.dll", "GetCurrentProcessId", [&] {
                inside.set_value();
                leaving.get_future().wait();
                // Long enough for a patch that does not wait to be gone.
                std::this_thread::sleep_for(std::chrono::milliseconds(50));
                left = true;
                return DWORD{7};
            });
        caller = std::thread([] { EXPECT_EQ(processId(), 7U); });
        inside.get_future().wait();
        leaving.set_value();
    }
    EXPECT_TRUE(left);
    caller.join();
}

TEST(ImportPatchTest, IsGoneThoughALoopHasKeptTheImportsAddress) {
    constexpr DWORD kReplaced = 7;
    const std::chrono::milliseconds patience = kPatience;
    const UniqueHandle isPatchGone(CreateEventA(nullptr, TRUE, FALSE, nullptr));
    std::atomic<bool> isLooping = false;
    std::thread loop;
    {
        const ImportPatch<decltype(::WaitForSingleObjectEx)> patch(
            thisProgram(), "KERNEL32.dll", "WaitForSingleObjectEx", [](HANDLE, DWORD, BOOL) {
                Sleep(20);  // so that a call is in progress when the patch goes
                return kReplaced;
            });
        EXPECT_EQ(WaitForSingleObjectEx(isPatchGone.get(), 0, FALSE), kReplaced);
        auto* const kept = reinterpret_cast<decltype(&::WaitForSingleObjectEx)>(
            Import(thisProgram(), "KERNEL32.dll", "WaitForSingleObjectEx").address());
        loop = std::thread([&isPatchGone, &isLooping, kept, patience] {
            DWORD woken = kReplaced;
            for (; woken == kReplaced; isLooping = true) {
                woken = kept(isPatchGone.get(), static_cast<DWORD>(patience.count()), FALSE);
            }
            EXPECT_EQ(woken, WAIT_OBJECT_0);
        });
        EXPECT_TRUE(eventually([&isLooping] { return isLooping.load(); }));
    }
    SetEvent(isPatchGone.get());
    loop.join();
}

TEST(ImportPatchTest, LeavesTheLastErrorToTheReplacement) {
    const ImportPatch<decltype(::GetCurrentProcessId)> patch(thisProgram(), "KERNEL32.dll",
                                                             "GetCurrentProcessId", [] {
                                                                 SetLastError(ERROR_IO_PENDING);
                                                                 return DWORD{7};
                                                             });
    SetLastError(ERROR_SUCCESS);
    EXPECT_EQ(processId(), 7U);
    EXPECT_EQ(GetLastError(), DWORD{ERROR_IO_PENDING});
}

constexpr const char* kLog =
    "D Nov 15 23:13:00:123456 4120:7788 TEZ (SCardEstablishContext): ESTABLISH_CONTEXT RV: 0x0\r\n"
    "W Nov 15 23:13:01:000001 4120:7789 TEZ (DaemonConnectionTEZ::readn): first\r\n"
    "  second (line): third\r\n"
    "D Nov 15 23:13:02:000000 4120:7788 TEZ (SCardEstablishContext): \r\n";

TEST(LogReaderTest, SplitsLinesIntoTheirParts) {
    const std::vector<LogEntry> entries = parseLog(kLog);
    ASSERT_EQ(entries.size(), 3U);
    EXPECT_EQ(entries[0], (LogEntry{.level = 'D',
                                    .timestamp = "Nov 15 23:13:00:123456",
                                    .process = 4120,
                                    .thread = 7788,
                                    .component = "TEZ",
                                    .function = "SCardEstablishContext",
                                    .message = "ESTABLISH_CONTEXT RV: 0x0"}));
    EXPECT_EQ(entries[2].message, "");
}

TEST(LogReaderTest, JoinsTheLinesOfAMessage) {
    EXPECT_THAT(parseLog(kLog), testing::Contains(LogLine('W', "DaemonConnectionTEZ::readn",
                                                          "first\n  second (line): third")));
}

TEST(LogReaderTest, KeepsTextThatNoPrefixBegins) {
    const std::vector<LogEntry> entries = parseLog("neither\nnor\n");
    ASSERT_EQ(entries.size(), 1U);
    EXPECT_EQ(entries[0].level, '\0');
    EXPECT_EQ(entries[0].message, "neither\nnor");
}

TEST(LogReaderTest, PrintsAnEntryAsItStandsInTheFile) {
    std::ostringstream text;
    text << parseLog(kLog).front();
    EXPECT_EQ(text.str(),
              "D Nov 15 23:13:00:123456 4120:7788 TEZ (SCardEstablishContext): ESTABLISH_CONTEXT "
              "RV: 0x0");
}

TEST(LogReaderTest, ReadsTheFileOfThisProcess) {
    const auto directory = std::filesystem::temp_directory_path() /
                           ("log-reader-test-" + std::to_string(GetCurrentProcessId()));
    std::filesystem::create_directories(directory);
    const LogReader log(directory.string());
    EXPECT_THAT(log.path(), AllOf(HasSubstr("/tez-pcsc.support_tests.exe."),
                                  HasSubstr(std::to_string(GetCurrentProcessId()) + ".log")));
    EXPECT_THAT(log.entries(), IsEmpty());

    std::ofstream(log.path(), std::ios::binary) << kLog;
    EXPECT_EQ(log.text(), kLog);
    EXPECT_THAT(log.messages("SCardEstablishContext"),
                ElementsAre("ESTABLISH_CONTEXT RV: 0x0", ""));
    EXPECT_THAT(log.messages("SCardEstablishContext", 'W'), IsEmpty());
    EXPECT_TRUE(log.contains('D', "SCardEstablishContext", "ESTABLISH_CONTEXT RV: 0x0"));
    EXPECT_FALSE(log.contains('W', "SCardEstablishContext", "ESTABLISH_CONTEXT RV: 0x0"));
    EXPECT_EQ(log.count("SCardEstablishContext", ""), 1U);
    EXPECT_EQ(log.count("SCardReleaseContext", ""), 0U);
    EXPECT_THAT(log.entries(), Not(testing::Contains(LogLine('D', "SCardEstablishContext", "x"))));
    std::filesystem::remove_all(directory);
}

}  // namespace
}  // namespace tez::test
