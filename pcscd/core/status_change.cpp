#include "core/status_change.h"

#include <chrono>

namespace tez::pcscd {
namespace {

constexpr std::uint32_t kComparedBits =
    state::kUnknown | state::kEmpty | state::kPresent | state::kExclusive | state::kInUse;

bool refreshOne(ReaderState& entry, const ObservedReaders& readers) {
    const std::uint32_t counter = entry.currentState >> state::kCounterShift;
    entry.atr.clear();
    if ((entry.currentState & state::kIgnore) != 0) {
        entry.eventState = state::kIgnore;
        return false;
    }
    bool changed = false;
    if (entry.reader == kPnpReader) {
        const auto count = static_cast<std::uint32_t>(readers.count());
        entry.eventState = count << state::kCounterShift;
        changed = counter != count;
    } else if (std::optional<ObservedReader> reader = readers.find(entry.reader); !reader) {
        entry.eventState = state::kUnknown | state::kIgnore;
        changed = (entry.currentState & state::kUnknown) == 0;
    } else {
        const std::uint32_t events = reader->events & 0xFFFF;
        entry.atr = std::move(reader->atr);
        entry.eventState = reader->bits | events << state::kCounterShift;
        changed = ((entry.currentState ^ reader->bits) & kComparedBits) != 0 ||
                  (counter != 0 && counter != events);
    }
    if (changed) {
        entry.eventState |= state::kChanged;
    }
    return changed;
}

}  // namespace

bool refresh(std::span<ReaderState> states, const ObservedReaders& readers) {
    bool changed = false;
    for (ReaderState& entry : states) {
        changed = refreshOne(entry, readers) || changed;
    }
    return changed;
}

Result awaitChange(std::unique_lock<std::mutex>& lock, std::condition_variable& changed,
                   const WaitEnds& ends, std::uint32_t timeout, std::span<ReaderState> states,
                   const ObservedReaders& readers) {
    using Clock = std::chrono::steady_clock;
    const auto deadline = Clock::now() + std::chrono::milliseconds(timeout);
    const std::uint64_t cancels = ends.cancels;
    for (;;) {
        if (timeout == kInfinite) {
            changed.wait(lock);
        } else if (Clock::now() >= deadline) {
            return result::kTimeout;
        } else {
            changed.wait_until(lock, deadline);
        }
        const bool hasChanged = refresh(states, readers);
        if (ends.released || ends.cancels != cancels) {
            return result::kCancelled;
        }
        if (hasChanged) {
            return result::kSuccess;
        }
    }
}

}  // namespace tez::pcscd
