// A program that uses the library and ends in the middle of it, in the way that its first argument
// says. It is started by the tests of the process lifecycle, which look at how it ended. It loads
// the library like an application that asks for it at run time.
#include <windows.h>
#include <winscard.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <map>
#include <string>
#include <thread>
#include <tlhelp32.h>
#include <vector>

#include "detached_thread.h"
#include "guarded_buffer.h"
#include "import_patch.h"
#include "pcscd_names.h"
#include "pipe/unique_handle.h"
#include "scard_missing.h"

namespace {

using tez::test::ImportPatch;
using tez::test::runDetached;
using tez::test::UniqueHandle;

constexpr const char* kHostReader = "Host Reader 0";
constexpr const char* kRemoteReader = "Remote Reader 0";

/// Ends the program with a code of its own when something is not as it must be.
void require(bool condition, const char* what) {
    if (!condition) {
        std::cerr << what << '\n';
        std::_Exit(99);
    }
}

/// The library, by name, from beside this program.
class Library {
  public:
    Library() : module_(LoadLibraryA("winscard.dll")) { require(module_ != nullptr, "no library"); }

    HMODULE module() const { return module_; }

    template <class Function>
    Function* function(const char* name) const {
        // NOLINTNEXTLINE(cppcoreguidelines-pro-type-reinterpret-cast): exports are untyped
        auto* const address =
            reinterpret_cast<Function*>(reinterpret_cast<void*>(GetProcAddress(module_, name)));
        require(address != nullptr, name);
        return address;
    }

    SCARDCONTEXT establish() const {
        SCARDCONTEXT context = 0;
        const LONG rv = function<decltype(SCardEstablishContext)>("SCardEstablishContext")(
            SCARD_SCOPE_USER, nullptr, nullptr, &context);
        require(rv == SCARD_S_SUCCESS, "SCardEstablishContext");
        return context;
    }

    std::string listReaders(SCARDCONTEXT context) const {
        char readers[1024] = {};
        DWORD length = sizeof readers;
        const LONG rv = function<decltype(SCardListReadersA)>("SCardListReadersA")(
            context, nullptr, readers, &length);
        require(rv == SCARD_S_SUCCESS, "SCardListReadersA");
        std::string list;
        for (const char* name = readers; *name != '\0'; name += std::string(name).size() + 1) {
            list.append(name).append("\n");
        }
        return list;
    }

    void waitForCards(SCARDCONTEXT context) const {
        SCARD_READERSTATEA states[2] = {};
        states[0].szReader = kHostReader;
        states[0].dwCurrentState = SCARD_STATE_PRESENT;
        states[1].szReader = kRemoteReader;
        states[1].dwCurrentState = SCARD_STATE_PRESENT;
        function<decltype(SCardGetStatusChangeA)>("SCardGetStatusChangeA")(context, INFINITE,
                                                                           states, 2);
    }

    void transmit(SCARDCONTEXT context) const {
        SCARDHANDLE card = 0;
        DWORD protocol = 0;
        const LONG rv = function<decltype(SCardConnectA)>("SCardConnectA")(
            context, kRemoteReader, SCARD_SHARE_SHARED, SCARD_PROTOCOL_Tx, &card, &protocol);
        require(rv == SCARD_S_SUCCESS, "SCardConnectA");
        const SCARD_IO_REQUEST pci = {protocol, sizeof pci};
        const BYTE command[] = {0x00, 0x84, 0x00, 0x00, 0x08};
        BYTE response[16] = {};
        DWORD length = sizeof response;
        function<decltype(SCardTransmit)>("SCardTransmit")(card, &pci, command, sizeof command,
                                                           nullptr, response, &length);
    }

    HANDLE accessStartedEvent() const {
        return function<HANDLE WINAPI()>("SCardAccessStartedEvent")();
    }

  private:
    HMODULE module_;
};

/// Writes a line in a way that works while the process is ending, too.
void report(const std::string& line) {
    DWORD written = 0;
    WriteFile(GetStdHandle(STD_OUTPUT_HANDLE), (line + "\n").c_str(),
              static_cast<DWORD>(line.size() + 1), &written, nullptr);
}

/// Lets the library find a function of this program in place of one of the host's library, until
/// the process has ended.
template <class Function>
void replaceHostFunction(const Library& library, const std::string& replaced, Function* by) {
    const auto find = [replaced, by](HMODULE module, LPCSTR name) {
        // NOLINTNEXTLINE(cppcoreguidelines-pro-type-reinterpret-cast): exports are untyped
        return replaced == name ? reinterpret_cast<FARPROC>(reinterpret_cast<void*>(by))
                                : GetProcAddress(module, name);
    };
    // NOLINTNEXTLINE(cppcoreguidelines-owning-memory): kept for the library's detach
    new ImportPatch<decltype(::GetProcAddress)>(library.module(), "KERNEL32.dll", "GetProcAddress",
                                                find);
}

/// Reports when the library closes a handle, until the process has ended.
void reportClosing(const Library& library, HANDLE handle) {
    const auto close = [handle](HANDLE closed) {
        if (closed == handle) {
            report("closed");
        }
        return CloseHandle(closed);
    };
    // NOLINTNEXTLINE(cppcoreguidelines-owning-memory): kept for the library's detach
    new ImportPatch<decltype(::CloseHandle)>(library.module(), "KERNEL32.dll", "CloseHandle",
                                             close);
}

// A library that detached threads use is static: they go on while main returns.

/// Tells the test that the program has come to the point where it is to end, and waits for its
/// word.
void meetTheTest() {
    report("ready");
    std::string word;
    std::getline(std::cin, word);
}

/// This process's threads.
std::size_t threadCount() {
    const UniqueHandle snapshot(CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0));
    std::size_t count = 0;
    THREADENTRY32 entry = {};
    entry.dwSize = sizeof entry;
    for (BOOL more = Thread32First(snapshot.get(), &entry); more != FALSE;
         more = Thread32Next(snapshot.get(), &entry)) {
        count += entry.th32OwnerProcessID == GetCurrentProcessId() ? 1U : 0U;
    }
    return count;
}

int returnFromMain() {
    const Library library;
    library.listReaders(library.establish());
    meetTheTest();
    return 7;
}

int endInAWait() {
    static const UniqueHandle isInside(CreateEventA(nullptr, TRUE, FALSE, nullptr));
    static const Library library;
    replaceHostFunction(
        library, "SCardGetStatusChangeA",
        +[](SCARDCONTEXT, DWORD, LPSCARD_READERSTATEA, DWORD) -> LONG {
            SetEvent(isInside.get());
            Sleep(INFINITE);
            return SCARD_S_SUCCESS;
        });
    const SCARDCONTEXT context = library.establish();
    library.listReaders(context);
    runDetached([context] { library.waitForCards(context); });
    require(WaitForSingleObject(isInside.get(), 20000) == WAIT_OBJECT_0, "nobody waits");
    meetTheTest();
    return 7;
}

int endInATransmit() {
    static const Library library;
    const SCARDCONTEXT context = library.establish();
    runDetached([context] { library.transmit(context); });
    meetTheTest();
    return 7;
}

int endWithAStartedEvent() {
    const Library library;
    replaceHostFunction(
        library, "SCardReleaseStartedEvent", +[] { report("released"); });
    const HANDLE event = library.accessStartedEvent();
    require(event != nullptr, "no started event");
    std::thread([&] { library.accessStartedEvent(); }).join();
    reportClosing(library, event);
    meetTheTest();
    return 7;
}

/// Lets the library read from its pipes only while nobody has the lock that this returns
/// exclusively. Reads of one byte go on: they wait for the end of a pipe, not for an answer.
///
/// Wine loses a lock of its own with a thread that it stops while the thread reads from a pipe.
/// When an answer of another stopped thread comes in then, the thread that ends the process waits
/// for that lock in TerminateProcess for ever, before any library has been told of the end.
SRWLOCK& gateReads(const Library& library) {
    static SRWLOCK gate = SRWLOCK_INIT;
    const auto read = [](HANDLE file, LPVOID buffer, DWORD size, LPDWORD count,
                         LPOVERLAPPED overlapped) {
        if (size == 1) {
            return ReadFile(file, buffer, size, count, overlapped);
        }
        AcquireSRWLockShared(&gate);
        const BOOL isRead = ReadFile(file, buffer, size, count, overlapped);
        const DWORD error = GetLastError();
        if (isRead == FALSE && error == ERROR_IO_PENDING) {
            WaitForSingleObject(overlapped->hEvent, INFINITE);
        }
        ReleaseSRWLockShared(&gate);
        SetLastError(error);
        return isRead;
    };
    // NOLINTNEXTLINE(cppcoreguidelines-owning-memory): kept for the threads that call
    new ImportPatch<decltype(::ReadFile)>(library.module(), "KERNEL32.dll", "ReadFile", read);
    return gate;
}

int endWithBusyThreads() {
    static const Library library;
    static std::atomic<int> calls = 0;
    SRWLOCK& reads = gateReads(library);
    const SCARDCONTEXT context = library.establish();
    for (int i = 0; i < 8; ++i) {
        runDetached([context] {
            for (;; ++calls) {
                library.listReaders(context);
                library.function<LONG WINAPI(SCARDCONTEXT)>("SCardIsValidContext")(context);
            }
        });
    }
    while (calls < 50) {
        Sleep(1);
    }
    meetTheTest();
    AcquireSRWLockExclusive(&reads);
    return 7;
}

/// Several threads are inside SCardAccessStartedEvent, one of them with the events' lock, when the
/// process ends: the host's library does not answer.
int endWhileTheEventsAreLocked() {
    static const UniqueHandle isInside(CreateEventA(nullptr, TRUE, FALSE, nullptr));
    static const Library library;
    replaceHostFunction(
        library, "SCardAccessStartedEvent", +[]() -> HANDLE {
            SetEvent(isInside.get());
            Sleep(INFINITE);
            return nullptr;
        });
    for (int i = 0; i < 3; ++i) {
        runDetached([] { library.accessStartedEvent(); });
    }
    require(WaitForSingleObject(isInside.get(), 20000) == WAIT_OBJECT_0, "nobody came");
    meetTheTest();
    return 7;
}

/// A thread is ended by force in the middle of a wait; the library goes on for the others.
int endAfterATerminatedThread() {
    static const Library library;
    const SCARDCONTEXT context = library.establish();
    library.listReaders(context);
    // Ended anywhere else than in its wait for the answer, it could hold a lock of the C runtime.
    static std::atomic<DWORD> waiterId = 0;
    static std::atomic<bool> isWaiting = false;
    // NOLINTNEXTLINE(cppcoreguidelines-owning-memory): kept for the threads that call
    new ImportPatch<decltype(::WaitForMultipleObjects)>(
        library.module(), "KERNEL32.dll", "WaitForMultipleObjects",
        [](DWORD count, const HANDLE* objects, BOOL all, DWORD timeout) {
            if (GetCurrentThreadId() != waiterId) {
                return WaitForMultipleObjects(count, objects, all, timeout);
            }
            isWaiting = timeout == INFINITE;
            const DWORD result = WaitForMultipleObjects(count, objects, all, timeout);
            isWaiting = false;
            return result;
        });
    runDetached([context] {
        waiterId = GetCurrentThreadId();
        library.waitForCards(context);
    });
    meetTheTest();
    while (!isWaiting) {
        Sleep(1);
    }
    const UniqueHandle waiter(OpenThread(THREAD_TERMINATE, FALSE, waiterId));
    require(TerminateThread(waiter.get(), 0) != FALSE, "the waiter cannot be ended");
    const SCARDCONTEXT other = library.establish();
    require(!library.listReaders(other).empty(), "no readers any more");
    // Both meet what the thread has left behind: its wait is known still.
    library.function<decltype(SCardCancel)>("SCardCancel")(context);
    library.function<decltype(SCardReleaseContext)>("SCardReleaseContext")(context);
    return 7;
}

int endByExitProcessFromAnotherThread() {
    const Library library;
    const SCARDCONTEXT context = library.establish();
    library.listReaders(context);
    require(library.accessStartedEvent() != nullptr, "no started event");
    runDetached([] {
        meetTheTest();
        ExitProcess(7);
    });
    for (;;) {
        library.waitForCards(context);
    }
}

/// How many of something of which a process has a limited number it can have yet: takes them all
/// and gives them back.
template <class Thing>
std::size_t countFree(Thing take(), void giveBack(Thing), Thing none) {
    std::vector<Thing> taken;
    for (Thing thing = take(); thing != none; thing = take()) {
        taken.push_back(thing);
    }
    std::for_each(taken.begin(), taken.end(), giveBack);
    return taken.size();
}

std::size_t freeTlsIndexes() {
    return countFree<DWORD>([] { return TlsAlloc(); }, [](DWORD index) { TlsFree(index); },
                            TLS_OUT_OF_INDEXES);
}

std::size_t freeFiles() {
    return countFree<std::FILE*>([] { return std::fopen("NUL", "r"); },
                                 [](std::FILE* file) { std::fclose(file); }, nullptr);
}

int unloadUnused() {
    const std::size_t threads = threadCount();
    const std::size_t tlsIndexes = freeTlsIndexes();
    for (int i = 0; i < 20; ++i) {
        const Library library;
        require(threadCount() == threads, "a thread was started");
        require(FreeLibrary(library.module()) != FALSE, "FreeLibrary");
        require(GetModuleHandleA("winscard.dll") == nullptr, "still loaded");
    }
    require(freeTlsIndexes() == tlsIndexes, "TLS indexes are lost");
    // And once more, to be used this time.
    const Library again;
    again.listReaders(again.establish());
    meetTheTest();
    return 7;
}

int unloadUsed() {
    const Library library;
    const SCARDCONTEXT context = library.establish();
    require(FreeLibrary(library.module()) != FALSE, "FreeLibrary");
    require(GetModuleHandleA("winscard.dll") == library.module(), "unloaded under its thread");
    meetTheTest();
    require(!library.listReaders(context).empty(), "no readers");
    const Library again;
    require(again.module() == library.module(), "another instance");
    again.listReaders(again.establish());
    return 7;
}

/// An application that loads the library for each call leaves nothing of itself behind each time
/// but, once, the file of the log.
int loadForEachCall() {
    const std::size_t tlsIndexes = freeTlsIndexes();
    const std::size_t files = freeFiles();
    for (int i = 0; i < 10000; ++i) {
        const Library library;
        auto* const isValidContext =
            library.function<decltype(SCardIsValidContext)>("SCardIsValidContext");
        require(isValidContext(7) == SCARD_E_INVALID_HANDLE, "SCardIsValidContext");
        require(FreeLibrary(library.module()) != FALSE, "FreeLibrary");
    }
    require(freeTlsIndexes() == tlsIndexes, "TLS indexes are lost");
    require(freeFiles() + 1 >= files, "files are lost");
    meetTheTest();
    return 7;
}

/// What the library must never do to a caller's buffer.
int readBehindABuffer() {
    const tez::test::GuardedBuffer buffer(1);
    const volatile std::uint8_t* const bytes = buffer.data();
    return bytes[1];
}

/// Prints the readers, then waits for a change of a card.
int listAndWait() {
    const Library library;
    const SCARDCONTEXT context = library.establish();
    report(library.listReaders(context));
    meetTheTest();
    library.waitForCards(context);
    return 7;
}

}  // namespace

int main(int argc, char** argv) {
    const std::map<std::string, std::function<int()>> endings = {
        {"return", returnFromMain},
        {"wait", endInAWait},
        {"transmit", endInATransmit},
        {"started-event", endWithAStartedEvent},
        {"busy-threads", endWithBusyThreads},
        {"locked-events", endWhileTheEventsAreLocked},
        {"terminated-thread", endAfterATerminatedThread},
        {"exit-process", endByExitProcessFromAnotherThread},
        {"unload-unused", unloadUnused},
        {"unload-used", unloadUsed},
        {"load-for-each-call", loadForEachCall},
        {"list-and-wait", listAndWait},
        {"read-behind", readBehindABuffer},
    };
    const auto ending = endings.find(argc == 2 ? argv[1] : "");
    require(ending != endings.end(), "how is it to end?");
    return ending->second();
}
