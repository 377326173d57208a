#pragma once

// What SimulatedService keeps; for its own sources only.

#include <map>
#include <optional>
#include <string>

#include "simulated/simulated_service.h"

namespace tez::pcscd {

struct SimulatedService::Reader {
    std::string name;
    std::uint32_t unit = 0;
    bool attached = true;
    std::optional<VirtualCard> card;
    std::uint64_t cardSession = 0;  // counts insertions: tells one card's stay from the next one's
    std::uint64_t resets = 0;
    std::uint32_t events = 0;  // insertions and removals
    bool holding = false;
    Card transactionOwner = 0;
    int transactionDepth = 0;
    std::map<std::uint32_t, Bytes> attributes;
};

struct SimulatedService::Connection {
    Context context = 0;
    ReaderPointer reader;
    std::uint32_t shareMode = 0;
    std::uint32_t protocol = protocol::kUndefined;
    std::uint64_t cardSession = 0;  // 0: made without a card
    std::uint64_t resetsSeen = 0;
    std::uint32_t transmits = 0;
    bool open = true;

    bool holdsCard() const { return reader->card && cardSession == reader->cardSession; }
    // Connections to a card that is gone keep nobody out.
    bool keepsReader() const { return shareMode == share::kDirect || holdsCard(); }
};

/// Counts a call as blocked while it lives.
class SimulatedService::Blocked {
  public:
    Blocked(std::size_t& counter, std::condition_variable& changed) : counter_(counter) {
        ++counter_;
        changed.notify_all();
    }
    ~Blocked() { --counter_; }
    Blocked(const Blocked&) = delete;
    Blocked& operator=(const Blocked&) = delete;

  private:
    std::size_t& counter_;
};

}  // namespace tez::pcscd
