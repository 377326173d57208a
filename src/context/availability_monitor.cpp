#include "context/availability_monitor.h"

#include <atomic>

#include "common/deadline.h"
#include "common/module_reference.h"
#include "common/slim_lock.h"
#include "common/thread.h"
#include "context/context_registry.h"
#include "daemon/connection_pool.h"
#include "daemon/daemon_connection_tez.h"
#include "daemon/service_state.h"
#include "log/function_log.h"
#include "log/switches.h"
#include "state/reader_names.h"
#include "state/started_events.h"
#include "state/waits.h"

namespace tez {

namespace {

constexpr unsigned long kPollInterval = 200;        // milliseconds
constexpr unsigned long kFirstLookPatience = 1000;  // milliseconds
constexpr const char* kServiceName = "TEZ";

SlimLock startLock;
std::atomic<bool> isStarted = false;
std::atomic<bool> stopFlag = false;
Thread pollThread;

/// Whether the poll thread has looked for the daemon; it watches the one that it found.
struct FirstLook {
    SlimLock lock;
    SlimCondition over;
    bool isOver TEZ_GUARDED_BY(lock) = false;
};
constinit FirstLook firstLook;

void noteFirstLook() noexcept {
    const SlimGuard guard(firstLook.lock);
    firstLook.isOver = true;
    firstLook.over.notifyAll();
}

/// Contexts that a daemon gives while nobody watches it stay bound when it goes: to the next one
/// they mean nothing, and none of their calls would ever succeed again. So no call asks for one
/// before the watch, unless no thread can be had for it. The patience is for a daemon that does not
/// answer the poll thread, and for callers that keep any thread from starting, as one that loads a
/// library does.
void awaitFirstLook() noexcept {
    const Deadline deadline(kFirstLookPatience);
    const SlimGuard guard(firstLook.lock);
    while (!firstLook.isOver && deadline.remaining() != 0) {
        firstLook.over.wait(firstLook.lock, deadline.remaining());
    }
}

/// The daemon can be reached: its readers join those of the host.
/// @param isRepetition  whether this is the poll thread's first pass, which repeats what the first
///                      call's check has just done.
void enterService(bool isRepetition) {
    setServiceState(ServiceState::LocalFirst);
    clearConnectionPool();
    establishMissingLocalContexts();
    // Waits in progress return and are begun anew, with the daemon's readers included. Those begun
    // since the check of the first call have them already, unless they have lost the daemon since.
    // The names go first: a wait that is begun anew while others are still being cancelled is told
    // nothing any more, and would wait on the host alone if it found the old ones.
    forgetLocalReaderNames();
    cancelPendingLocalWaits(!isRepetition);
    setStartedEvents();
}

/// The daemon has gone, and everything that it knew of us with it.
void leaveService(const FunctionLog& log) {
    log.debug("%s pipe connection interrupted, invalidating all the remote contexts", kServiceName);
    setServiceState(ServiceState::LocalOnly);
    clearConnectionPool();
    invalidateRemoteContexts();
    establishMissingLocalContexts();
    forgetRemoteReaderNames();
    if (isStandardCallsEnabled()) {
        // Waits go on, without the daemon's readers.
        cancelPendingLocalWaits(true);
    }
    mirrorStartedEvents();
}

/// The daemon cannot be reached now. Where it could at the last check, it went when nobody watched,
/// and the state stays as it was: each call finds out for itself. Only a wait with standard answers
/// goes on for as long as the state says that the daemon is there, so with these the state follows;
/// not for a pipe that is merely busy, whose daemon still has all that it knew of us.
void missService(const FunctionLog& log, const DaemonConnectionTEZ& connection) {
    if (isStandardCallsEnabled() && connection.isPipeMissing() &&
        getServiceState() == ServiceState::LocalFirst) {
        leaveService(log);
    }
}

/// One check: connects, and when that succeeds, enters the service. With watch it then stays until
/// the pipe breaks. The connection is closed at the end, to be opened afresh by the next check.
void checkServiceAvailability(DaemonConnectionTEZ& connection, bool watch, bool isRepetition) {
    static constexpr FunctionLog log("checkServiceAvailability");
    const bool isThere = connection.connect();
    if (isThere) {
        log.debug("%s pipe connection established", kServiceName);
        enterService(isRepetition);
    } else {
        missService(log, connection);
    }
    if (watch) {
        noteFirstLook();
    }
    if (watch && isThere) {
        // The daemon sends nothing here unasked; a read is how the end of the pipe is seen.
        char byte = 0;
        if (connection.readMessage(&byte, sizeof(byte)) != SCARD_S_SUCCESS) {
            leaveService(log);
        }
    }
    connection.closeSocket();
}

void pollServiceAvailability(bool loop) {
    static constexpr FunctionLog log("pollServiceAvailability");
    // A connection of its own: its broken pipe is news for the monitor, not for a call.
    DaemonConnectionTEZ connection;
    if (!loop) {
        checkServiceAvailability(connection, false, false);
        return;
    }
    log.debug("Started poll thread for protocol pipe");
    bool isRepetition = getServiceState() == ServiceState::LocalFirst;
    while (!stopFlag) {
        checkServiceAvailability(connection, true, isRepetition);
        isRepetition = false;
        Sleep(kPollInterval);
    }
    log.debug("Stopped poll thread protocol pipe");
}

}  // namespace

void ensurePollThreadStarted() {
    static constexpr FunctionLog log("ensurePollThreadStarted");
    if (isStarted) {
        return;
    }
    // Before the lock is taken: the loader has one of its own.
    const bool isPinned = pinOwnModule();
    const SlimGuard guard(startLock);
    if (isStarted) {
        return;
    }
    pollServiceAvailability(false);
    if (isPinned && pollThread.start([] { pollServiceAvailability(true); })) {
        if (getServiceState() == ServiceState::LocalFirst) {
            awaitFirstLook();
        }
        isStarted = true;
    } else {
        log.warning("Failed to start the poll thread");
    }
}

void stopPollThread() {
    stopFlag = true;
    if (pollThread.joinable()) {
        pollThread.join();
    }
}

}  // namespace tez
