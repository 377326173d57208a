#include "state/started_events.h"

#include <atomic>
#include <map>
#include <memory>
#include <new>
#include <unordered_map>
#include <utility>

#include "common/never_destroyed.h"
#include "common/slim_lock.h"
#include "common/thread.h"
#include "daemon/service_state.h"
#include "local/winscard_table.h"

namespace tez {

namespace {

constexpr DWORD kMirrorInterval = 200;  // milliseconds

/// An event that applications hold, and the host's that it stands for while the daemon is away.
struct ProtocolHandle {
    OwnedHandle event;
    /// Held until the record's end. Null until it is needed, when the daemon served at first.
    HANDLE systemEvent = nullptr;
    LONG refCount = 0;
    Thread worker;
    std::atomic<bool> stop = false;
};

struct StartedEvents {
    /// Held while the host's started event is asked for and given back, too: of two threads that
    /// did so at once, one would stand for an event of the host's that nobody gives back.
    SlimLock startedEventMutex;
    /// The key of the record that each thread's accesses and releases are for.
    std::unordered_map<DWORD, HANDLE> startedEventByThread TEZ_GUARDED_BY(startedEventMutex);
    /// By the system event that the first access resolved to; null while the daemon served.
    std::map<HANDLE, ProtocolHandle> startedEventRecords TEZ_GUARDED_BY(startedEventMutex);
};

constinit NeverDestroyed<StartedEvents> startedEvents;

/// Lets the record's event follow the system's, with a lag of one interval at most. While the
/// daemon serves the event is never reset.
void startedEventMirror(ProtocolHandle& record) noexcept {
    while (!record.stop) {
        if (WaitForSingleObject(record.systemEvent, 0) == WAIT_OBJECT_0) {
            SetEvent(record.event.get());
        } else if (getServiceState() == ServiceState::LocalOnly) {
            ResetEvent(record.event.get());
        }
        Sleep(kMirrorInterval);
    }
}

bool startWorker(ProtocolHandle& record) {
    record.stop = false;
    return record.worker.start([&record] { startedEventMirror(record); });
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
    record.systemEvent = systemEvent;
    if (state == ServiceState::LocalOnly && !startWorker(record)) {
        log.warning("Failed to start the worker of an event (%lu)", GetLastError());
        return false;
    }
    return true;
}

/// The key of the record that a thread's access is for. The thread stays with its record, whoever
/// serves by now, so that its releases meet what it has accessed; only when other threads have
/// released the last of that record it gets the one of this access.
/// @param unused  out: the system event of an access that no record stands for; or null.
HANDLE findKey(const FunctionLog& log, StartedEvents& all, DWORD thread, HANDLE systemEvent,
               HANDLE& unused) TEZ_REQUIRES(all.startedEventMutex) {
    const auto [entry, isNew] = all.startedEventByThread.try_emplace(thread, systemEvent);
    HANDLE& key = entry->second;
    if (key != systemEvent) {
        log.warning("Unexpected call to access started event");
    }
    if (!isNew && !all.startedEventRecords.contains(key)) {
        unused = std::exchange(key, systemEvent);
    } else if (key != systemEvent) {
        unused = systemEvent;
    }
    return key;
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
    HANDLE unused = nullptr;
    const auto undo = [&]() TEZ_REQUIRES(all.startedEventMutex) {
        const auto record = all.startedEventRecords.find(systemEvent);
        if (record != all.startedEventRecords.end() && record->second.refCount == 0) {
            all.startedEventRecords.erase(record);
        }
        all.startedEventByThread.erase(thread);
        releaseSystemEvent(systemEvent);
        releaseSystemEvent(unused);
    };
    try {
        ProtocolHandle& record =
            all.startedEventRecords[findKey(log, all, thread, systemEvent, unused)];
        if (record.refCount != 0 || openRecord(log, state, systemEvent, record)) {
            releaseSystemEvent(unused);
            if (state != ServiceState::LocalOnly) {
                SetEvent(record.event.get());
            }
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
    // Entries of other threads stay when the record goes: each goes with a last release on its own
    // thread.
    HANDLE systemEvent = known->second;
    const auto found = all.startedEventRecords.find(known->second);
    if (found != all.startedEventRecords.end()) {
        ProtocolHandle& record = found->second;
        if (--record.refCount > 0) {
            return;
        }
        stopWorker(record);
        systemEvent = record.systemEvent;
        all.startedEventRecords.erase(found);
    }
    all.startedEventByThread.erase(known);
    releaseSystemEvent(systemEvent);
}

void setStartedEvents() {
    const SlimGuard guard(startedEvents->startedEventMutex);
    for (auto& [key, record] : startedEvents->startedEventRecords) {
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
        if (record.systemEvent == nullptr) {
            record.systemEvent = accessSystemEvent();
        }
        if (record.systemEvent == nullptr || !startWorker(record)) {
            ResetEvent(record.event.get());
        }
    }
}

void closeStartedEvents() {
    if (!startedEvents.isMade()) {
        return;
    }
    StartedEvents& all = *startedEvents;
    if (!all.startedEventMutex.try_lock()) {
        return;
    }
    for (auto& [key, record] : all.startedEventRecords) {
        stopWorker(record);
        record.event.reset();
        releaseSystemEvent(record.systemEvent);
    }
    all.startedEventMutex.unlock();
}

}  // namespace tez
