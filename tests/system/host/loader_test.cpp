// Where the library looks for the host's smart-card library, and what it makes of what it finds.
#include <atomic>
#include <cstdlib>
#include <functional>
#include <thread>

#include "fake_drivers.h"
#include "system_test.h"

namespace tez::test {
namespace {

using testing::AllOf;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::NotNull;
using testing::SizeIs;
using testing::StartsWith;

constexpr const char* kInstallationPath =
    R"(C:\Program Files\VORN\TEZ\Server\bin\Win64\winscard.dll)";
constexpr const char* kInitialize = "InitializeWinscardFunctions";
constexpr const char* kDriverCheck = "IsFilterDriverPresent";

/// The system's text for an error, without its line end.
std::string errorText(DWORD error) {
    char text[512] = {};
    FormatMessageA(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr, error,
                   0x400, text, sizeof text, nullptr);
    std::string line = text;
    return line.substr(0, line.find_first_of("\r\n"));
}

class LoaderTest : public SystemTest {
  protected:
    using LoadPatch = ImportPatch<decltype(::LoadLibraryA)>;
    using AddressPatch = ImportPatch<decltype(::GetProcAddress)>;
    using FreePatch = ImportPatch<decltype(::FreeLibrary)>;

    static LONG tryToEstablish() {
        SCARDCONTEXT context = 0;
        return SCardEstablishContext(SCARD_SCOPE_USER, nullptr, nullptr, &context);
    }

    std::vector<std::string> warnings(const char* function) const {
        return log().messages(function, 'W');
    }

    // What the library asked to load, in order, and whether it gave that back.
    std::vector<std::string> loaded;
    std::vector<std::string> resolved;
    std::vector<HMODULE> freed;
    // What it gets for each path; a null function gives it the file that it asked for.
    std::function<HMODULE(const std::string&)> provide;

  private:
    LoadPatch load_{libraryModule(), "KERNEL32.dll", "LoadLibraryA", [this](LPCSTR path) {
                        loaded.emplace_back(path);
                        return provide ? provide(path) : ::LoadLibraryA(path);
                    }};
    AddressPatch address_{libraryModule(), "KERNEL32.dll", "GetProcAddress",
                          [this](HMODULE module, LPCSTR name) {
                              resolved.emplace_back(name);
                              return ::GetProcAddress(module, name);
                          }};
    FreePatch free_{libraryModule(), "KERNEL32.dll", "FreeLibrary", [this](HMODULE module) {
                        freed.push_back(module);
                        return ::FreeLibrary(module);
                    }};
};

/// A load that fails with an error.
std::function<HMODULE(const std::string&)> failing(DWORD error) {
    return [error](const std::string&) -> HMODULE {
        SetLastError(error);
        return nullptr;
    };
}

/// The file at another path instead.
std::function<HMODULE(const std::string&)> insteadOf(const std::string& other) {
    return [other](const std::string&) { return ::LoadLibraryA(other.c_str()); };
}

TEST_F(LoaderTest, LoadsTheSystemsLibraryOnceAndReportsIt) {
    establish();
    establish();
    EXPECT_THAT(loaded, ElementsAre(kSystemLibraryPath));
    EXPECT_THAT(log().messages(kInitialize, 'I'),
                ElementsAre(R"(System WinSCard (C:\Windows\System32\WinSCard.dll) loaded)"));
    EXPECT_THAT(freed, IsEmpty());
}

TEST_F(LoaderTest, LoadsNothingBeforeTheFirstLocalCall) {
    EXPECT_THAT(SCardIsValidContext(1), Gives(SCARD_E_INVALID_HANDLE));
    EXPECT_THAT(SCardEstablishContext(SCARD_SCOPE_USER, nullptr, nullptr, nullptr),
                Gives(SCARD_E_INVALID_PARAMETER));
    EXPECT_THAT(loaded, IsEmpty());
}

TEST_F(LoaderTest, ResolvesTheEntryPointsInOrder) {
    establish();
    EXPECT_THAT(
        resolved,
        ElementsAre("SCardEstablishContext", "SCardReleaseContext", "SCardAudit",
                    "SCardGetCardTypeProviderNameA", "SCardFreeMemory", "SCardListCardsA",
                    "SCardIntroduceCardTypeA", "SCardForgetCardTypeA",
                    "SCardSetCardTypeProviderNameA", "SCardIsValidContext", "SCardConnectA",
                    "SCardReconnect", "SCardDisconnect", "SCardBeginTransaction",
                    "SCardEndTransaction", "SCardStatusA", "SCardGetStatusChangeA", "SCardControl",
                    "SCardTransmit", "SCardListReaderGroupsA", "SCardListReadersA", "SCardCancel",
                    "SCardGetAttrib", "SCardSetAttrib", "SCardGetTransmitCount",
                    "SCardGetDeviceTypeIdA", "SCardReadCacheA", "SCardWriteCacheA",
                    "SCardGetReaderIconA", "SCardAccessStartedEvent", "SCardReleaseStartedEvent"));
}

TEST_F(LoaderTest, WithTheFilterDriverLoadsTheInstallationsLibraryInstead) {
    const FakeDrivers drivers({L"ntoskrnl.exe", L"tezwscrd.sys"});
    provide = insteadOf(kSystemLibraryPath);
    establish();
    EXPECT_THAT(loaded, ElementsAre(kInstallationPath));
    EXPECT_THAT(log().messages(kInitialize, 'I'),
                ElementsAre("System WinSCard (" + std::string(kInstallationPath) + ") loaded"));
}

TEST_F(LoaderTest, WithTheFilterDriverDoesNotFallBackToTheSystemsLibrary) {
    const FakeDrivers drivers({L"tezwscrd.sys"});
    EXPECT_THAT(tryToEstablish(), Gives(SCARD_F_INTERNAL_ERROR));
    EXPECT_THAT(loaded, ElementsAre(kInstallationPath));
}

TEST_F(LoaderTest, TheFilterDriversNameCountsInAnyLetterCase) {
    const FakeDrivers drivers({L"TEZWSCRD.Sys"});
    provide = insteadOf(kSystemLibraryPath);
    establish();
    EXPECT_THAT(loaded, ElementsAre(kInstallationPath));
}

TEST_F(LoaderTest, NamesThatOnlyResembleTheFilterDriversDoNotCount) {
    const FakeDrivers drivers({L"tezwscrd", L"tezwscrd.sys.bak", L"xtezwscrd.sys", L"tezwscrd_sys",
                               L"tezw\u017fcrd.sys"});
    establish();
    EXPECT_THAT(loaded, ElementsAre(kSystemLibraryPath));
}

TEST_F(LoaderTest, NamesThatCannotBeReadAreSkippedSilently) {
    const FakeDrivers drivers({L"", L"", L"tezwscrd.sys"});
    provide = insteadOf(kSystemLibraryPath);
    establish();
    EXPECT_THAT(loaded, ElementsAre(kInstallationPath));
    EXPECT_THAT(log().messages(kDriverCheck), IsEmpty());
}

TEST_F(LoaderTest, SaysThatTheDriversAreHiddenFromTheProcess) {
    FakeDrivers drivers({L"first.sys", L"tezwscrd.sys"});
    drivers.hideAddresses();
    establish();
    EXPECT_THAT(loaded, ElementsAre(kSystemLibraryPath));
    EXPECT_THAT(
        warnings(kDriverCheck),
        ElementsAre("Cannot enumerate drivers: their addresses are hidden from this process"));
}

TEST_F(LoaderTest, DriversAreLookedAtAsFarAsTheSecondCallSays) {
    FakeDrivers drivers({L"first.sys", L"tezwscrd.sys"});
    drivers.shrinkTo(8);
    establish();
    EXPECT_THAT(loaded, ElementsAre(kSystemLibraryPath));
    EXPECT_EQ(drivers.namesAsked(), 1);
}

TEST_F(LoaderTest, LessThanOneAddressIsNone) {
    FakeDrivers drivers({L"tezwscrd.sys"});
    drivers.shrinkTo(7);
    establish();
    EXPECT_THAT(loaded, ElementsAre(kSystemLibraryPath));
    EXPECT_EQ(drivers.namesAsked(), 0);
}

TEST_F(LoaderTest, DriversThatAppearBetweenTheTwoCallsAreNotReadFromBeyondTheArray) {
    FakeDrivers drivers({L"first.sys", L"second.sys"});
    drivers.shrinkTo(8 * 1000);
    establish();
    EXPECT_THAT(loaded, ElementsAre(kSystemLibraryPath));
    EXPECT_EQ(drivers.namesAsked(), 2);
}

TEST_F(LoaderTest, WithoutTheSizeOfTheDriverListTheDriverCountsAsAbsent) {
    FakeDrivers drivers({L"tezwscrd.sys"});
    drivers.failCall(1, ERROR_ACCESS_DENIED);
    establish();
    EXPECT_THAT(loaded, ElementsAre(kSystemLibraryPath));
    EXPECT_THAT(warnings(kDriverCheck),
                ElementsAre(StartsWith("Cannot enumerate drivers, failed to get required size: " +
                                       errorText(ERROR_ACCESS_DENIED))));
}

TEST_F(LoaderTest, WithoutTheDriverListTheDriverCountsAsAbsent) {
    FakeDrivers drivers({L"tezwscrd.sys"});
    drivers.failCall(2, ERROR_INVALID_HANDLE);
    establish();
    EXPECT_THAT(loaded, ElementsAre(kSystemLibraryPath));
    EXPECT_THAT(warnings(kDriverCheck), ElementsAre(StartsWith("Cannot enumerate drivers: " +
                                                               errorText(ERROR_INVALID_HANDLE))));
}

TEST_F(LoaderTest, AFailureWithoutAnErrorIsLoggedAsNull) {
    FakeDrivers drivers({L"tezwscrd.sys"});
    drivers.failCall(2, ERROR_SUCCESS);
    establish();
    EXPECT_THAT(warnings(kDriverCheck), ElementsAre("Cannot enumerate drivers: (null)"));
}

TEST_F(LoaderTest, WithoutMemoryForTheDriverListTheDriverCountsAsAbsent) {
    const FakeDrivers drivers(std::vector<std::wstring>(12345, L"tezwscrd.sys"));
    const ImportPatch<void*(std::size_t)> allocate(
        libraryModule(), "msvcrt.dll", "malloc", [](std::size_t size) -> void* {
            return size == 12345 * sizeof(void*) ? nullptr : std::malloc(size);
        });
    establish();
    EXPECT_THAT(loaded, ElementsAre(kSystemLibraryPath));
    EXPECT_THAT(warnings(kDriverCheck), ElementsAre("Cannot enumerate drivers, failed to malloc"));
}

TEST_F(LoaderTest, ADriverLoadedAfterwardsHasNoEffect) {
    establish();
    const FakeDrivers drivers({L"tezwscrd.sys"});
    establish();
    EXPECT_THAT(loaded, ElementsAre(kSystemLibraryPath));
}

TEST_F(LoaderTest, WithoutTheFileEveryLocalCallFailsAndEachAttemptWarns) {
    provide = failing(ERROR_MOD_NOT_FOUND);
    char readers[256] = {};
    DWORD length = sizeof readers;
    EXPECT_THAT(tryToEstablish(), Gives(SCARD_F_INTERNAL_ERROR));
    EXPECT_THAT(tryToEstablish(), Gives(SCARD_F_INTERNAL_ERROR));
    EXPECT_THAT(SCardListReadersA(0, nullptr, readers, &length), Gives(SCARD_F_INTERNAL_ERROR));
    EXPECT_EQ(SCardAccessStartedEvent(), nullptr);
    EXPECT_THAT(warnings(kInitialize), SizeIs(4));
    EXPECT_THAT(warnings(kInitialize),
                Each(StartsWith(R"(Failed to load C:\Windows\System32\WinSCard.dll: )" +
                                errorText(ERROR_MOD_NOT_FOUND))));
    EXPECT_THAT(loaded, SizeIs(4));
    EXPECT_THAT(resolved, IsEmpty());
    EXPECT_THAT(freed, IsEmpty());
    EXPECT_THAT(log().messages("SCardAccessStartedEvent", 'W'),
                ElementsAre(StartsWith("Failed to access started event (")));
}

TEST_F(LoaderTest, ALibraryThatComesLaterIsPickedUp) {
    provide = failing(ERROR_FILE_NOT_FOUND);
    EXPECT_THAT(tryToEstablish(), Gives(SCARD_F_INTERNAL_ERROR));
    provide = nullptr;
    EXPECT_THAT(tryToEstablish(), Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(log().messages(kInitialize, 'I'), SizeIs(1));
}

TEST_F(LoaderTest, ADriverLoadedBetweenTwoAttemptsIsSeen) {
    provide = failing(ERROR_FILE_NOT_FOUND);
    EXPECT_THAT(tryToEstablish(), Gives(SCARD_F_INTERNAL_ERROR));
    const FakeDrivers drivers({L"tezwscrd.sys"});
    EXPECT_THAT(tryToEstablish(), Gives(SCARD_F_INTERNAL_ERROR));
    EXPECT_THAT(loaded, ElementsAre(kSystemLibraryPath, kInstallationPath));
}

TEST_F(LoaderTest, ALibraryWithoutTheLastEntryPointIsGivenBack) {
    provide = insteadOf(incompleteStandInPath());
    EXPECT_THAT(tryToEstablish(), Gives(SCARD_F_INTERNAL_ERROR));
    EXPECT_THAT(resolved, SizeIs(31));
    EXPECT_THAT(freed, ElementsAre(NotNull()));
    EXPECT_THAT(warnings(kInitialize),
                ElementsAre(StartsWith("Failed to get the address of SCardReleaseStartedEvent: " +
                                       errorText(ERROR_PROC_NOT_FOUND))));
    EXPECT_EQ(GetModuleHandleA(incompleteStandInPath().c_str()), nullptr) << "still loaded";
}

TEST_F(LoaderTest, AnUnsuitableLibraryIsRefusedAtEachAttempt) {
    provide = insteadOf(incompleteStandInPath());
    EXPECT_THAT(tryToEstablish(), Gives(SCARD_F_INTERNAL_ERROR));
    EXPECT_THAT(tryToEstablish(), Gives(SCARD_F_INTERNAL_ERROR));
    EXPECT_THAT(freed, SizeIs(2));
    EXPECT_THAT(warnings(kInitialize), SizeIs(2));
    provide = nullptr;
    EXPECT_THAT(tryToEstablish(), Gives(SCARD_S_SUCCESS));
}

TEST_F(LoaderTest, StopsAtTheFirstEntryPointThatIsMissing) {
    provide = insteadOf(R"(C:\Windows\System32\version.dll)");
    EXPECT_THAT(tryToEstablish(), Gives(SCARD_F_INTERNAL_ERROR));
    EXPECT_THAT(resolved, ElementsAre("SCardEstablishContext"));
    EXPECT_THAT(warnings(kInitialize),
                ElementsAre(StartsWith("Failed to get the address of SCardEstablishContext: ")));
    EXPECT_THAT(freed, SizeIs(1));
}

TEST_F(LoaderTest, DoesNotTakeItselfForTheHostsLibrary) {
    provide = insteadOf(programDirectory() + "\\winscard.dll");
    EXPECT_THAT(tryToEstablish(), Gives(SCARD_F_INTERNAL_ERROR));
    EXPECT_THAT(warnings(kInitialize), SizeIs(1));
    EXPECT_THAT(freed, SizeIs(1));
    EXPECT_NE(libraryModule(), nullptr);
}

TEST_F(LoaderTest, GivesTheTextOfAnErrorBack) {
    std::vector<HLOCAL> made;
    std::vector<HLOCAL> givenBack;
    const ImportPatch<DWORD(DWORD, LPCVOID, DWORD, DWORD, LPSTR, DWORD, void*)> format(
        libraryModule(), "KERNEL32.dll", "FormatMessageA",
        [&](DWORD flags, LPCVOID source, DWORD message, DWORD language, LPSTR text, DWORD size,
            void* arguments) {
            const DWORD length = ::FormatMessageA(flags, source, message, language, text, size,
                                                  static_cast<va_list*>(arguments));
            made.push_back(*reinterpret_cast<LPSTR*>(text));
            return length;
        });
    const ImportPatch<decltype(::LocalFree)> localFree(libraryModule(), "KERNEL32.dll", "LocalFree",
                                                       [&](HLOCAL text) {
                                                           givenBack.push_back(text);
                                                           return ::LocalFree(text);
                                                       });
    provide = failing(ERROR_MOD_NOT_FOUND);
    EXPECT_THAT(tryToEstablish(), Gives(SCARD_F_INTERNAL_ERROR));
    EXPECT_THAT(made, ElementsAre(NotNull()));
    EXPECT_EQ(givenBack, made);
}

TEST_F(LoaderTest, ACallThatComesDuringTheLoadWaitsForItsEnd) {
    const auto listReaders = [] {
        DWORD length = 0;
        EXPECT_THAT(SCardListReadersA(0, nullptr, nullptr, &length), Gives(SCARD_S_SUCCESS));
    };
    std::atomic<PSRWLOCK> takenLast = nullptr;  // by this thread
    std::atomic<PSRWLOCK> waitedFor = nullptr;  // by the other one
    const ImportPatch<decltype(::AcquireSRWLockExclusive)> acquire(
        libraryModule(), "KERNEL32.dll", "AcquireSRWLockExclusive",
        [&, first = GetCurrentThreadId()](PSRWLOCK lock) {
            if (GetCurrentThreadId() == first) {
                ::AcquireSRWLockExclusive(lock);
                takenLast = lock;
            } else {
                waitedFor = lock;
                ::AcquireSRWLockExclusive(lock);
                waitedFor = nullptr;
            }
        });
    std::atomic<int> loads = 0;
    std::thread second;
    provide = [&](const std::string& path) {
        if (++loads == 1) {
            second = std::thread(listReaders);
            EXPECT_TRUE(
                eventually([&] { return loads > 1 || waitedFor.load() == takenLast.load(); }));
        }
        return ::LoadLibraryA(path.c_str());
    };
    listReaders();
    second.join();
    EXPECT_EQ(loads, 1);
    EXPECT_THAT(log().messages(kInitialize), SizeIs(1));
}

}  // namespace
}  // namespace tez::test
