// Exhausted memory: a call is made with its first allocation refused, then its second, and so on
// until it has no more. Every time it must end with a result, lose nothing, and work again.
#pragma once

#include <functional>
#include <optional>
#include <string>

#include "heap_spy.h"
#include "remote_card_test.h"

namespace tez::test {

/// What a swept call may use.
struct SweptHandles {
    SCARDCONTEXT context;
    SCARDHANDLE onHost;
    SCARDHANDLE atDaemon;
};

/// A call that undoes what it did, so that it can be made again and again.
struct SweptCall {
    std::string name;
    std::function<LONG(const SweptHandles&)> make;
    bool isRedirected = false;  ///< made with all calls redirected to the daemon
    /// What the host says when the daemon cannot be asked.
    LONG fallback = SCARD_S_SUCCESS;
    /// Whether it connects to cards. The library goes on knowing the handle of a card that was
    /// disconnected from the host, and of one whose disconnection at the daemon was broken off.
    bool connects = false;
};

void PrintTo(const SweptCall& call, std::ostream* stream);

/// Frees what a call that allocates gave, and hands its result on.
LONG freeing(const SweptHandles& handles,
             const std::function<LONG(void* destination, DWORD* length)>& call);

/// A pointer to a caller's buffer as the platform's signatures want it.
template <class Unit>
Unit* bufferOf(void* destination) {
    return static_cast<Unit*>(destination);
}

/// Sweeps its parameter. Suites of calls are instantiated wherever they are.
class MemoryTest : public RemoteCardTest, public testing::WithParamInterface<SweptCall> {
  protected:
    void SetUp() override;

    /// Makes the call with one allocation refused after the other.
    void sweep();

    /// Blocks that the library has taken on the test's thread and keeps.
    std::size_t outstandingBlocks() const;
    /// Whether they become no more than that many.
    bool comesDownTo(std::size_t blocks) const;

  private:
    LONG call() const { return GetParam().make(handles_); }
    void expectNothingLost();

    std::optional<HeapSpy> heap_;
    SweptHandles handles_{};
    /// Calls that gave an exchange up. Whether the daemon has done, or is yet to do, what it was
    /// asked for is then known to nobody here.
    std::size_t brokenOff_ = 0;
};

}  // namespace tez::test
