#pragma once

#include "pcscd_names.h"
#include "simulated/simulated_service.h"
#include "system_library/started_event.h"
#include "system_library/system_calls.h"
#include "system_library/system_heap.h"

namespace tez::test {

inline constexpr const char* kHostReader = "Host Reader 0";
inline constexpr const char* kHostCardHolder = "Host User";
inline constexpr const char* kHostCardType = "Demo Card";

/// A host's smart-card service as its library shows it to applications: a SimulatedService with one
/// reader, kHostReader, that holds a demo card of kHostCardHolder; a card database that knows this
/// card as kHostCardType; a data cache, a reader icon and a started event. Thread-safe.
///
/// Its handles lie far from the small numbers that other libraries issue: contexts count up from
/// 0x7A000001, cards from 0x7B000001.
class HostService : public SystemCalls {
  public:
    HostService();

    /// The readers and cards, for a test to change.
    SimulatedService& pcsc() noexcept { return pcsc_; }
    /// What auto-allocated buffers come from.
    SystemHeap& heap() noexcept { return heap_; }
    StartedEvent& startedEvent() noexcept { return startedEvent_; }

// NOLINTNEXTLINE(bugprone-macro-parentheses): names and parameter lists are no expressions
#define TEZ_DECLARE_CALL(Result, name, parameters, arguments) Result name parameters override;
    TEZ_FOR_EACH_SYSTEM_CALL(TEZ_DECLARE_CALL)
#undef TEZ_DECLARE_CALL

  private:
    SimulatedService pcsc_;
    SystemHeap heap_;
    StartedEvent startedEvent_;
};

}  // namespace tez::test
