#include <windows.h>

#include "context/availability_monitor.h"
#include "state/started_events.h"

/// Everything is made on first use, so attaching a process or a thread does nothing. At detach the
/// poll thread is stopped and the started events are closed; contexts, connections, the log file
/// and the system library are left to the platform, for the process is ending (or, on FreeLibrary,
/// there is nothing: whatever is made to stay keeps the library loaded).
BOOL WINAPI DllMain(HINSTANCE /*module*/, DWORD reason, LPVOID /*reserved*/) {
    if (reason == DLL_PROCESS_DETACH) {
        tez::stopPollThread();
        tez::closeStartedEvents();
    }
    return TRUE;
}
