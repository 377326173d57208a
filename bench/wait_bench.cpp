// Waits: what asking costs, and how soon a wait tells of a card.
#include <algorithm>
#include <chrono>
#include <future>
#include <thread>
#include <vector>

#include "bare_pipe.h"
#include "bench.h"
#include "library.h"

namespace tez::bench {
namespace {

using Clock = std::chrono::steady_clock;
using States = std::vector<SCARD_READERSTATEA>;

SCARD_READERSTATEA hostState() {
    return stateOf(test::kHostReader, SCARD_STATE_PRESENT);
}

TEST_CASE("asking waits") {
    Sides& sides = Sides::instance();
    sides.stopDaemon();
    const SCARDCONTEXT context = establish();
    const auto ask = [context](States states) {
        return [context, states]() mutable {
            return SCardGetStatusChangeA(context, 0, states.data(),
                                         static_cast<DWORD>(states.size()));
        };
    };
    auto* const bare = hostFunction<decltype(SCardGetStatusChangeA)>("SCardGetStatusChangeA");
    const auto askHost = [context, bare, state = hostState()]() mutable {
        return bare(context, 0, &state, 1);
    };
    compare("wait with time-out 0, host alone, daemon away", askHost, ask({hostState()}));
    sides.startDaemon();
    listReaders(context);
    compare("wait with time-out 0, host alone, daemon there", askHost, ask({hostState()}));
    for (const std::size_t readers : {1U, 4U, 10U}) {
        const States remote(readers, stateOf(kRemoteReader, SCARD_STATE_PRESENT));
        States both(readers + 1, hostState());
        std::copy(remote.begin(), remote.end(), both.begin() + 1);
        auto askRemote = ask(remote);
        askRemote();
        const Pattern pattern = patternOf([&] { askRemote(); });
        BarePipe pipe;
        const std::string count = std::to_string(readers) + " remote readers";
        compare(
            "wait with time-out 0, " + count, [&] { pipe.play(pattern); }, askRemote);
        compare("wait with time-out 0, a host reader and " + count, askRemote, ask(both));
    }
    SCardReleaseContext(context);
}

/// How long it takes from a change of the remote card until what waits for it returns.
/// @param wait  waits for the change; called on a thread of its own.
double delayOf(bool isInsertion, const std::function<void()>& wait) {
    SimulatedService& remote = Sides::instance().remote();
    Clock::time_point returned;
    std::thread waiter([&] {
        wait();
        returned = Clock::now();
    });
    remote.waitForStatusWaits(1, std::chrono::seconds(10));
    // The other side's half, if there is one, is under way as well.
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    const Clock::time_point changed = Clock::now();
    if (isInsertion) {
        remote.insertCard(kRemoteReader, makeDemoCard("Somebody"));
    } else {
        remote.removeCard(kRemoteReader);
    }
    waiter.join();
    return std::chrono::duration<double, std::nano>(returned - changed).count();
}

TEST_CASE("telling waits") {
    Sides::instance().startDaemon();
    const SCARDCONTEXT context = establish();
    const auto wait = [context](bool isInsertion, bool withHost) {
        States states = {
            stateOf(kRemoteReader, isInsertion ? SCARD_STATE_EMPTY : SCARD_STATE_PRESENT)};
        if (withHost) {
            states.push_back(hostState());
        }
        SCardGetStatusChangeA(context, INFINITE, states.data(), static_cast<DWORD>(states.size()));
    };
    // What a wait for the removal, and one for the insertion, says on the pipe.
    Pattern patterns[2];
    for (const bool isInsertion : {false, true}) {
        delayOf(isInsertion, [&] {
            patterns[isInsertion ? 1 : 0] = patternOf([&] { wait(isInsertion, false); });
        });
    }
    BarePipe pipe;
    for (const bool withHost : {false, true}) {
        Figure& figure = figures()[withHost ? "card to return, wait on both sides"
                                            : "card to return, wait on the daemon"];
        for (std::size_t i = 0; i < effort().events; ++i) {
            const bool isInsertion = i % 2 == 1;
            figure.limit.push_back(
                delayOf(isInsertion, [&] { pipe.play(patterns[isInsertion ? 1 : 0]); }));
            // The card is put back for the same change to come once more.
            delayOf(!isInsertion, [&] { wait(!isInsertion, false); });
            figure.library.push_back(delayOf(isInsertion, [&] { wait(isInsertion, withHost); }));
        }
    }
    SCardReleaseContext(context);
}

}  // namespace
}  // namespace tez::bench
