// Calls that the daemon serves, beside a bare pipe that carries the same pieces.
#include <windows.h>

#include <chrono>
#include <psapi.h>
#include <stdexcept>
#include <vector>

#include "bare_pipe.h"
#include "bench.h"
#include "library.h"
#include "team.h"

namespace tez::bench {
namespace {

/// A call beside its pieces on a bare pipe.
template <class Call>
void compareWithPipe(const std::string& name, Call call) {
    call();  // so that there is a connection to note the pieces of
    const Pattern pattern = patternOf(call);
    BarePipe pipe;
    compare(
        name, [&] { pipe.play(pattern); }, call);
}

struct RemoteCard {
    RemoteCard() {
        Sides::instance().startDaemon();
        context = establish();
        handle = connect(context, kRemoteReader);
    }
    RemoteCard(const RemoteCard&) = delete;
    RemoteCard& operator=(const RemoteCard&) = delete;
    ~RemoteCard() { SCardReleaseContext(context); }

    void transmit(const std::vector<BYTE>& command) const {
        BYTE answer[300];
        DWORD length = sizeof answer;
        if (SCardTransmit(handle, SCARD_PCI_T1, command.data(), static_cast<DWORD>(command.size()),
                          nullptr, answer, &length) != SCARD_S_SUCCESS) {
            throw std::runtime_error("SCardTransmit fails");
        }
    }

    SCARDCONTEXT context = 0;
    SCARDHANDLE handle = 0;
};

const std::vector<BYTE> kGetChallenge = {0x00, 0x84, 0x00, 0x00, 0x08};

TEST_CASE("remote transmit") {
    const RemoteCard card;
    for (const std::size_t size : {5U, 261U, 4096U, 65535U}) {
        std::vector<BYTE> command = kGetChallenge;
        command.resize(size);
        compareWithPipe("remote transmit, " + std::to_string(size) + " bytes",
                        [&] { card.transmit(command); });
    }
}

TEST_CASE("remote list and status") {
    const RemoteCard card;
    compareWithPipe("SCardListReaders, both sides", [&] { listReaders(card.context); });
    compareWithPipe("SCardListReadersW, both sides", [&] {
        wchar_t names[1024];
        DWORD length = 1024;
        SCardListReadersW(card.context, nullptr, names, &length);
    });
    compareWithPipe("SCardStatus", [&] {
        char name[256];
        DWORD nameLength = sizeof name;
        BYTE atr[36];
        DWORD atrLength = sizeof atr;
        DWORD state = 0;
        DWORD protocol = 0;
        SCardStatusA(card.handle, name, &nameLength, &state, &protocol, atr, &atrLength);
    });
}

TEST_CASE("remote threads") {
    const RemoteCard card;
    const Pattern pattern = patternOf([&] { card.transmit(kGetChallenge); });
    constexpr std::size_t kCalls = 20;
    for (const std::size_t threads : {1U, 2U, 4U, 8U, 16U}) {
        std::vector<BarePipe> pipes(threads);
        Team bare(threads, [&](std::size_t number) {
            for (std::size_t i = 0; i < kCalls; ++i) {
                pipes[number].play(pattern);
            }
        });
        Team library(threads, [&](std::size_t) {
            for (std::size_t i = 0; i < kCalls; ++i) {
                card.transmit(kGetChallenge);
            }
        });
        compare(
            "remote transmit by " + std::to_string(threads) + " threads", [&] { bare.run(); },
            [&] { library.run(); }, static_cast<double>(kCalls * threads));
    }
    // Each time with all connections but eight to be made anew.
    std::vector<BarePipe> pipes(16);
    Team bare(16, [&](std::size_t number) { pipes[number].play(pattern); });
    Team library(16, [&](std::size_t) { card.transmit(kGetChallenge); });
    compare(
        "remote transmit by 16 threads, in bursts of one call", [&] { bare.run(); },
        [&] { library.run(); }, 16);
}

/// The number of the next handle: they are given out from the lowest that is free.
std::uintptr_t nextHandle() {
    const UniqueHandle event(CreateEventA(nullptr, TRUE, FALSE, nullptr));
    return reinterpret_cast<std::uintptr_t>(event.get());
}

SIZE_T memoryInUse() {
    PROCESS_MEMORY_COUNTERS counters = {};
    K32GetProcessMemoryInfo(GetCurrentProcess(), &counters, sizeof counters);
    return counters.PagefileUsage;
}

TEST_CASE("handles and memory stay") {
    const RemoteCard card;
    const SCARDHANDLE local = connect(card.context, test::kHostReader);
    const std::size_t calls = effort().manyHandles;
    const auto transmitMany = [&] {
        for (std::size_t i = 0; i < calls; ++i) {
            card.transmit(kGetChallenge);
        }
    };
    const auto once = [&](const std::string& name, const auto& many, std::size_t count) {
        const auto begin = std::chrono::steady_clock::now();
        many();
        const std::chrono::duration<double, std::nano> time =
            std::chrono::steady_clock::now() - begin;
        figures()[name].library.push_back(time.count() / static_cast<double>(count));
    };
    const std::uintptr_t handle = nextHandle();
    const SIZE_T memory = memoryInUse();
    once(std::to_string(calls) + " remote transmits", transmitMany, calls);
    once(
        std::to_string(10 * calls) + " local transmits",
        [&] {
            BYTE answer[16];
            for (std::size_t i = 0; i < 10 * calls; ++i) {
                DWORD length = sizeof answer;
                SCardTransmit(local, SCARD_PCI_T1, kGetChallenge.data(), 5, nullptr, answer,
                              &length);
            }
        },
        10 * calls);
    // A handful of each may be the daemon's, which lives in this process, too.
    CHECK(nextHandle() <= handle + 64);
    CHECK(memoryInUse() <= memory + (4U << 20));
}

}  // namespace
}  // namespace tez::bench
