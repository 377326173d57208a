// What a call takes that can be counted, and so holds on every machine.
#include <cstdint>
#include <cstdlib>
#include <ostream>

#include "bench.h"
#include "import_patch.h"
#include "library.h"

namespace tez::bench {

/// What the library does on one thread in one call.
struct Counts {
    int writes = 0;
    int reads = 0;
    int events = 0;
    int blocks = 0;  ///< of memory
    int locks = 0;   ///< taken, alone or shared
    int threads = 0;

    bool operator==(const Counts&) const = default;
};

std::ostream& operator<<(std::ostream& out, const Counts& counts) {
    return out << counts.writes << " writes, " << counts.reads << " reads, " << counts.events
               << " events, " << counts.blocks << " blocks, " << counts.locks << " locks, "
               << counts.threads << " threads";
}

namespace {

using test::ImportPatch;

template <class Call>
Counts countsOf(Call call) {
    const HMODULE library = libraryModule();
    constexpr const char* kKernel = "KERNEL32.dll";
    constexpr const char* kRuntime = "msvcrt.dll";
    Counts counts;
    const auto count = [&counts, thread = GetCurrentThreadId()](int Counts::*what) {
        counts.*what += GetCurrentThreadId() == thread ? 1 : 0;
    };
    const ImportPatch<decltype(::WriteFile)> write(
        library, kKernel, "WriteFile",
        [&](HANDLE file, LPCVOID data, DWORD size, LPDWORD done, LPOVERLAPPED overlapped) {
            count(&Counts::writes);
            return ::WriteFile(file, data, size, done, overlapped);
        });
    const ImportPatch<decltype(::ReadFile)> read(
        library, kKernel, "ReadFile",
        [&](HANDLE file, LPVOID data, DWORD size, LPDWORD done, LPOVERLAPPED overlapped) {
            count(&Counts::reads);
            return ::ReadFile(file, data, size, done, overlapped);
        });
    const ImportPatch<decltype(::CreateEventA)> event(
        library, kKernel, "CreateEventA",
        [&](LPSECURITY_ATTRIBUTES security, BOOL isManual, BOOL isSet, LPCSTR name) {
            count(&Counts::events);
            return ::CreateEventA(security, isManual, isSet, name);
        });
    const ImportPatch<void*(std::size_t)> allocate(library, kRuntime, "malloc",
                                                   [&](std::size_t size) {
                                                       count(&Counts::blocks);
                                                       return std::malloc(size);
                                                   });
    const ImportPatch<decltype(::AcquireSRWLockExclusive)> exclusive(
        library, kKernel, "AcquireSRWLockExclusive", [&](PSRWLOCK lock) {
            count(&Counts::locks);
            ::AcquireSRWLockExclusive(lock);
        });
    const ImportPatch<decltype(::AcquireSRWLockShared)> shared(
        library, kKernel, "AcquireSRWLockShared", [&](PSRWLOCK lock) {
            count(&Counts::locks);
            ::AcquireSRWLockShared(lock);
        });
    using ThreadBody = unsigned (*)(void*);
    const ImportPatch<std::uintptr_t(void*, unsigned, ThreadBody, void*, unsigned, unsigned*)>
        thread(library, kRuntime, "_beginthreadex",
               [&](void* security, unsigned stack, ThreadBody body, void* argument, unsigned flags,
                   unsigned* id) {
                   count(&Counts::threads);
                   return thread.original()(security, stack, body, argument, flags, id);
               });
    call();
    return counts;
}

void transmit(SCARDHANDLE card) {
    constexpr BYTE kCommand[] = {0x00, 0x84, 0x00, 0x00, 0x08};
    BYTE answer[16];
    DWORD length = sizeof answer;
    REQUIRE(SCardTransmit(card, SCARD_PCI_T1, kCommand, sizeof kCommand, nullptr, answer,
                          &length) == SCARD_S_SUCCESS);
}

void wait(SCARDCONTEXT context, std::vector<SCARD_READERSTATEA> states) {
    SCardGetStatusChangeA(context, 0, states.data(), static_cast<DWORD>(states.size()));
}

/// The counts of a call that has been made before, so that its connection is there.
template <class Call>
Counts countsOfWarm(Call call) {
    call();
    return countsOf(call);
}

}  // namespace

TEST_CASE("counted") {
    Sides::instance().startDaemon();
    const SCARDCONTEXT context = establish();
    const SCARDHANDLE local = connect(context, test::kHostReader);
    const SCARDHANDLE remote = connect(context, kRemoteReader);
    const SCARD_READERSTATEA host = stateOf(test::kHostReader, SCARD_STATE_PRESENT);
    const SCARD_READERSTATEA daemon = stateOf(kRemoteReader, SCARD_STATE_PRESENT);

    CHECK(countsOfWarm([=] { SCardIsValidContext(context); }) == Counts{.locks = 1});
    CHECK(countsOfWarm([=] { transmit(local); }) == Counts{.locks = 1});
    // The pool is taken from and given back to; the card and its context are looked up.
    CHECK(countsOfWarm([=] { transmit(remote); }) ==
          Counts{.writes = 3, .reads = 2, .events = 5, .locks = 4});
    CHECK(countsOfWarm([=] { wait(context, {host}); }).threads == 0);
    CHECK(countsOfWarm([=] { wait(context, {daemon, host}); }).threads == 0);
    SCardReleaseContext(context);
}

}  // namespace tez::bench
