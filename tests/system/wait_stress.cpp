// Waits in a storm, for as long as it is told to: eight waiters, most of them on contexts that two
// share, while cards come and go on both sides, other threads cancel and release, connect and
// transmit, and the daemon loses connections, dies and returns. Each wait has to end by what is
// meant for it, soon, and no change may go untold: wait_stress.exe [SECONDS]
#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <random>
#include <thread>
#include <vector>

#include "daemon_simulator.h"
#include "scard_missing.h"
#include "system_library/host_service.h"
#include "system_library/stand_in_library.h"

namespace tez::test {
namespace {

using Milliseconds = std::int64_t;

constexpr const char* kRemoteReader = "Remote Reader 0";
constexpr std::size_t kContexts = 4;
constexpr std::size_t kWaiters = 8;
/// What has not been told for this long counts as lost.
constexpr Milliseconds kLost = 5000;

Milliseconds now() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

class Longest {
  public:
    void note(Milliseconds value) {
        Milliseconds known = value_;
        while (value > known && !value_.compare_exchange_weak(known, value)) {
        }
    }
    Milliseconds value() const { return value_; }

  private:
    std::atomic<Milliseconds> value_ = 0;
};

/// The changes of one reader, whose number stands in the upper half of its states.
struct Changes {
    std::atomic<std::uint32_t> count = 1;
    std::array<std::atomic<Milliseconds>, 0x10000> times = {};

    Milliseconds timeOf(std::uint32_t number) const { return times[number & 0xFFFF]; }
};

/// What one waiter is doing, for all to see.
struct Waiter {
    std::size_t context = 0;
    DWORD timeout = INFINITE;
    bool hasHost = true;
    bool hasRemote = true;
    std::atomic<SCARDCONTEXT> inUse = 0;
    std::atomic<Milliseconds> since = 0;  ///< 0: not in a call
    std::atomic<std::uint32_t> hostKnown = 0;
    std::atomic<std::uint32_t> remoteKnown = 0;
};

struct Storm {
    HostService host;
    SimulatedService remote;
    /// A client that finds the pipe busy while the daemon dies waits for its time all the same.
    DaemonSimulator daemon{remote, {.version = {}, .pipe = {.busyWait = 200}}};
    StandInLibrary standIn;

    std::atomic<bool> isOver = false;
    Changes hostChanges;
    Changes remoteChanges;
    std::array<std::atomic<SCARDCONTEXT>, kContexts> contexts = {};
    std::array<std::atomic<Milliseconds>, kContexts> cancelled = {};
    std::array<Waiter, kWaiters> waiters;
    std::atomic<Milliseconds> stableSince = 0;  ///< the daemon; 0: it is away

    std::atomic<std::uint64_t> waits = 0;
    std::atomic<std::uint64_t> cancels = 0;
    std::atomic<std::uint64_t> releases = 0;
    std::atomic<std::uint64_t> transmits = 0;
    std::atomic<std::uint64_t> disturbances = 0;
    std::atomic<std::uint64_t> lost = 0;
    Longest toldOfHost;
    Longest toldOfRemote;
    Longest toldOfCancel;
};

class Random {
  public:
    explicit Random(unsigned seed) : engine_(seed) {}
    unsigned below(unsigned limit) { return std::uniform_int_distribution(0U, limit - 1)(engine_); }
    void pause(unsigned least, unsigned most) {
        std::this_thread::sleep_for(std::chrono::milliseconds(least + below(most - least + 1)));
    }

  private:
    std::minstd_rand engine_;  // small: each thread has one
};

SCARDCONTEXT establish() {
    SCARDCONTEXT context = 0;
    SCardEstablishContext(SCARD_SCOPE_USER, nullptr, nullptr, &context);
    return context;
}

SCARD_READERSTATEA stateOf(const char* reader, std::uint32_t count) {
    SCARD_READERSTATEA state = {};
    state.szReader = reader;
    const DWORD card = (count & 1U) != 0 ? SCARD_STATE_PRESENT : SCARD_STATE_EMPTY;
    state.dwCurrentState = count == 0 ? SCARD_STATE_UNAWARE : (count << 16U | card);
    return state;
}

/// Takes over what a wait told of a reader, and notes how long after the change that was.
/// False when that is nothing.
bool take(const SCARD_READERSTATEA& state, const Changes& changes, Milliseconds since,
          std::atomic<std::uint32_t>& known, Longest& longest) {
    const std::uint32_t told = static_cast<std::uint32_t>(state.dwEventState) >> 16U;
    if ((state.dwEventState & SCARD_STATE_CHANGED) == 0 || told <= known) {
        return false;
    }
    if (known != 0) {
        longest.note(now() - std::max(since, changes.timeOf(known + 1)));
    }
    known = told;
    return true;
}

void wait(Storm& storm, Waiter& self) {
    while (!storm.isOver) {
        const SCARDCONTEXT context = storm.contexts[self.context];
        std::vector<SCARD_READERSTATEA> states;
        if (self.hasHost) {
            states.push_back(stateOf(kHostReader, self.hostKnown));
        }
        if (self.hasRemote) {
            states.push_back(stateOf(kRemoteReader, self.remoteKnown));
        }
        const Milliseconds since = now();
        self.inUse = context;
        self.since = since;
        const LONG rv = SCardGetStatusChangeA(context, self.timeout, states.data(),
                                              static_cast<DWORD>(states.size()));
        self.since = 0;
        ++storm.waits;
        const Milliseconds cancelled = storm.cancelled[self.context];
        if (cancelled > since && context == storm.contexts[self.context]) {
            storm.toldOfCancel.note(now() - cancelled);
        }
        bool hasNews = false;
        if (rv == SCARD_S_SUCCESS && self.timeout == INFINITE) {
            hasNews = self.hasHost && take(states.front(), storm.hostChanges, since, self.hostKnown,
                                           storm.toldOfHost);
            hasNews = (self.hasRemote && take(states.back(), storm.remoteChanges,
                                              std::max<Milliseconds>(since, storm.stableSince),
                                              self.remoteKnown, storm.toldOfRemote)) ||
                      hasNews;
        }
        if (!hasNews) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }
}

/// Moves a card in and out, and keeps the times.
void change(Storm& storm, SimulatedService& service, const char* reader, Changes& changes,
            unsigned seed) {
    Random random(seed);
    while (!storm.isOver) {
        random.pause(2, 60);
        const std::uint32_t next = changes.count + 1;
        if (next == 0xFFFF) {
            return;  // the number would begin anew
        }
        changes.times[next] = now();
        if ((next & 1U) == 0) {
            service.removeCard(reader);
        } else {
            service.insertCard(reader, makeDemoCard("Somebody"));
        }
        changes.count = next;
    }
}

void cancel(Storm& storm) {
    Random random(3);
    while (!storm.isOver) {
        random.pause(1, 80);
        const std::size_t which = random.below(kContexts);
        storm.cancelled[which] = now();
        SCardCancel(storm.contexts[which]);
        ++storm.cancels;
    }
}

void release(Storm& storm) {
    Random random(4);
    while (!storm.isOver) {
        random.pause(50, 500);
        const std::size_t which = random.below(kContexts);
        SCardReleaseContext(storm.contexts[which].exchange(establish()));
        ++storm.releases;
    }
}

void transmit(Storm& storm) {
    Random random(5);
    const SCARDCONTEXT context = establish();
    while (!storm.isOver) {
        random.pause(1, 30);
        SCARDHANDLE card = 0;
        DWORD protocol = 0;
        if (SCardConnectA(context, kRemoteReader, SCARD_SHARE_SHARED, SCARD_PROTOCOL_Tx, &card,
                          &protocol) != SCARD_S_SUCCESS) {
            continue;
        }
        const SCARD_IO_REQUEST pci = {protocol, sizeof pci};
        const BYTE command[] = {0x00, 0x84, 0x00, 0x00, 0x08};
        BYTE response[16] = {};
        DWORD length = sizeof response;
        SCardTransmit(card, &pci, command, sizeof command, nullptr, response, &length);
        SCardDisconnect(card, SCARD_LEAVE_CARD);
        ++storm.transmits;
    }
    SCardReleaseContext(context);
}

void disturbDaemon(Storm& storm) {
    Random random(6);
    while (!storm.isOver) {
        random.pause(200, 3000);
        const std::vector<std::uint64_t> open = storm.daemon.openConnections();
        switch (random.below(3)) {
            case 0:
                storm.stableSince = 0;
                storm.daemon.stop();
                random.pause(0, 400);
                storm.daemon.start();
                break;
            case 1:
                if (!open.empty()) {
                    storm.daemon.closeConnection(
                        open[random.below(static_cast<unsigned>(open.size()))]);
                }
                break;
            default:
                storm.daemon.closeAllConnections();
                break;
        }
        storm.stableSince = now();
        storm.daemon.clearRecords();
        ++storm.disturbances;
    }
}

/// Whether a waiter is still inside of a wait that should be over long since; says why.
bool isLost(const Storm& storm, const Waiter& waiter) {
    const Milliseconds since = waiter.since;
    if (since == 0 || waiter.timeout != INFINITE) {
        return false;
    }
    const auto isOld = [](Milliseconds time) { return time != 0 && now() - time > kLost; };
    const auto hasOldChange = [&](const Changes& changes, std::uint32_t known) {
        return changes.count > known && isOld(std::max(since, changes.timeOf(known + 1)));
    };
    const Milliseconds stable = storm.stableSince;
    const char* what = nullptr;
    if (waiter.hasHost && hasOldChange(storm.hostChanges, waiter.hostKnown)) {
        what = "a change of the host's";
    } else if (waiter.hasRemote && isOld(stable) &&
               hasOldChange(storm.remoteChanges, waiter.remoteKnown)) {
        what = "a change of the daemon's";
    } else if (storm.cancelled[waiter.context] > since &&
               waiter.inUse == storm.contexts[waiter.context] &&
               isOld(storm.cancelled[waiter.context])) {
        what = "a cancel";
    } else if (waiter.inUse != storm.contexts[waiter.context] && isOld(since)) {
        what = "the release of its context";
    }
    if (what == nullptr || waiter.since != since) {
        return false;
    }
    std::printf("LOST: a wait on context %llu, begun %lld ms ago, was not told of %s\n",
                waiter.inUse.load(), now() - since, what);
    return true;
}

void watch(Storm& storm, std::chrono::seconds duration) {
    const auto end = std::chrono::steady_clock::now() + duration;
    while (std::chrono::steady_clock::now() < end && storm.lost == 0) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        for (const Waiter& waiter : storm.waiters) {
            storm.lost += isLost(storm, waiter) ? 1U : 0U;
        }
    }
}

int run(std::chrono::seconds duration) {
    static Storm storm;  // too large for a stack
    storm.remote.addReader(kRemoteReader);
    storm.remote.insertCard(kRemoteReader, makeDemoCard("Somebody"));
    storm.standIn.setCalls(&storm.host);
    storm.daemon.start();
    for (auto& context : storm.contexts) {
        context = establish();
    }
    DWORD length = 0;
    SCardListReadersA(storm.contexts[0], nullptr, nullptr, &length);
    for (std::size_t i = 0; i < kWaiters; ++i) {
        storm.waiters[i].context = i / 2;
    }
    storm.waiters[4].hasRemote = false;
    storm.waiters[5].hasHost = false;
    storm.waiters[6].timeout = 50;
    storm.waiters[7].timeout = 0;
    storm.stableSince = now();

    std::vector<std::thread> threads;
    for (Waiter& waiter : storm.waiters) {
        threads.emplace_back([&waiter] { wait(storm, waiter); });
    }
    threads.emplace_back(
        [] { change(storm, storm.host.pcsc(), kHostReader, storm.hostChanges, 1); });
    threads.emplace_back(
        [] { change(storm, storm.remote, kRemoteReader, storm.remoteChanges, 2); });
    for (void (*const body)(Storm&) : {cancel, release, transmit, disturbDaemon}) {
        threads.emplace_back([body] { body(storm); });
    }
    watch(storm, duration);

    const auto print = [](const char* what, auto value) {
        std::printf("%-48s %lld\n", what, static_cast<long long>(value));
    };
    print("seconds", duration.count());
    print("waits", storm.waits.load());
    print("changes at the host", storm.hostChanges.count.load());
    print("changes at the daemon", storm.remoteChanges.count.load());
    print("cancels", storm.cancels.load());
    print("releases", storm.releases.load());
    print("transmits", storm.transmits.load());
    print("daemon killed, or connections lost", storm.disturbances.load());
    print("longest from a host's change to its return, ms", storm.toldOfHost.value());
    print("longest from a daemon's change to its return, ms", storm.toldOfRemote.value());
    print("longest from a cancel to its return, ms", storm.toldOfCancel.value());
    print("lost", storm.lost.load());
    std::fflush(stdout);
    // Some threads may wait for ever for what was lost.
    std::_Exit(storm.lost == 0 ? 0 : 1);
}

}  // namespace
}  // namespace tez::test

int main(int argc, char** argv) {
    if (std::getenv("TEZ_PCSC_LOG_LEVEL") == nullptr) {
        _putenv_s("TEZ_PCSC_LOG_LEVEL", "error");
    }
    const long seconds = argc == 2 ? std::strtol(argv[1], nullptr, 10) : 5;
    if (argc > 2 || seconds < 1) {
        std::fputs("usage: wait_stress [SECONDS]\n", stderr);
        return 2;
    }
    try {
        return tez::test::run(std::chrono::seconds(seconds));
    } catch (const std::exception& error) {
        std::fprintf(stderr, "wait_stress: %s\n", error.what());
        return 1;
    }
}
