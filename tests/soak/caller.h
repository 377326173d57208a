#pragma once

#include <atomic>
#include <cstddef>

#include "board.h"
#include "random.h"
#include "scard_missing.h"

namespace tez::soak {

/// How many threads of a client are in what must not be broken off.
using Busy = std::atomic<int>;

/// A thread of a client. It calls the library through this: each call is counted, and stands on the
/// board for as long as it lasts. When the process is to end in the middle the thread stops before
/// its next call.
class Caller {
  public:
    /// What must not be broken off: one call, or all those of a transaction, as others' calls,
    /// which must not be broken off either, wait for its end.
    class Use {
      public:
        explicit Use(Caller& caller) : caller_(caller) { caller_.enter(); }
        Use(const Use&) = delete;
        Use& operator=(const Use&) = delete;
        ~Use() { caller_.leave(); }

      private:
        Caller& caller_;
    };

    /// @param thread its number, which is its place on the board. All else is borrowed.
    Caller(const BoardContent& board, ClientBoard& self, std::size_t thread, Busy& busy,
           Random random)
        : board_(board),
          self_(self),
          activity_(self.activities[thread]),
          busy_(busy),
          random_(random) {}
    Caller(const Caller&) = delete;
    Caller& operator=(const Caller&) = delete;
    ~Caller() = default;

    bool isOver() const { return board_.isOver; }
    const BoardContent& board() const { return board_; }
    ClientBoard& self() { return self_; }
    Random& random() { return random_; }

    /// Makes a call, and gives its result.
    template <class Function>
    LONG operator()(Call call, Function function) {
        const Use use(*this);
        return callBreakable(call, function);
    }

    /// The same for a call in which nothing happens for most of the time: the process may end in
    /// it.
    template <class Function>
    LONG callBreakable(Call call, Function function) {
        activity_.call = call;
        activity_.since = now();
        const LONG rv = function();
        activity_.since = 0;
        ++self_.calls[static_cast<std::size_t>(call)];
        return rv;
    }

    /// 0 when there is none to be had.
    SCARDCONTEXT establish();
    void release(SCARDCONTEXT context);

  private:
    void enter();
    void leave();

    const BoardContent& board_;
    ClientBoard& self_;
    Activity& activity_;
    Busy& busy_;
    int uses_ = 0;
    Random random_;
};

}  // namespace tez::soak
