#include "waiting.h"

#include <algorithm>
#include <array>
#include <span>
#include <vector>

#include "system_library/host_service.h"
#include "tagged_card.h"

namespace tez::soak {
namespace {

constexpr Milliseconds kPollInterval = 1;
/// A wait that has lasted so long on the board has begun in the library, too.
constexpr Milliseconds kHasBegun = 1000;
/// How long the daemon must have been left alone for a delay to be the library's own.
constexpr Milliseconds kSettled = 1000;

SCARD_READERSTATEA entryFor(const char* reader) {
    SCARD_READERSTATEA entry = {};
    entry.szReader = reader;
    return entry;
}

/// What was told becomes what is known, but for a reader that is away: it is waited for.
void remember(SCARD_READERSTATEA& entry) {
    if ((entry.dwEventState & SCARD_STATE_UNKNOWN) != 0) {
        entry.dwCurrentState = SCARD_STATE_UNKNOWN;
    } else if ((entry.dwEventState & SCARD_STATE_CHANGED) != 0) {
        entry.dwCurrentState = entry.dwEventState & ~static_cast<DWORD>(SCARD_STATE_CHANGED);
    }
}

/// The number of the event that an entry tells; the known one when it tells no later one.
std::uint32_t toldBy(const SCARD_READERSTATEA& entry, const Events& events, std::uint32_t known) {
    if ((entry.dwEventState & SCARD_STATE_CHANGED) == 0 ||
        (entry.dwEventState & SCARD_STATE_UNKNOWN) != 0) {
        return known;
    }
    return std::max(known, events.numberIn(entry.dwEventState));
}

/// One wait, as the board shows it.
LONG wait(Caller& caller, std::size_t which, DWORD timeout, std::span<SCARD_READERSTATEA> entries) {
    Waiter& waiter = caller.self().waiters[which];
    const SCARDCONTEXT inUse = caller.self().contexts[which];
    waiter.context = inUse;
    waiter.cancelled = 0;
    waiter.since = now();
    const auto call = [&] {
        return SCardGetStatusChangeA(inUse, timeout, entries.data(),
                                     static_cast<DWORD>(entries.size()));
    };
    const LONG rv = which == kQuietWaiter ? caller.callBreakable(Call::kGetStatusChange, call)
                                          : caller(Call::kGetStatusChange, call);
    waiter.since = 0;
    ++waiter.waits;
    return rv;
}

/// When the daemon was last disturbed, if it has been well for long enough; 0 otherwise.
Milliseconds settledSince(const BoardContent& board) {
    const Milliseconds stable = board.stableSince;
    return stable != 0 && now() - stable > kSettled ? stable : 0;
}

/// A reader whose events a thread waits for.
struct EventWait {
    SCARD_READERSTATEA entry;
    const Events& events;
    std::atomic<std::uint32_t>& known;
    Longest& longest;
};

/// Waits for the events of some readers, and takes over what was told. @return whether that is
/// news.
bool waitOnce(Caller& caller, std::size_t which, DWORD timeout,
              std::span<EventWait* const> waited) {
    std::vector<SCARD_READERSTATEA> entries;
    for (EventWait* const one : waited) {
        one->entry.dwEventState = 0;
        entries.push_back(one->entry);
    }
    const Milliseconds begin = now();
    const Milliseconds settled = settledSince(caller.board());
    if (wait(caller, which, timeout, entries) != SCARD_S_SUCCESS) {
        return false;
    }
    const Milliseconds end = now();
    // A wait with a time-out may go on for all of it.
    const bool isMeasured =
        timeout == INFINITE && settled != 0 && settled == caller.board().stableSince;
    bool hasNews = false;
    for (std::size_t i = 0; i < entries.size(); ++i) {
        EventWait& one = *waited[i];
        one.entry = entries[i];
        const std::uint32_t known = one.known;
        const std::uint32_t told = toldBy(one.entry, one.events, known);
        remember(one.entry);
        if (told == known) {
            continue;
        }
        hasNews = true;
        one.known = told;
        if (known == 0) {
            continue;  // the first wait is told the state, which is no event
        }
        caller.self().eventsTold += told - known;
        if (isMeasured) {
            one.longest.note(end - std::max(begin, one.events.timeOf(known + 1)));
        }
    }
    return hasNews;
}

void cancel(Caller& caller, SCARDCONTEXT context) {
    caller(Call::kCancel, [&] { return SCardCancel(context); });
    ++caller.self().cancels;
}

/// Cancels the wait for cancels: at once, or when it has begun for certain. Then it must end.
void cancelQuietWait(Caller& caller) {
    Waiter& waiter = caller.self().waiters[kQuietWaiter];
    const std::uint64_t waits = waiter.waits;
    const Milliseconds patient = now() + (caller.random().below(2) == 0 ? 0 : 2 * kHasBegun);
    while (now() < patient && waiter.waits == waits && !caller.isOver()) {
        Sleep(kPollInterval);
    }
    const Milliseconds since = waiter.since;
    const Milliseconds cancelled = now();
    cancel(caller, waiter.context);
    if (since == 0 || cancelled - since < kHasBegun) {
        return;  // the wait may have begun after the cancel, which then was for none
    }
    if (waiter.waits == waits) {
        waiter.cancelled = cancelled;
    }
    while (waiter.waits == waits && !caller.isOver()) {
        Sleep(kPollInterval);
    }
    caller.self().toldOfCancel.note(now() - cancelled);
}

/// Waits in progress on the old context end, and go on on a new one.
void replaceContext(Caller& caller, std::size_t which) {
    ClientBoard& self = caller.self();
    const SCARDCONTEXT fresh = caller.establish();
    if (fresh == 0) {
        return;
    }
    const SCARDCONTEXT old = self.contexts[which].exchange(fresh);
    caller.release(old);
    ++self.releases;
}

}  // namespace

void waitForEvents(Caller& caller, std::size_t which) {
    ClientBoard& self = caller.self();
    Waiter& waiter = self.waiters[which];
    Random& random = caller.random();
    EventWait host = {entryFor(test::kHostReader), self.host, waiter.hostKnown, self.toldOfHost};
    EventWait remote = {entryFor(kRemoteReader), caller.board().remote, waiter.remoteKnown,
                        self.toldOfRemote};
    while (!caller.isOver()) {
        std::vector<EventWait*> waited = {&host, &remote};
        DWORD timeout = INFINITE;
        if (which == kBusyWaiter) {
            const unsigned side = random.below(8);
            if (side < waited.size()) {
                waited = {waited[side]};
            }
            if (random.below(5) == 0) {
                timeout = random.below(200);
            }
        }
        // A wait that ended without news is begun anew at once as often as not: what ended it may
        // still be under way.
        if (!waitOnce(caller, which, timeout, waited) && random.below(2) == 0) {
            Sleep(kPollInterval);
        }
    }
}

void waitForCancels(Caller& caller) {
    std::array<SCARD_READERSTATEA, 2> entries = {entryFor(kHostQuietReader),
                                                 entryFor(kRemoteQuietReader)};
    while (!caller.isOver()) {
        if (wait(caller, kQuietWaiter, INFINITE, entries) == SCARD_S_SUCCESS) {
            std::ranges::for_each(entries, remember);
        }
        Sleep(kPollInterval);
    }
}

void cancelAndRelease(Caller& caller) {
    Random& random = caller.random();
    while (!caller.isOver()) {
        random.pause(1, 60);
        const unsigned choice = random.below(40);
        if (choice == 0) {
            replaceContext(caller, random.below(2) == 0 ? kBusyWaiter : kQuietWaiter);
        } else if (choice < 6) {
            cancelQuietWait(caller);
        } else {
            cancel(caller, caller.self().contexts[kBusyWaiter]);
        }
    }
}

}  // namespace tez::soak
