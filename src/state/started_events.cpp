#include "state/started_events.h"

#include <atomic>
#include <map>
#include <memory>
#include <new>
#include <unordered_map>

#include "common/never_destroyed.h"
#include "common/slim_lock.h"
#include "common/thread.h"
#include "daemon/service_state.h"
#include "local/winscard_table.h"

namespace tez {

namespace {

constexpr DWORD kMirrorInterval = 200;  // milliseconds

/// One system started event in use, and the event that stands for it at the applications.
struct ProtocolHandle {
    OwnedHandle event;
    LONG refCount = 0;
    Thread worker;
    std::atomic<bool> stop = false;
};

struct StartedEvents {
    SlimLock startedEventMutex;
    /// The system event that each thread's access resolved to; null while the daemon served.
    std::unordered_map<DWORD, HANDLE> startedEventByThread;
    std::map<HANDLE, ProtocolHandle> startedEventRecords;
};

constinit NeverDestroyed<StartedEvents> startedEvents;

/// Lets the record's event follow the system's, with a lag of one interval at most. While the
/// daemon serves the event is never reset.
void startedEventMirror(HANDLE systemEvent, ProtocolHandle& record) noexcept {
    while (!record.stop) {
        if (WaitForSingleObject(systemEvent, 0) == WAIT_OBJECT_0) {
            SetEvent(record.event.get());
        } else if (getServiceState() == ServiceState::LocalOnly) {
            ResetEvent(record.event.get());
        }
        Sleep(kMirrorInterval);
    }
}

bool startWorker(HANDLE systemEvent, ProtocolHandle& record) {
    record.stop = false;
    return record.worker.start([systemEvent, &record] { startedEventMirror(systemEvent, record); });
}

void stopWorker(ProtocolHandle& record) {
    if (record.worker.joinable()) {
        record.stop = true;
        record.worker.join();
    }
}

HANDLE accessSystemEvent() {
    return InitializeWinscardFunctions() ? winscardTable().SCardAccessStartedEvent() : nullptr;
}

void releaseSystemEvent(HANDLE systemEvent) {
    if (systemEvent != nullptr && winscardTable().loaded) {
        winscardTable().SCardReleaseStartedEvent();
    }
}

/// Gives a fresh record its event and sets it going. False when resources are exhausted.
bool openRecord(const FunctionLog& log, ServiceState state, HANDLE systemEvent,
                ProtocolHandle& record) {
    record.event.reset(CreateEventA(nullptr, TRUE, FALSE, nullptr));
    if (record.event == nullptr) {
        log.warning("Failed to create an event (%lu)", GetLastError());
        return false;
    }
    if (state != ServiceState::LocalOnly) {
        SetEvent(record.event.get());
        return true;
    }
    if (!startWorker(systemEvent, record)) {
        log.warning("Failed to start the worker of an event (%lu)", GetLastError());
        return false;
    }
    return true;
}

}  // namespace

HANDLE accessStartedEvent(const FunctionLog& log) {
    StartedEvents& all = *startedEvents;
    const DWORD thread = GetCurrentThreadId();
    const SlimGuard guard(all.startedEventMutex);
    // Read under the lock: the monitor stores a new state before it comes here to switch the events
    // over, so either it finds the event that is made now, or the new state is seen.
    const ServiceState state = getServiceState();
    HANDLE systemEvent = nullptr;
    if (state == ServiceState::LocalOnly) {
        systemEvent = accessSystemEvent();
        if (systemEvent == nullptr) {
            log.warning("Failed to access started event (%lu)", GetLastError());
            return nullptr;
        }
    }
    const auto undo = [&] {
        const auto record = all.startedEventRecords.find(systemEvent);
        if (record != all.startedEventRecords.end() && record->second.refCount == 0) {
            all.startedEventRecords.erase(record);
        }
        all.startedEventByThread.erase(thread);
        releaseSystemEvent(systemEvent);
    };
    try {
        const auto [known, isNew] = all.startedEventByThread.try_emplace(thread, systemEvent);
        if (!isNew && known->second != systemEvent) {
            log.warning("Unexpected call to access started event");
        }
        ProtocolHandle& record = all.startedEventRecords[systemEvent];
        if (record.refCount != 0 || openRecord(log, state, systemEvent, record)) {
            ++record.refCount;
            return record.event.get();
        }
    } catch (const std::bad_alloc&) {
        undo();
        throw;
    }
    undo();
    return nullptr;
}

void releaseStartedEvent(const FunctionLog& log) {
    StartedEvents& all = *startedEvents;
    const DWORD thread = GetCurrentThreadId();
    const SlimGuard guard(all.startedEventMutex);
    const auto known = all.startedEventByThread.find(thread);
    if (known == all.startedEventByThread.end()) {
        log.warning("Unmatched call to SCardReleaseStartedEvent");
        return;
    }
    const HANDLE systemEvent = known->second;
    ProtocolHandle& record = all.startedEventRecords[systemEvent];
    if (--record.refCount < 1) {
        stopWorker(record);
        all.startedEventRecords.erase(systemEvent);
        // Entries of other threads stay: each goes with a last release on its own thread.
        all.startedEventByThread.erase(known);
        releaseSystemEvent(systemEvent);
    }
}

void setStartedEvents() {
    const SlimGuard guard(startedEvents->startedEventMutex);
    for (auto& [systemEvent, record] : startedEvents->startedEventRecords) {
        stopWorker(record);
        SetEvent(record.event.get());
    }
}

void mirrorStartedEvents() {
    const SlimGuard guard(startedEvents->startedEventMutex);
    for (auto& [key, record] : startedEvents->startedEventRecords) {
        if (record.worker.joinable()) {
            continue;  // made since the daemon went, so it follows the host's already
        }
        // A system event asked for here is not the record's to give back: it was accessed by none
        // of the application's threads.
        const HANDLE systemEvent = key != nullptr ? key : accessSystemEvent();
        if (systemEvent == nullptr || !startWorker(systemEvent, record)) {
            ResetEvent(record.event.get());
        }
    }
}

void closeStartedEvents() {
    if (!startedEvents.isMade()) {
        return;
    }
    StartedEvents& all = *startedEvents;
    const std::unique_lock<SlimLock> guard(all.startedEventMutex, std::try_to_lock);
    if (!guard.owns_lock()) {
        return;
    }
    for (auto& [systemEvent, record] : all.startedEventRecords) {
        stopWorker(record);
        record.event.reset();
        releaseSystemEvent(systemEvent);
    }
}

}  // namespace tez
