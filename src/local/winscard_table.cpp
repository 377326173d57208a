#include "local/winscard_table.h"

#include "common/module_reference.h"
#include "common/slim_lock.h"
#include "local/filter_driver.h"
#include "local/last_error_text.h"
#include "log/function_log.h"

namespace tez {

namespace {

// With the redirection filter driver loaded, the file in System32 is not the one to use.
constexpr const char* kSystemPath = R"(C:\Windows\System32\WinSCard.dll)";
constexpr const char* kInstallationPath =
    R"(C:\Program Files\VORN\TEZ\Server\bin\Win64\winscard.dll)";

constexpr FunctionLog initializeLog("InitializeWinscardFunctions");

WinscardTable table;
SlimLock loadLock;

template <class Function>
bool resolve(Function& entryPoint, const char* name) {
    entryPoint =
        reinterpret_cast<Function>(reinterpret_cast<void*>(GetProcAddress(table.module, name)));
    if (entryPoint == nullptr) {
        initializeLog.warning("Failed to get the address of %s: %s", name, lastErrorText().get());
    }
    return entryPoint != nullptr;
}

bool resolveAll() {
#define TEZ_RESOLVE_ENTRY_POINT(name)  \
    if (!resolve(table.name, #name)) { \
        return false;                  \
    }
    TEZ_FOR_EACH_SYSTEM_ENTRY_POINT(TEZ_RESOLVE_ENTRY_POINT)
#undef TEZ_RESOLVE_ENTRY_POINT
    return true;
}

bool load() {
    const char* const path = IsFilterDriverPresent() ? kInstallationPath : kSystemPath;
    table.module = LoadLibraryA(path);
    if (table.module == nullptr) {
        initializeLog.warning("Failed to load %s: %s", path, lastErrorText().get());
        return false;
    }
    // Installed under the very path of the library that it stands in for, this one would call
    // itself until the stack is used up.
    if (table.module == ownModule()) {
        initializeLog.warning("Failed to load %s: it is this library itself", path);
        FreeLibrary(table.module);
        return false;
    }
    if (!resolveAll()) {
        FreeLibrary(table.module);
        return false;
    }
    table.loaded = true;
    initializeLog.info("System WinSCard (%s) loaded", path);
    return true;
}

}  // namespace

const WinscardTable& winscardTable() noexcept {
    return table;
}

bool InitializeWinscardFunctions() noexcept {
    if (table.loaded) {
        return true;
    }
    const SlimGuard guard(loadLock);
    return table.loaded || load();
}

}  // namespace tez
