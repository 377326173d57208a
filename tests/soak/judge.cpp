#include "judge.h"

#include <algorithm>
#include <utility>

namespace tez::soak {
namespace {

constexpr Milliseconds kUsualPause = 200;

/// Whether a waiter must be told the daemon's events, the wait that it is in being no obstacle.
bool hearsDaemon(const BoardContent& board, std::size_t client, std::size_t index) {
    const Milliseconds since = board.clients[client].waiters[index].since;
    return wantsStandardAnswers(client) || since == 0 || since > board.connectionsLost;
}

const char* findLost(const BoardContent& board, const PatientClock& clock, std::size_t number,
                     std::size_t index) {
    const ClientBoard& client = board.clients[number];
    const Waiter& waiter = client.waiters[index];
    const auto isOld = [&](Milliseconds time) {
        return time != 0 && clock.age(time) > board.patience;
    };
    // Nothing could be told before the client was there, or by a daemon that was disturbed.
    const auto isUntold = [&](const Events& events, std::uint32_t known, Milliseconds well) {
        return events.count > known &&
               isOld(std::max({client.born.load(), well, events.timeOf(known + 1)}));
    };
    if (index != kQuietWaiter) {
        if (isUntold(client.host, waiter.hostKnown, 0)) {
            return "an event of the host's";
        }
        const Milliseconds stable = board.stableSince;
        if (stable != 0 && hearsDaemon(board, number, index) &&
            isUntold(board.remote, waiter.remoteKnown, stable)) {
            return "an event of the daemon's";
        }
    }
    const Milliseconds since = waiter.since;
    if (since == 0) {
        return nullptr;
    }
    if (isOld(waiter.cancelled)) {
        return "a cancel";
    }
    if (isOld(since) && waiter.context != client.contexts[index]) {
        return "the release of its context";
    }
    return nullptr;
}

std::string ageOf(Milliseconds since) {
    return std::to_string(now() - since) + " ms";
}

}  // namespace

void PatientClock::look() {
    const Milliseconds last = std::exchange(looked_, now());
    if (looked_ - last > kUsualPause) {
        pauses_.push_back({looked_, looked_ - last - kUsualPause});
    }
}

Milliseconds PatientClock::age(Milliseconds time) const {
    Milliseconds age = now() - time;
    for (auto pause = pauses_.rbegin(); pause != pauses_.rend() && pause->end > time; ++pause) {
        age -= std::min(pause->length, pause->end - time);
    }
    return age;
}

std::optional<std::string> findLost(const BoardContent& board, const PatientClock& clock) {
    for (std::size_t i = 0; i < kClients; ++i) {
        const ClientBoard& client = board.clients[i];
        for (std::size_t waiter = 0; client.process != 0 && waiter < kWaiters; ++waiter) {
            if (const char* const what = findLost(board, clock, i, waiter)) {
                return "waiter " + std::to_string(waiter) + " of client " + std::to_string(i) +
                       ", in its wait for " + ageOf(client.waiters[waiter].since) +
                       ", was not told of " + what;
            }
        }
    }
    return std::nullopt;
}

std::optional<std::string> findHung(const BoardContent& board, const PatientClock& clock) {
    for (std::size_t i = 0; i < kClients; ++i) {
        const ClientBoard& client = board.clients[i];
        for (std::size_t thread = 0; client.process != 0 && thread < kThreads; ++thread) {
            const Activity& activity = client.activities[thread];
            const Milliseconds since = activity.since;
            const Call call = activity.call;
            if (call != Call::kGetStatusChange && since != 0 && clock.age(since) > kHung &&
                since == activity.since) {
                return std::string(nameOf(call)) + " on thread " + std::to_string(thread) +
                       " of client " + std::to_string(i) + " has not returned for " + ageOf(since);
            }
        }
    }
    return std::nullopt;
}

std::string activitiesOf(const ClientBoard& client) {
    std::string text;
    for (std::size_t thread = 0; thread < kThreads; ++thread) {
        const Activity& activity = client.activities[thread];
        if (const Milliseconds since = activity.since; since != 0) {
            text += (text.empty() ? "" : ", ") + std::string("thread ") + std::to_string(thread) +
                    " in " + nameOf(activity.call) + " for " + ageOf(since);
        }
    }
    return text.empty() ? "no thread in a call" : text;
}

bool isAllTold(const BoardContent& board) {
    for (std::size_t i = 0; i < kClients; ++i) {
        const ClientBoard& client = board.clients[i];
        for (std::size_t index = 0; index < kQuietWaiter; ++index) {
            const Waiter& waiter = client.waiters[index];
            if (waiter.hostKnown != client.host.count ||
                (waiter.remoteKnown != board.remote.count && hearsDaemon(board, i, index))) {
                return false;
            }
        }
    }
    return true;
}

}  // namespace tez::soak
