#pragma once

#include <windows.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <string>

#include "pcscd_names.h"
#include "pipe/unique_handle.h"
#include "scard_missing.h"

namespace tez::soak {

/// Milliseconds on a clock that all processes of a run share.
using Milliseconds = std::int64_t;

Milliseconds now();

inline constexpr std::size_t kClients = 4;

// The threads that wait, each on a context of the same number. The first one's waits are ended by
// events, cancels, the release of its context and their time, and others use its context, too; the
// second one's by events alone, so that nothing hides one that was lost; the third one's by
// anything but events, as nothing happens in its readers.
inline constexpr std::size_t kBusyWaiter = 0;
inline constexpr std::size_t kEventWaiter = 1;
inline constexpr std::size_t kQuietWaiter = 2;
inline constexpr std::size_t kWaiters = 3;
inline constexpr std::size_t kThreads = 8;

/// What a thread is in.
enum class Call : std::uint32_t {
    kEstablishContext,
    kReleaseContext,
    kListReaders,
    kGetStatusChange,
    kCancel,
    kConnect,
    kReconnect,
    kDisconnect,
    kBeginTransaction,
    kEndTransaction,
    kStatus,
    kTransmit,
    kControl,
    kStartedEvent,
    kCount,
};

const char* nameOf(Call call);

/// Every other client has the switch for standard answers on.
constexpr bool wantsStandardAnswers(std::size_t client) {
    return client % 2 != 0;
}

/// The longest of many durations.
class Longest {
  public:
    void note(Milliseconds value) {
        Milliseconds known = value_;
        while (value > known && !value_.compare_exchange_weak(known, value)) {
        }
    }
    Milliseconds value() const { return value_; }

  private:
    std::atomic<Milliseconds> value_;
};

/// The events of one reader, numbered from 1, an odd one being a card put in and an even one a card
/// taken out; the lower half of the number stands in the upper half of the reader's states.
struct Events {
    std::atomic<std::uint32_t> count;
    std::array<std::atomic<Milliseconds>, 0x10000> times;

    /// Begins the next one; the caller moves the card then.
    std::uint32_t beginNext() {
        const std::uint32_t next = count + 1;
        times[next & 0xFFFF] = now();
        count = next;
        return next;
    }
    Milliseconds timeOf(std::uint32_t number) const { return times[number & 0xFFFF]; }
    /// The event that a reader's state tells of: the last one with that lower half.
    std::uint32_t numberIn(DWORD state) const {
        const std::uint32_t last = count;
        return last - static_cast<std::uint16_t>(last - (state >> 16U));
    }
};

/// A thread of a client that waits for cards.
struct Waiter {
    std::atomic<SCARDCONTEXT> context;  ///< of the wait that it is in
    std::atomic<Milliseconds> since;    ///< 0: it is in none
    std::atomic<std::uint64_t> waits;   ///< that have ended
    std::atomic<std::uint32_t> hostKnown;
    std::atomic<std::uint32_t> remoteKnown;
    std::atomic<Milliseconds> cancelled;  ///< the wait that it is in; 0: it was not
};

struct Activity {
    std::atomic<Milliseconds> since;  ///< 0: in no call
    std::atomic<Call> call;
};

/// One client: what its process is doing, and what all of those have done that had its place.
struct ClientBoard {
    // The process's; cleared for the next one.
    std::atomic<DWORD> process;      ///< 0: not ready yet, or ended
    std::atomic<Milliseconds> born;  ///< when it was ready
    Events host;                     ///< each process has a host's library of its own
    std::array<std::atomic<SCARDCONTEXT>, kWaiters> contexts;
    std::array<Waiter, kWaiters> waiters;
    std::array<Activity, kThreads> activities;
    std::atomic<bool> mustExit;   ///< end at once, in the middle of its calls
    std::atomic<bool> isExiting;  ///< its own part of that is done

    // Those of all processes together.
    std::array<std::atomic<std::uint64_t>, static_cast<std::size_t>(Call::kCount)> calls;
    std::atomic<std::uint64_t> answers;  ///< that were held against their command
    std::atomic<std::uint64_t> crossed;
    std::atomic<std::uint64_t> eventsTold;
    std::atomic<std::uint64_t> cancels;
    std::atomic<std::uint64_t> releases;
    Longest toldOfHost;
    Longest toldOfRemote;
    Longest toldOfCancel;

    /// For a process that begins.
    void clearProcess();
};

/// What all processes of a run see. Its memory begins with zeros.
struct BoardContent {
    std::atomic<unsigned> seed;
    /// What has not been told for this long never is: an event, a cancel.
    std::atomic<Milliseconds> patience;
    std::atomic<bool> isCalm;  ///< no more events; calls go on
    std::atomic<bool> isOver;
    Events remote;                          ///< of the daemon's reader whose card comes and goes
    std::atomic<Milliseconds> stableSince;  ///< the daemon; 0: it is away, or being disturbed
    /// When a daemon that stays last lost connections, or hung. By default a wait that has begun by
    /// then may go on with the host alone, as the loss of its connection ends its daemon's half.
    std::atomic<Milliseconds> connectionsLost;
    std::atomic<std::uint64_t> daemonReady;  ///< how many commands the daemon has carried out
    std::array<ClientBoard, kClients> clients;
};

/// The shared memory of a run. Whoever writes to it may be killed at any time: there are only
/// atomics in it.
class Board {
  public:
    /// Makes it, or opens the one of that name. Throws std::runtime_error when that fails.
    explicit Board(const std::string& name);
    Board(const Board&) = delete;
    Board& operator=(const Board&) = delete;
    ~Board();

    BoardContent* operator->() const { return content_; }
    BoardContent& operator*() const { return *content_; }

  private:
    pcscd::UniqueHandle mapping_;
    BoardContent* content_;
};

}  // namespace tez::soak
