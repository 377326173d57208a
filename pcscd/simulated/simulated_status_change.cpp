#include <chrono>
#include <optional>

#include "simulated/simulated_service.h"
#include "simulated/simulated_service_state.h"

namespace tez::test {
namespace {

constexpr DWORD kCounterShift = 16;
constexpr DWORD kComparedBits = SCARD_STATE_UNKNOWN | SCARD_STATE_EMPTY | SCARD_STATE_PRESENT |
                                SCARD_STATE_EXCLUSIVE | SCARD_STATE_INUSE;

}  // namespace

bool SimulatedService::refresh(ReaderState& state) const {
    const DWORD counter = state.currentState >> kCounterShift;
    state.atr.clear();
    if ((state.currentState & SCARD_STATE_IGNORE) != 0) {
        state.eventState = SCARD_STATE_IGNORE;
        return false;
    }
    bool changed = false;
    if (state.reader == kPnpReader) {
        const auto count = static_cast<DWORD>(readers_.size());
        state.eventState = count << kCounterShift;
        changed = counter != count;
    } else if (const ReaderPointer reader = findReader(state.reader); reader == nullptr) {
        state.eventState = SCARD_STATE_UNKNOWN | SCARD_STATE_IGNORE;
        changed = (state.currentState & SCARD_STATE_UNKNOWN) == 0;
    } else {
        DWORD bits = SCARD_STATE_EMPTY;
        if (reader->card) {
            bits = SCARD_STATE_PRESENT;
            state.atr = reader->card->atr();
        }
        for (const auto& [card, connection] : connections_) {
            if (connection->reader != reader || !connection->holdsCard()) {
                continue;
            }
            bits |= SCARD_STATE_INUSE;
            if (connection->shareMode != SCARD_SHARE_SHARED) {
                bits |= SCARD_STATE_EXCLUSIVE;
            }
        }
        const DWORD events = reader->events & 0xFFFF;
        state.eventState = bits | events << kCounterShift;
        changed =
            (state.currentState & kComparedBits) != bits || (counter != 0 && counter != events);
    }
    if (changed) {
        state.eventState |= SCARD_STATE_CHANGED;
    }
    return changed;
}

bool SimulatedService::refreshAll(std::span<ReaderState> states) const {
    bool changed = false;
    for (ReaderState& state : states) {
        changed = refresh(state) || changed;
    }
    return changed;
}

LONG SimulatedService::getStatusChange(Context context, DWORD timeout,
                                       std::span<ReaderState> states) {
    using Clock = std::chrono::steady_clock;
    Lock lock(mutex_);
    const auto found = contexts_.find(context);
    if (found == contexts_.end()) {
        return SCARD_E_INVALID_HANDLE;
    }
    const std::shared_ptr<ContextRecord> record = found->second;
    if (states.empty() || refreshAll(states)) {
        return SCARD_S_SUCCESS;
    }

    std::optional<Clock::time_point> deadline;
    if (timeout != INFINITE) {
        deadline = Clock::now() + std::chrono::milliseconds(timeout);
    }
    const std::uint64_t cancels = record->cancels;
    const Blocked blocked(statusWaits_, changed_);
    for (;;) {
        if (!deadline) {
            changed_.wait(lock);
        } else if (Clock::now() >= *deadline) {
            return SCARD_E_TIMEOUT;
        } else {
            changed_.wait_until(lock, *deadline);
        }
        const bool changed = refreshAll(states);
        if (record->released || record->cancels != cancels) {
            return SCARD_E_CANCELLED;
        }
        if (changed) {
            return SCARD_S_SUCCESS;
        }
    }
}

LONG SimulatedService::cancel(Context context) {
    const Lock lock(mutex_);
    const auto found = contexts_.find(context);
    if (found == contexts_.end()) {
        return SCARD_E_INVALID_HANDLE;
    }
    ++found->second->cancels;
    changed_.notify_all();
    return SCARD_S_SUCCESS;
}

}  // namespace tez::test
