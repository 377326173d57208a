#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <optional>
#include <span>
#include <string>

#include "core/card_service.h"

namespace tez::pcscd {

/// A reader as it is now: state bits without the counter, how many cards came and went, and the
/// card's ATR.
struct ObservedReader {
    std::uint32_t bits = 0;
    std::uint32_t events = 0;
    Bytes atr = {};
};

/// The readers that waits look at. Asked with the service's lock held.
class ObservedReaders {
  public:
    ObservedReaders() = default;
    ObservedReaders(const ObservedReaders&) = delete;
    ObservedReaders& operator=(const ObservedReaders&) = delete;
    virtual ~ObservedReaders() = default;

    virtual std::size_t count() const = 0;
    /// nullopt when there is no such reader.
    virtual std::optional<ObservedReader> find(const std::string& name) const = 0;
};

/// What ends the waits of one context; guarded by the service's lock.
struct WaitEnds {
    std::uint64_t cancels = 0;
    bool released = false;
};

/// Sets every entry's eventState and atr. @return whether one has changed.
///
/// An entry has changed when it is UNAWARE (0), or its state bits (EMPTY, PRESENT, INUSE,
/// EXCLUSIVE, UNKNOWN) differ, or the counter of insertions and removals in the upper 16 bits
/// does; a counter of 0 is not compared. IGNOREd entries never change. A reader that does not
/// exist is UNKNOWN | IGNORE. kPnpReader has the number of readers in its upper 16 bits and has
/// changed when that differs, also from a counter of 0.
bool refresh(std::span<ReaderState> states, const ObservedReaders& readers);

/// Blocks a wait in which nothing has changed yet, until something does, the context is cancelled
/// or released, or `timeout` ms are over (kInfinite: never); refreshes the entries.
///
/// @param lock the service's lock, held at the call and at its return.
/// @param changed notified whenever a reader or `ends` has changed.
Result awaitChange(std::unique_lock<std::mutex>& lock, std::condition_variable& changed,
                   const WaitEnds& ends, std::uint32_t timeout, std::span<ReaderState> states,
                   const ObservedReaders& readers);

}  // namespace tez::pcscd
