#pragma once

#include <optional>
#include <string>
#include <vector>

#include "board.h"

namespace tez::soak {

/// Tells how old things are on a machine that may be busy with other work: what whoever looks was
/// kept from looking for counts little, as all others were kept waiting, too.
class PatientClock {
  public:
    /// To be called often.
    void look();
    Milliseconds age(Milliseconds time) const;

  private:
    struct Pause {
        Milliseconds end;
        Milliseconds length;
    };

    Milliseconds looked_ = now();
    std::vector<Pause> pauses_;
};

/// A call that has not returned for this long, and waits for nothing, never does.
inline constexpr Milliseconds kHung = 20000;

/// What a client has been waiting for in vain for longer than the board's patience, if anything: an
/// event of a side that was there, the end of a wait that was cancelled or whose context was
/// released. Takes clients as alive while they have a process on the board.
std::optional<std::string> findLost(const BoardContent& board, const PatientClock& clock);

/// A call that waits for nothing and has not returned within kHung.
std::optional<std::string> findHung(const BoardContent& board, const PatientClock& clock);

/// What the threads of a client are in, in words.
std::string activitiesOf(const ClientBoard& client);

/// Whether every waiter has been told all events.
bool isAllTold(const BoardContent& board);

}  // namespace tez::soak
