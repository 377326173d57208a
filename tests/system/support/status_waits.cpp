#include "status_waits.h"

#include <algorithm>
#include <condition_variable>
#include <future>
#include <mutex>
#include <optional>
#include <stdexcept>

#include "detached_thread.h"

namespace tez::test {
namespace {

constexpr std::size_t kAtrWidth = 33;

}  // namespace

Bytes statusChangeHeader(std::size_t readers) {
    return requestHeader(Command::kGetStatusChange,
                         StatusChangeLayout::kSize + readers * ReaderStateLayout::kSize);
}

Bytes statusChangeBody(std::uint64_t remoteContext, DWORD timeout,
                       const std::vector<SCARD_READERSTATEA>& readers) {
    RecordBytes body(StatusChangeLayout::kSize);
    body.u64(StatusChangeLayout::kContext, remoteContext)
        .u32(StatusChangeLayout::kTimeout, static_cast<std::uint32_t>(timeout))
        .u32(StatusChangeLayout::kReaders, static_cast<std::uint32_t>(readers.size()));
    for (const SCARD_READERSTATEA& reader : readers) {
        body.append(
            RecordBytes(ReaderStateLayout::kSize)
                .text(ReaderStateLayout::kReader, reader.szReader)
                .u32(ReaderStateLayout::kCurrent, static_cast<std::uint32_t>(reader.dwCurrentState))
                .u32(ReaderStateLayout::kEvent, static_cast<std::uint32_t>(reader.dwEventState))
                .u32(ReaderStateLayout::kAtrLength, static_cast<std::uint32_t>(reader.cbAtr))
                .raw(ReaderStateLayout::kAtr, copyBytes(reader.rgbAtr, kAtrWidth)));
    }
    return body;
}

ULONGLONG median(std::vector<ULONGLONG> values) {
    std::sort(values.begin(), values.end());
    return values.empty() ? 0 : values[values.size() / 2];
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
    // Nobody's: a call that never returns must fail the test and not keep it from ending.
    runDetached([call = call_, context, timeout] {
        const ULONGLONG start = GetTickCount64();
        const LONG result = SCardGetStatusChangeA(context, timeout, call->states.data(),
                                                  static_cast<DWORD>(call->states.size()));
        call->duration = GetTickCount64() - start;
        call->promise.set_value(result);
    });
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

BackgroundWait StatusChangeTest::beginWaitInRelease(SCARDCONTEXT context) {
    const auto wait = std::make_shared<std::optional<BackgroundWait>>();
    ON_CALL(host, SCardReleaseContext).WillByDefault([this, context, wait](SCARDCONTEXT system) {
        if (!wait->has_value()) {
            wait->emplace(context, INFINITE, std::vector{unchangedRemote()});
            waitForRemoteWait();
        }
        return host.service().SCardReleaseContext(system);
    });
    EXPECT_THAT(SCardReleaseContext(context), Gives(SCARD_S_SUCCESS));
    return wait->value();
}

Gate StatusChangeTest::holdHostWaits() {
    Gate gate;
    ON_CALL(host, SCardGetStatusChangeA)
        .WillByDefault([this, gate](SCARDCONTEXT context, DWORD timeout,
                                    LPSCARD_READERSTATEA states, DWORD count) {
            gate.pass();
            return host.service().SCardGetStatusChangeA(context, timeout, states, count);
        });
    return gate;
}

Gate StatusChangeTest::holdFirstPass() {
    Gate gate;
    daemon.setObserver({.handshake =
                            [gate](const Handshake& handshake) {
                                if (handshake.connection == kWatch) {
                                    gate.pass();
                                }
                            },
                        .disconnected = {}});
    return gate;
}

}  // namespace tez::test
