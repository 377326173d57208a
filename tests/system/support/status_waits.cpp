#include "status_waits.h"

#include <algorithm>
#include <condition_variable>
#include <future>
#include <mutex>
#include <stdexcept>
#include <thread>

namespace tez::test {
namespace {

constexpr std::size_t kStatusChangeRecordSize = 20;
constexpr std::size_t kReaderRecordSize = 173;
constexpr std::size_t kAtrWidth = 33;

}  // namespace

SCARD_READERSTATEA readerState(const char* reader, DWORD current, DWORD event) {
    SCARD_READERSTATEA state = {};
    state.szReader = reader;
    state.dwCurrentState = current;
    state.dwEventState = event;
    return state;
}

Bytes statusChangeHeader(std::size_t readers) {
    Bytes header(12);
    putU32(header, 0,
           static_cast<std::uint32_t>(kStatusChangeRecordSize + readers * kReaderRecordSize));
    putU32(header, 4, 12);
    return header;
}

Bytes statusChangeBody(std::uint64_t remoteContext, DWORD timeout,
                       const std::vector<SCARD_READERSTATEA>& readers) {
    Bytes body(kStatusChangeRecordSize + readers.size() * kReaderRecordSize);
    putU64(body, 0, remoteContext);
    putU32(body, 8, static_cast<std::uint32_t>(timeout));
    putU32(body, 12, static_cast<std::uint32_t>(readers.size()));
    std::size_t offset = kStatusChangeRecordSize;
    for (const SCARD_READERSTATEA& reader : readers) {
        const std::string name = reader.szReader;
        std::copy(name.begin(), name.end(), body.begin() + static_cast<std::ptrdiff_t>(offset));
        putU32(body, offset + 128, static_cast<std::uint32_t>(reader.dwCurrentState));
        putU32(body, offset + 132, static_cast<std::uint32_t>(reader.dwEventState));
        putU32(body, offset + 136, static_cast<std::uint32_t>(reader.cbAtr));
        putBytes(body, offset + 140, {reader.rgbAtr, kAtrWidth});
        offset += kReaderRecordSize;
    }
    return body;
}

struct BackgroundWait::Call {
    std::vector<SCARD_READERSTATEA> states;
    ULONGLONG duration = 0;
    std::promise<LONG> promise;
    std::shared_future<LONG> result = promise.get_future().share();
};

BackgroundWait::BackgroundWait(SCARDCONTEXT context, DWORD timeout,
                               std::vector<SCARD_READERSTATEA> states)
    : call_(std::make_shared<Call>()) {
    call_->states = std::move(states);
    // Detached: a call that never returns must fail the test and not keep it from ending.
    std::thread([call = call_, context, timeout] {
        const ULONGLONG start = GetTickCount64();
        const LONG result = SCardGetStatusChangeA(context, timeout, call->states.data(),
                                                  static_cast<DWORD>(call->states.size()));
        call->duration = GetTickCount64() - start;
        call->promise.set_value(result);
    }).detach();
}

bool BackgroundWait::isOver(std::chrono::milliseconds timeout) const {
    return call_->result.wait_for(timeout) == std::future_status::ready;
}

LONG BackgroundWait::result() const {
    if (!isOver(kPatience)) {
        throw std::runtime_error("SCardGetStatusChangeA does not return");
    }
    return call_->result.get();
}

const SCARD_READERSTATEA& BackgroundWait::state(std::size_t index) const {
    return call_->states.at(index);
}

ULONGLONG BackgroundWait::duration() const {
    return call_->duration;
}

struct Gate::State {
    std::mutex mutex;
    std::condition_variable changed;
    bool isOpen = false;
    bool isReached = false;
};

Gate::Gate() : state_(std::make_shared<State>()) {}

void Gate::pass() const {
    std::unique_lock lock(state_->mutex);
    state_->isReached = true;
    state_->changed.notify_all();
    state_->changed.wait_for(lock, kPatience, [this] { return state_->isOpen; });
}

void Gate::open() const {
    const std::lock_guard lock(state_->mutex);
    state_->isOpen = true;
    state_->changed.notify_all();
}

bool Gate::waitUntilReached() const {
    std::unique_lock lock(state_->mutex);
    return state_->changed.wait_for(lock, kPatience, [this] { return state_->isReached; });
}

SkippedPauses::SkippedPauses()
    : clock_(libraryModule(), "KERNEL32.dll", "GetTickCount64",
             [this] { return ::GetTickCount64() + skipped_; }),
      wait_(libraryModule(), "KERNEL32.dll", "WaitForMultipleObjects",
            [this](DWORD count, const HANDLE* objects, BOOL all, DWORD timeout) -> DWORD {
                if (GetCurrentThreadId() != thread_ || timeout == INFINITE) {
                    return ::WaitForMultipleObjects(count, objects, all, timeout);
                }
                durations_.push_back(timeout);
                skipped_ += timeout;
                return WAIT_TIMEOUT;
            }) {}

SCARDCONTEXT StatusChangeTest::establishAndList() {
    const SCARDCONTEXT context = establishWithDaemon();
    listReaders(context);
    daemon.clearRecords();
    return context;
}

SCARD_READERSTATEA StatusChangeTest::unchangedHost() {
    return readerState(kHostReader, SCARD_STATE_PRESENT);
}

SCARD_READERSTATEA StatusChangeTest::unchangedRemote() {
    return readerState(kRemoteReader, SCARD_STATE_PRESENT);
}

BackgroundWait StatusChangeTest::waitOnBothSides(SCARDCONTEXT context) {
    BackgroundWait wait(context, INFINITE, {unchangedHost(), unchangedRemote()});
    waitForRemoteWait();
    waitForHostWait();
    return wait;
}

void StatusChangeTest::waitForRemoteWait(std::size_t waits) const {
    if (!remote.waitForStatusWaits(waits, kPatience)) {
        throw std::runtime_error("no wait at the daemon");
    }
}

void StatusChangeTest::waitForHostWait(std::size_t waits) {
    if (!host.pcsc().waitForStatusWaits(waits, kPatience)) {
        throw std::runtime_error("no wait at the host");
    }
}

}  // namespace tez::test
