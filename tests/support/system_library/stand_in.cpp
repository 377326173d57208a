// The library that stands where a host has its own smart-card library. Nothing in it is ever
// destroyed: at process end it can be called after its own detach, when other libraries' detach
// routines run.
#include "system_library/stand_in.h"

#include <condition_variable>
#include <map>
#include <mutex>

#include "system_library/card_file.h"
#include "system_library/host_service.h"

namespace tez::test {
namespace {

class StoppedService : public HostService {
  public:
    LONG SCardReleaseContext(SCARDCONTEXT /*context*/) override { return SCARD_E_SERVICE_STOPPED; }
};

HostService* makeOwnService() {
    const bool releases = GetEnvironmentVariableA(kNoReleaseVariable, nullptr, 0) == 0;
    auto* const service = releases ? new HostService : new StoppedService;
    char path[MAX_PATH] = {};
    const DWORD length = GetEnvironmentVariableA(kCardFileVariable, path, sizeof path);
    if (length > 0 && length < sizeof path) {
        followCardFile(service->pcsc(), kHostReader, kHostCardHolder, path);
    }
    return service;
}

HostService& ownService() {
    static auto* const service = makeOwnService();
    return *service;
}

/// Who answers the calls, and how many calls are inside each of those who did.
class Switchboard {
  public:
    static Switchboard& instance() {
        static auto* const switchboard = new Switchboard;
        return *switchboard;
    }

    /// Null stands for the own service.
    void setCalls(SystemCalls* calls) {
        std::unique_lock lock(mutex_);
        SystemCalls* const previous = std::exchange(current_, calls);
        callEnded_.wait(lock, [&] { return previous == calls || inside_[previous] == 0; });
    }

    SystemCalls* enter() {
        const std::lock_guard lock(mutex_);
        ++inside_[current_];
        return current_;
    }

    void leave(SystemCalls* calls) {
        const std::lock_guard lock(mutex_);
        --inside_[calls];
        callEnded_.notify_all();
    }

  private:
    std::mutex mutex_;
    std::condition_variable callEnded_;
    SystemCalls* current_ = nullptr;
    std::map<SystemCalls*, int> inside_;
};

/// One call on its way through: `OngoingCall()->SCardCancel(context)`.
class OngoingCall {
  public:
    OngoingCall() : calls_(Switchboard::instance().enter()) {}
    OngoingCall(const OngoingCall&) = delete;
    OngoingCall& operator=(const OngoingCall&) = delete;
    ~OngoingCall() { Switchboard::instance().leave(calls_); }

    SystemCalls* operator->() const { return calls_ == nullptr ? &ownService() : calls_; }

  private:
    SystemCalls* calls_;
};

}  // namespace
}  // namespace tez::test

extern "C" {

// Exported under the platform's names, whose declarations are an application's: they import.
// NOLINTNEXTLINE(bugprone-macro-parentheses): names and parameter lists are no expressions
#define TEZ_FORWARD_CALL(Result, name, parameters, arguments) \
    Result WINAPI standIn##name parameters {                  \
        return tez::test::OngoingCall()->name arguments;      \
    }
TEZ_FOR_EACH_SYSTEM_CALL(TEZ_FORWARD_CALL)
#undef TEZ_FORWARD_CALL

extern const SCARD_IO_REQUEST standInT0Pci = {SCARD_PROTOCOL_T0, sizeof(SCARD_IO_REQUEST)};
extern const SCARD_IO_REQUEST standInT1Pci = {SCARD_PROTOCOL_T1, sizeof(SCARD_IO_REQUEST)};
extern const SCARD_IO_REQUEST standInRawPci = {SCARD_PROTOCOL_RAW, sizeof(SCARD_IO_REQUEST)};

void StandInSetCalls(tez::test::SystemCalls* calls) {
    tez::test::Switchboard::instance().setCalls(calls);
}

tez::test::StandInCounters StandInGetCounters() {
    tez::test::SystemHeap& heap = tez::test::ownService().heap();
    return {.outstanding = heap.outstanding(), .foreignFrees = heap.foreignFrees()};
}
}
