#include <exception>

#include "common/scard_api.h"
#include "context/availability_monitor.h"
#include "log/function_log.h"
#include "state/started_events.h"

using namespace tez;

HANDLE WINAPI SCardAccessStartedEvent() {
    static constexpr FunctionLog log("SCardAccessStartedEvent");
    log.debug("ACCESS_STARTED_EVENT CALLED");
    try {
        ensurePollThreadStarted();
        return accessStartedEvent(log);
    } catch (const std::exception& error) {
        log.warning("Unexpected error: %s", error.what());
        return nullptr;
    }
}

void WINAPI SCardReleaseStartedEvent() {
    static constexpr FunctionLog log("SCardReleaseStartedEvent");
    log.debug("RELEASE_STARTED_EVENT CALLED");
    try {
        releaseStartedEvent(log);
    } catch (const std::exception& error) {
        log.warning("Unexpected error: %s", error.what());
    }
}
