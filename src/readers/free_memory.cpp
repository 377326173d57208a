#include "common/heap.h"
#include "common/scard_api.h"
#include "context/context_registry.h"
#include "log/call_frame.h"

using namespace tez;

// The system library's own SCardFreeMemory has no part in this: none of its buffers ever reaches
// the application.
LONG WINAPI SCardFreeMemory(SCARDCONTEXT hContext, LPCVOID pvMem) {
    static constexpr CallFrame call("SCardFreeMemory", "FREE_MEMORY");
    call.in("%Ix, %p", hContext, pvMem);
    return call.run([&]() -> LONG {
        if (hContext != 0 && !isContextKnown(hContext)) {
            return SCARD_E_INVALID_HANDLE;
        }
        heapFree(const_cast<void*>(pvMem));
        return SCARD_S_SUCCESS;
    });
}
