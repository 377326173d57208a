#include "local/filter_driver.h"

#include <windows.h>

#include <psapi.h>

#include "common/heap.h"
#include "local/last_error_text.h"
#include "log/function_log.h"

namespace tez {

namespace {

constexpr wchar_t kDriverName[] = L"tezwscrd.sys";

wchar_t asciiLower(wchar_t character) {
    return character >= L'A' && character <= L'Z' ? static_cast<wchar_t>(character - L'A' + L'a')
                                                  : character;
}

bool isFilterDriverName(const wchar_t* name) {
    for (const wchar_t expected : kDriverName) {
        if (asciiLower(*name) != expected) {
            return false;
        }
        ++name;
    }
    return true;
}

}  // namespace

bool IsFilterDriverPresent() {
    static constexpr FunctionLog log("IsFilterDriverPresent");
    DWORD needed = 0;
    if (K32EnumDeviceDrivers(nullptr, 0, &needed) == FALSE) {
        log.warning("Cannot enumerate drivers, failed to get required size: %s",
                    lastErrorText().get());
        return false;
    }
    const DWORD room = needed;
    const HeapPtr<LPVOID> bases(static_cast<LPVOID*>(heapAllocate(room)));
    if (bases == nullptr) {
        log.warning("Cannot enumerate drivers, failed to malloc");
        return false;
    }
    if (K32EnumDeviceDrivers(bases.get(), room, &needed) == FALSE) {
        log.warning("Cannot enumerate drivers: %s", lastErrorText().get());
        return false;
    }
    // A driver loaded between the two calls makes the second one ask for more than there is.
    const DWORD count = (needed < room ? needed : room) / DWORD{sizeof(LPVOID)};
    bool isAnyVisible = count == 0;
    for (DWORD i = 0; i < count; ++i) {
        isAnyVisible = isAnyVisible || bases.get()[i] != nullptr;
        wchar_t name[256];
        if (K32GetDeviceDriverBaseNameW(bases.get()[i], name, 256) != 0 &&
            isFilterDriverName(name)) {
            return true;
        }
    }
    if (!isAnyVisible) {
        // So do the newest systems for processes without privileges. Which library is loaded now is
        // told at level info: whether that is the right one can be seen there.
        log.warning("Cannot enumerate drivers: their addresses are hidden from this process");
    }
    return false;
}

}  // namespace tez
